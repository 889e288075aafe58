// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/kit/inputsession.h"

#include "plugin/certificaterenewal.h"
#include "plugin/iinputplugin.h"
#include "plugin/libraryversion.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QMutex>
#include <QtCore/QScopedValueRollback>
#include <QtCore/QThread>

#include <chrono>
#include <initializer_list>
#include <utility>

namespace inputkit {
namespace {

constexpr QLatin1String SslKey("ssl");

constexpr QLatin1String LimitsKey("limits");

// What is in flight fits into the processor's caches, and a fast connection still has 200 MB/s.
constexpr int MiB = 1024 * 1024;

using Defaults = std::initializer_list<std::pair<const char *, QJsonValue>>;

// Adds the default of each key that the object does not have.
void addMissing(QJsonObject &object, const Defaults &defaults)
{
    for (const auto &[key, value] : defaults) {
        if (!object.contains(QLatin1String(key)))
            object.insert(QLatin1String(key), value);
    }
}

} // namespace

QJsonObject InputSession::withDefaults(QJsonObject configuration)
{
    addMissing(configuration,
               {
                       {"ends", true}, // otherwise ends are guessed
                       {"limits", QJsonObject()}, // otherwise a slow host fills memory; see below
                       {"offsets", true}, // otherwise messages may get lost or come twice
                       {"prompt", true}, // otherwise a message's last piece may wait
                       {"strict", true}, // otherwise a misspelt key is ignored
               });
    if (configuration.value(LimitsKey).isObject()) {
        QJsonObject limits = configuration.value(LimitsKey).toObject();
        addMissing(limits, {{"connectionBuffer", 1 * MiB}, {"totalBuffer", 128 * MiB}});
        configuration.insert(LimitsKey, limits);
    }
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
    stopTimer.setSingleShot(true);
    connect(&stopTimer, &QTimer::timeout, this, &InputSession::stopLater);
    connect(&warningTimer, &QTimer::timeout, this, [this] { cutter.tellMissedWarnings(); });
    warningTimer.start(std::chrono::seconds(10));
}

InputSession::~InputSession()
{
    Q_ASSERT(!isBusy());
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
    if (isBusy())
        return fail(Failure::Busy, QStringLiteral("A handler must not start the session"));
    if (!load() || !isUsable(withDefaults(configuration)))
        return false;
    removePlugin();
    return run(configuration);
}

void InputSession::stop()
{
    if (isBusy())
        stopTimer.start(std::chrono::milliseconds(0));
    else
        removePlugin();
}

// Not in a nested event loop either, in which a handler may be for long.
void InputSession::stopLater()
{
    constexpr std::chrono::milliseconds RetryInterval(10);
    if (isBusy())
        stopTimer.start(RetryInterval);
    else
        removePlugin();
}

bool InputSession::reload(const QJsonObject &configuration)
{
    const QJsonObject before = running;
    const bool wasListening = isListening();
    if (start(configuration))
        return true;
    if (isListening() || !wasListening) // nothing has changed, or nothing can be restored
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
    isLoaded = loader.load(settings.library, settings.entryPoint, settings.libraryHint);
    return isLoaded || fail(Failure::NoLibrary, loader.errorString());
}

// The plugin must be made, named, connected and started in this order. If this fails, no plugin is
// left.
bool InputSession::run(const QJsonObject &configuration)
{
    const QScopedValueRollback guard(changing, true); // log lines may run the event loop
    plugin = loader.create(withDefaults(configuration)).release();
    if (!plugin)
        return fail(Failure::NoLibrary,
                    QStringLiteral("%1 makes no plugin").arg(loader.fileName()));
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
    const QJsonValue ends = complete.value(QLatin1String("ends"));
    if (complete.value(QLatin1String("offsets")) == true
        && (ends == true || ends == QLatin1String("all")))
        return true;
    return fail(Failure::BadConfiguration,
                QStringLiteral("\"offsets\" and \"ends\" must not be switched off: without them, "
                               "messages get lost or come twice"));
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
    const ExactOffers::Place place{subids::Values(subIds)};
    if (place.connection != 0) // as "offsets" has it
        reader.receive(place, record);
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
    stopTimer.stop();
    if (!plugin)
        return;
    const QScopedValueRollback guard(changing, true);
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

std::optional<InputCounters> InputSession::counters() const
{
    return plugin ? CountersEvent::countersOf(*plugin) : std::nullopt;
}

QString InputSession::status() const
{
    return plugin ? plugin->getStatus() : QString();
}

} // namespace inputkit
