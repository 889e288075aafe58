// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/kit/pluginrunner.h"

#include "plugin/acceptpause.h"
#include "plugin/certificaterenewal.h"
#include "plugin/iinputplugin.h"
#include "plugin/libraryversion.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QScopedValueRollback>

#include <chrono>
#include <utility>

namespace inputkit {

PluginRunner::PluginRunner(PluginSettings pluginSettings, RecordReader &recordReader)
    : settings(std::move(pluginSettings)),
      reader(recordReader)
{
    stopTimer.setSingleShot(true);
    connect(&stopTimer, &QTimer::timeout, this, &PluginRunner::stopLater);
}

PluginRunner::~PluginRunner()
{
    Q_ASSERT(!isBusy());
    removePlugin();
}

bool PluginRunner::load()
{
    if (isLoaded)
        return true;
    isLoaded = loader.load(settings.library, settings.entryPoint, settings.libraryHint);
    return isLoaded || fail(Failure::NoLibrary, loader.errorString());
}

bool PluginRunner::start(const QJsonObject &configuration)
{
    if (isBusy())
        return fail(Failure::Busy, QStringLiteral("A handler must not start the session"));
    if (!load())
        return false;
    if (const QString refusal = reader.refusal(configuration); !refusal.isEmpty())
        return fail(Failure::BadConfiguration, refusal);
    stopTimer.stop(); // that was asked for before
    removePlugin();
    return run(configuration);
}

bool PluginRunner::restore()
{
    if (isBusy())
        return fail(Failure::Busy, QStringLiteral("A handler must not start the session"));
    if (listensOn.isListening())
        return true;
    return !stopTimer.isActive() && !running.isEmpty() && run(running);
}

bool PluginRunner::reload(const QJsonObject &configuration)
{
    const bool wasListening = listensOn.isListening();
    if (start(configuration))
        return true;
    if (listensOn.isListening() || !wasListening) // nothing has changed, or nothing is restored
        return false;
    const Failure kind = lastFailure;
    const QString text = error;
    restore();
    return fail(kind, text);
}

void PluginRunner::stop()
{
    if (isBusy())
        stopTimer.start(std::chrono::milliseconds(0));
    else
        removePlugin();
}

// Not in a nested event loop either, in which a handler may be for long.
void PluginRunner::stopLater()
{
    constexpr std::chrono::milliseconds RetryInterval(10);
    if (isBusy())
        stopTimer.start(RetryInterval);
    else
        removePlugin();
}

void PluginRunner::setAccepting(bool enable)
{
    accepting = enable;
    if (plugin)
        AcceptPause::ask(*plugin, !accepting);
}

bool PluginRunner::renewCertificates()
{
    return plugin && CertificateRenewal::ask(*plugin) == CertificateRenewal::Answer::Renewed;
}

void PluginRunner::answer(int length, const QMap<QString, QString> &subId)
{
    if (plugin)
        plugin->discard(length, subId);
}

std::optional<InputCounters> PluginRunner::counters() const
{
    return plugin ? CountersEvent::countersOf(*plugin) : std::nullopt;
}

QString PluginRunner::status() const
{
    return plugin ? plugin->getStatus() : QString();
}

bool PluginRunner::fail(Failure kind, const QString &text)
{
    lastFailure = kind;
    error = text;
    return false;
}

// The plugin must be made, named, connected and started in this order. If this fails, no plugin is
// left.
bool PluginRunner::run(const QJsonObject &configuration)
{
    const QScopedValueRollback guard(changing, true); // log lines may run the event loop
    reader.begin(configuration);
    plugin = loader.create(configuration).release();
    if (!plugin)
        return fail(Failure::NoLibrary,
                    QStringLiteral("%1 makes no plugin").arg(loader.fileName()));
    if (!fits())
        return false;
    plugin->pluginId = settings.pluginId;
    connectPlugin();
    AcceptPause::ask(*plugin, !accepting);
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

bool PluginRunner::fits()
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

void PluginRunner::connectPlugin()
{
    connect(plugin, &IInputPlugin::receivedData, this,
            [this](const shared_parsedData &record) { reader.receive(record); });
    // Direct: otherwise the answer does not reach the plugin.
    connect(
            plugin, &IInputPlugin::query, this,
            [this](const QString &question) -> QList<QString> {
                return question == QLatin1String("loglevel") ? QList<QString>{settings.logLevel}
                                                             : QList<QString>();
            },
            Qt::DirectConnection);
}

// Offers are still on their way after stop(), and the plugin hands over the last of them while it
// is destroyed. So the posted offers are delivered first: the reader needs offers in the order in
// which they were made.
void PluginRunner::removePlugin()
{
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
    reader.setAnswering(true);
}

} // namespace inputkit
