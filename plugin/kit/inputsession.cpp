// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/kit/inputsession.h"

#include "plugin/certificaterenewal.h"
#include "plugin/iinputplugin.h"
#include "plugin/libraryversion.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QMutex>

#include <chrono>
#include <initializer_list>
#include <utility>

namespace inputkit {
namespace {

constexpr QLatin1String SslKey("ssl");

// What is in flight fits into the processor's caches, and a fast connection still has 200 MB/s.
QJsonObject defaultLimits()
{
    constexpr int MiB = 1024 * 1024;
    return {{QStringLiteral("connectionBuffer"), 1 * MiB},
            {QStringLiteral("totalBuffer"), 128 * MiB},
            {QStringLiteral("stalledTimeout"), 60}};
}

using Defaults = std::initializer_list<std::pair<const char *, QJsonValue>>;

// Adds the default of each key that the object does not have.
void addMissing(QJsonObject &object, const Defaults &defaults)
{
    for (const auto &[key, value] : defaults) {
        if (!object.contains(QLatin1String(key)))
            object.insert(QLatin1String(key), value);
    }
}

// "ends" may also be "all".
bool isOn(const QJsonValue &value)
{
    return value.toBool() || value.isString();
}

} // namespace

QJsonObject InputSession::withDefaults(QJsonObject configuration)
{
    addMissing(configuration,
               {
                       {"ends", true}, // otherwise ends are guessed
                       {"limits", defaultLimits()}, // otherwise a slow host fills memory
                       {"offsets", true}, // otherwise messages may get lost or come twice
                       {"prompt", true}, // otherwise a message's last piece may wait
                       {"strict", true}, // otherwise a misspelt key is ignored
               });
    if (!configuration.value(SslKey).isObject())
        return configuration;
    QJsonObject ssl = configuration.value(SslKey).toObject();
    addMissing(ssl,
               {
                       {"Chain", true}, // otherwise devices lack intermediate certificates
                       {"KeyAlgorithm", QLatin1String("auto")}, // otherwise keys must be RSA
                       {"engine", QLatin1String("own")}, // otherwise handshakes hold this thread
               });
    configuration.insert(SslKey, ssl);
    return configuration;
}

struct Acknowledger::Link
{
    QMutex mutex;
    InputSession *session = nullptr; // guarded; null: gone
};

InputSession::InputSession(InputSettings sessionSettings, QObject *parent)
    : QObject(parent),
      settings(std::move(sessionSettings)),
      cutter(settings.framing, innerHandlers()),
      acknowledgements([this](int length, const auto &subId) { answerPlugin(length, subId); }),
      reader(
              cutter,
              [this](int length, const auto &subId) {
                  if (settings.acknowledging)
                      acknowledgements.answered(length, subId);
                  else
                      answerPlugin(length, subId);
              },
              {}, settings.pace)
{
    fromAnyThread.link = std::make_shared<Acknowledger::Link>();
    fromAnyThread.link->session = this;
    reader.setEndsTold(true);
    reader.setMaxUnfinished(settings.maxUnfinished);
    if (settings.receiver && settings.receiver->thread() != thread()) {
        handOver = std::make_unique<HandOver>(settings.receiver, settings.handlers);
        connect(handOver.get(), &HandOver::full, this,
                [this](bool isFull) { reader.setAllPaused(isFull); });
    }
    connect(&warningTimer, &QTimer::timeout, this, [this] { cutter.tellMissedWarnings(); });
    warningTimer.start(std::chrono::seconds(10));
}

InputSession::~InputSession()
{
    Q_ASSERT(!cutter.isHandling());
    {
        const QMutexLocker locker(&fromAnyThread.link->mutex);
        fromAnyThread.link->session = nullptr;
    }
    removePlugin();
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
        stopIfWanted();
    };
    inner.end = [this](const InputEnd &end) {
        acknowledgements.forget(end.origin.connection);
        if (handOver)
            handOver->add(end);
        else if (settings.handlers.end)
            settings.handlers.end(end);
        stopIfWanted();
    };
    return inner;
}

bool InputSession::start(const QJsonObject &configuration)
{
    if (cutter.isHandling())
        return fail(Failure::Busy, QStringLiteral("A handler must not start the session"));
    if (!load())
        return false;
    removePlugin();
    return run(configuration);
}

void InputSession::stop()
{
    if (cutter.isHandling())
        stopWanted = true;
    else
        removePlugin();
}

// A handler that has asked for it is about to return.
void InputSession::stopIfWanted()
{
    if (std::exchange(stopWanted, false))
        QMetaObject::invokeMethod(this, &InputSession::stop, Qt::QueuedConnection);
}

bool InputSession::reload(const QJsonObject &configuration)
{
    const QJsonObject before = running;
    const bool wasListening = isListening();
    if (start(configuration))
        return true;
    if (lastFailure == Failure::Busy || !isLoaded || !wasListening)
        return false;
    const Failure kind = lastFailure;
    const QString text = error;
    run(before);
    return fail(kind, text);
}

bool InputSession::renewCertificates()
{
    return plugin && CertificateRenewal::ask(*plugin) == CertificateRenewal::Answer::Renewed;
}

bool InputSession::fail(Failure kind, const QString &text)
{
    lastFailure = kind;
    error = text;
    return false;
}

bool InputSession::load()
{
    if (isLoaded)
        return true;
    isLoaded = loader.load(settings.library, settings.entryPoint);
    return isLoaded || fail(Failure::NoLibrary, loader.errorString());
}

// The plugin must be made, named, connected and started in this order. If this fails, no plugin is
// left.
bool InputSession::run(const QJsonObject &configuration)
{
    const QJsonObject complete = withDefaults(configuration);
    if (!isUsable(complete))
        return false;
    plugin = loader.create(complete).release();
    if (!fits())
        return false;
    plugin->pluginId = settings.pluginId;
    connectPlugin();
    if (!plugin->start()) {
        removePlugin();
        return fail(Failure::Refused, QStringLiteral("The plugin refused to start"));
    }
    const auto status = ListenStatus::parse(plugin->getStatus());
    if (!status.isListening()) {
        removePlugin();
        return fail(Failure::NotListening,
                    QStringLiteral("The plugin does not listen: is the port in use or only for "
                                   "root, or the address another machine's?"));
    }
    listensOn = status;
    running = configuration;
    lastFailure = Failure::None;
    error.clear();
    return true;
}

bool InputSession::isUsable(const QJsonObject &complete)
{
    for (const auto key : {QLatin1String("offsets"), QLatin1String("ends")}) {
        if (!isOn(complete.value(key)))
            return fail(Failure::BadConfiguration,
                        QStringLiteral("\"%1\" must not be switched off: without it, messages get "
                                       "lost or come twice")
                                .arg(key));
    }
    return true;
}

bool InputSession::fits()
{
    const auto version = LibraryVersionEvent::ask(*plugin);
    constexpr LibraryVersion wanted = LibraryVersion::ofHeaders();
    if (version && version->serves(wanted))
        return true;
    delete std::exchange(plugin, nullptr);
    const QString is = version ? QStringLiteral("of release ") + version->toString()
                               : QStringLiteral("older than these headers");
    return fail(Failure::WrongLibrary,
                QStringLiteral("%1 is %2, and the program was built with the headers of %3")
                        .arg(loader.fileName(), is, wanted.toString()));
}

void InputSession::connectPlugin()
{
    connect(plugin, &IInputPlugin::receivedData, this, &InputSession::receive);
    // Direct: otherwise the answer does not reach the plugin.
    connect(
            plugin, &IInputPlugin::query, this,
            [this](const QString &question) -> QList<QString> {
                return question == QLatin1String("loglevel") ? QList<QString>{settings.logLevel}
                                                             : QList<QString>();
            },
            Qt::DirectConnection);
}

void InputSession::receive(const shared_parsedData &record)
{
    const QMap<QString, QString> subIds = record->getPluginSubId();
    reader.receive(ExactOffers::Place(subids::Values(subIds)), record);
}

void InputSession::answerPlugin(int length, const QMap<QString, QString> &subId)
{
    if (plugin)
        plugin->discard(length, subId);
}

// Offers are still on their way after stop(), and the plugin hands over the last of them while it
// is destroyed. So the posted offers are delivered first: the reader needs offers in the order in
// which they were made.
void InputSession::removePlugin()
{
    if (!plugin)
        return;
    listensOn = {};
    reader.setAnswering(false);
    plugin->stop();
    QCoreApplication::sendPostedEvents(plugin);
    delete plugin; // its slots still use the pointer
    plugin = nullptr;
    reader.forgetAll();
    acknowledgements.clear();
    reader.setAnswering(true);
    if (handOver)
        handOver->flush();
}

void InputSession::pause(quint64 connection)
{
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

std::optional<InputCounters> InputSession::counters() const
{
    return plugin ? CountersEvent::countersOf(*plugin) : std::nullopt;
}

QString InputSession::status() const
{
    return plugin ? plugin->getStatus() : QString();
}

} // namespace inputkit
