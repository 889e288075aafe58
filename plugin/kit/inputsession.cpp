// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/kit/inputsession.h"

#include "plugin/cwrn.h"
#include "plugin/kit/defaults.h"

#include <QtCore/QMutex>
#include <QtCore/QThread>

#include <chrono>
#include <utility>

namespace inputkit {

struct Acknowledger::Link
{
    QMutex mutex;
    InputSession *session = nullptr; // guarded; null: gone
};

InputSession::InputSession(InputSettings sessionSettings, QObject *parent)
    : QObject(parent),
      settings(std::move(sessionSettings)),
      cutter(settings.framing, innerHandlers(), settings.observer),
      acknowledgements([this](int length, const auto &subId) { runner.answer(length, subId); }),
      reader(
              cutter, [this](int length, const auto &subId) { answer(length, subId); }, {},
              settings.pace),
      runner(static_cast<const PluginSettings &>(settings), *this)
{
    fromAnyThread.link = std::make_shared<Acknowledger::Link>();
    fromAnyThread.link->session = this;
    reader.setEndsTold(true);
    reader.setMaxUnfinished(settings.maxUnfinished);
    if (settings.receiver && settings.receiver->thread() != thread()) {
        handOver = std::make_unique<HandOver>(settings.receiver, settings.handlers);
        connect(handOver.get(), &HandOver::full, this, &InputSession::holdUp);
    }
    connect(&warningTimer, &QTimer::timeout, this, [this] {
        cutter.tellMissedWarnings();
        holdUpLines.takeMissed(false);
    });
    connect(&runner, &PluginRunner::drained, this, &InputSession::drained);
    warningTimer.start(std::chrono::seconds(10));
}

InputSession::~InputSession()
{
    Q_ASSERT(!runner.isBusy());
    {
        const QMutexLocker locker(&fromAnyThread.link->mutex);
        fromAnyThread.link->session = nullptr;
    }
    runner.stop();
    cutter.tellMissedWarnings(true);
}

// What the cutter calls.
InputHandlers InputSession::innerHandlers()
{
    InputHandlers inner;
    inner.message = [this](const InputMessage &message) {
        if (settings.acknowledging)
            acknowledgements.handedOut(message.origin.connection, message.end);
        if (handOver)
            handOver->add(message);
        else if (settings.handlers.message)
            settings.handlers.message(message);
    };
    inner.end = [this](const InputEnd &end) {
        acknowledgements.forget(end.origin.connection);
        if (handOver)
            handOver->add(end);
        else if (settings.handlers.end)
            settings.handlers.end(end);
    };
    return inner;
}

bool InputSession::start(const QJsonObject &configuration)
{
    return runner.start(withDefaults(configuration));
}

void InputSession::stop()
{
    runner.stop();
}

void InputSession::drain()
{
    runner.drain();
}

bool InputSession::reload(const QJsonObject &configuration)
{
    return runner.reload(withDefaults(configuration));
}

bool InputSession::renewCertificates()
{
    return runner.renewCertificates();
}

void InputSession::answer(int length, const QMap<QString, QString> &subId)
{
    if (settings.acknowledging)
        acknowledgements.answered(length, subId);
    else
        runner.answer(length, subId);
}

QString InputSession::refusal(const QJsonObject &configuration) const
{
    if (stampsOffers(configuration) && tellsEnds(configuration))
        return {};
    return QStringLiteral("\"offsets\" and \"ends\" must not be switched off: without them, "
                          "messages get lost or come twice");
}

// What connections bring waits in the plugin. An ended one is kept here until it is read, so no new
// ones may come: otherwise there would be no limit to their number.
void InputSession::holdUp(bool isFull)
{
    if (isFull && holdUpLines.allows())
        CWRN(QtWarningMsg,
             QStringLiteral(
                     "Devices have to wait: the messages' receiver is behind by more than %1 "
                     "MiB"),
             HandOver::MostBytes / (1024 * 1024));
    reader.setAllPaused(isFull);
    runner.setAccepting(!isFull);
}

void InputSession::receive(const shared_parsedData &record)
{
    const QMap<QString, QString> subIds = record->getPluginSubId();
    const ExactOffers::Place place{subids::Values(subIds)};
    if (place.connection != 0) // as "offsets" has it
        reader.receive(place, record);
}

void InputSession::forgetAll()
{
    reader.forgetAll();
    acknowledgements.clear();
    if (handOver)
        handOver->flush();
}

void InputSession::forgetUpTo(quint64 connection)
{
    reader.forgetUpTo(connection);
    if (handOver)
        handOver->flush();
}

void InputSession::pause(quint64 connection)
{
    Q_ASSERT(QThread::currentThread() == thread());
    reader.setPaused(connection, true);
    if (cutter.isHandling())
        cutter.interrupt();
}

void InputSession::resume(quint64 connection)
{
    reader.setPaused(connection, false);
}

void InputSession::acknowledge(quint64 connection, quint64 end)
{
    Q_ASSERT(QThread::currentThread() == thread());
    acknowledgements.acknowledge(connection, end);
}

void Acknowledger::operator()(quint64 connection, quint64 end) const
{
    if (!link)
        return;
    const QMutexLocker locker(&link->mutex);
    if (InputSession *const session = link->session)
        QMetaObject::invokeMethod(
                session, [session, connection, end] { session->acknowledge(connection, end); },
                Qt::QueuedConnection);
}

} // namespace inputkit
