// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/kit/pluginrunner.h"

#include "plugin/acceptpause.h"
#include "plugin/certificaterenewal.h"
#include "plugin/cwrn.h"
#include "plugin/exactoffers.h"
#include "plugin/iinputplugin.h"
#include "plugin/libraryversion.h"
#include "plugin/sharedport.h"
#include "plugin/subids.h"

#include <QtCore/QScopedValueRollback>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QTcpServer>

#include <chrono>
#include <utility>

namespace inputkit {
namespace {

// How often it is looked whether a plugin that leaves has connections left.
constexpr std::chrono::milliseconds LookInterval(20);

bool listenAlike(const ListenStatus &one, const ListenStatus &other)
{
    return one.address == other.address && one.port == other.port;
}

bool includesOthers(const QHostAddress &address)
{
    return address == QHostAddress(QHostAddress::AnyIPv4)
            || address == QHostAddress(QHostAddress::AnyIPv6)
            || address == QHostAddress(QHostAddress::Any);
}

// Whether a plugin that listens keeps one from listening that is for the same port, and for an
// address that includes its own, or the other way round. An address of another machine is no
// reason to go.
bool isInTheWayOf(const RunningPlugin &plugin, const QJsonObject &next)
{
    const auto differIn = [&](QLatin1String key) {
        return plugin.configuration().value(key) != next.value(key);
    };
    if (differIn(QLatin1String("port")) || !differIn(QLatin1String("ipAddr")))
        return false;
    const QHostAddress wanted(next.value(QLatin1String("ipAddr")).toString());
    if (wanted.isNull()) // not given: any
        return true;
    const QHostAddress present(plugin.listens().address);
    return (includesOthers(present) || includesOthers(wanted)) && QTcpServer().listen(wanted);
}

} // namespace

PluginRunner::PluginRunner(PluginSettings pluginSettings, RecordReader &recordReader)
    : settings(std::move(pluginSettings)),
      reader(recordReader)
{
    stopTimer.setSingleShot(true);
    connect(&stopTimer, &QTimer::timeout, this, &PluginRunner::later);
    connect(&leaveTimer, &QTimer::timeout, this, &PluginRunner::lookAtLeaving);
}

PluginRunner::~PluginRunner()
{
    Q_ASSERT(!isBusy());
    endAll();
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
    if (!prepare(configuration))
        return false;
    endAll();
    return run(configuration);
}

// Whether a plugin with this configuration may be made now.
bool PluginRunner::prepare(const QJsonObject &configuration)
{
    if (isBusy())
        return fail(Failure::Busy, QStringLiteral("A handler must not start the session"));
    if (!load())
        return false;
    if (const QString refusal = reader.refusal(configuration); !refusal.isEmpty())
        return fail(Failure::BadConfiguration, refusal);
    stopTimer.stop(); // that was asked for before
    return true;
}

bool PluginRunner::restore()
{
    if (isBusy())
        return fail(Failure::Busy, QStringLiteral("A handler must not start the session"));
    if (listens().isListening())
        return true;
    return !stopTimer.isActive() && !running.isEmpty() && run(running);
}

bool PluginRunner::reload(const QJsonObject &configuration)
{
    if (!prepare(configuration))
        return false;
    if (!current)
        return run(configuration);
    if (reader.readsBoth(current->configuration(), configuration))
        return replace(configuration);
    endAll();
    if (run(configuration))
        return true;
    const Failure kind = lastFailure;
    const QString text = error;
    restore();
    return fail(kind, text);
}

void PluginRunner::stop()
{
    drains = false;
    if (isBusy())
        stopTimer.start(std::chrono::milliseconds(0));
    else
        endAll();
}

void PluginRunner::drain()
{
    drains = true;
    if (isBusy())
        stopTimer.start(std::chrono::milliseconds(0));
    else
        leave();
}

// Not in a nested event loop either, in which a handler may be for long.
void PluginRunner::later()
{
    constexpr std::chrono::milliseconds RetryInterval(10);
    if (isBusy())
        stopTimer.start(RetryInterval);
    else if (drains)
        leave();
    else
        endAll();
}

void PluginRunner::setAccepting(bool enable)
{
    accepting = enable;
    if (current && !current->hasEnded())
        AcceptPause::ask(current->plugin(), !accepting);
}

bool PluginRunner::renewCertificates()
{
    return current && !current->hasEnded()
            && CertificateRenewal::ask(current->plugin()) == CertificateRenewal::Answer::Renewed;
}

// Connections have numbers that grow, and a plugin that leaves accepts no more before its successor
// begins to.
void PluginRunner::answer(int length, const QMap<QString, QString> &subId)
{
    if (!leaving.empty()) {
        const quint64 number = ExactOffers::Place(subids::Values(subId)).connection;
        for (const Plugin &plugin : leaving) {
            if (number <= plugin->lastConnection())
                return plugin->answer(length, subId);
        }
    }
    if (current)
        current->answer(length, subId);
}

std::optional<InputCounters> PluginRunner::counters() const
{
    return current ? current->counters() : std::nullopt;
}

QString PluginRunner::status() const
{
    QString text = current ? current->status() : QString();
    for (const Plugin &plugin : leaving)
        text += plugin->status();
    return text;
}

bool PluginRunner::fail(Failure kind, const QString &text)
{
    lastFailure = kind;
    error = text;
    return false;
}

// If this fails, there is no plugin that listens.
bool PluginRunner::run(const QJsonObject &configuration)
{
    const QScopedValueRollback guard(changing, true); // log lines may run the event loop
    current = make(configuration);
    if (!current)
        return false;
    AcceptPause::ask(current->plugin(), !accepting);
    if (begin(*current))
        return true;
    endCurrent();
    return false;
}

// The new plugin accepts nothing before the old one accepts no more: see answer(). It has nothing
// to lose if it does not start.
bool PluginRunner::replace(const QJsonObject &configuration)
{
    const QScopedValueRollback guard(changing, true);
    Plugin next = make(configuration);
    if (!next)
        return false;
    AcceptPause::ask(next->plugin(), true);
    SharedPort::offer(current->plugin(), next->plugin());
    if (!begin(*next)) {
        next.reset();
        return lastFailure == Failure::NotListening && isInTheWayOf(*current, configuration)
                && makeWay(configuration);
    }
    if (listenAlike(current->listens(), next->listens()))
        AcceptPause::ask(current->plugin(), true); // who waits in the queue is the new one's
    leave();
    current = std::move(next);
    AcceptPause::ask(current->plugin(), !accepting);
    return true;
}

// The port is free only when the old plugin has closed its server.
bool PluginRunner::makeWay(const QJsonObject &configuration)
{
    const QJsonObject before = current->configuration();
    leave();
    if (run(configuration))
        return true;
    const Failure kind = lastFailure;
    const QString text = error;
    run(before);
    return fail(kind, text);
}

// Null: it fails. The plugin must be made, named, connected and started in this order.
PluginRunner::Plugin PluginRunner::make(const QJsonObject &configuration)
{
    reader.begin(configuration);
    std::unique_ptr<IInputPlugin> made = loader.create(configuration);
    if (!made) {
        fail(Failure::NoLibrary, QStringLiteral("%1 makes no plugin").arg(loader.fileName()));
        return nullptr;
    }
    if (!fits(*made))
        return nullptr;
    made->pluginId = settings.pluginId;
    return std::make_unique<RunningPlugin>(std::move(made), configuration, settings.logLevel,
                                           reader);
}

bool PluginRunner::fits(IInputPlugin &made)
{
    const auto version = LibraryVersionEvent::ask(made);
    constexpr LibraryVersion wanted = LibraryVersion::ofHeaders();
    if (version && version->serves(wanted))
        return true;
    const QString is = version ? QStringLiteral("of release ") + version->toString()
                               : QStringLiteral("older than these headers");
    return fail(Failure::WrongLibrary,
                QStringLiteral("%1 is %2, and the program was built with the headers of %3")
                        .arg(loader.fileName(), is, wanted.toString()));
}

bool PluginRunner::begin(RunningPlugin &plugin)
{
    if (!plugin.start()) {
        if (!plugin.hasStarted())
            return fail(Failure::Refused, QStringLiteral("The plugin refused to start"));
        return fail(Failure::NotListening,
                    QStringLiteral("The plugin does not listen: is the port in use or only for "
                                   "root, or the address another machine's?"));
    }
    running = plugin.configuration();
    lastFailure = Failure::None;
    error.clear();
    return true;
}

// Has the current plugin leave, so that there is none.
void PluginRunner::leave()
{
    if (current) {
        const QScopedValueRollback guard(changing, true);
        while (leaving.size() >= MostLeaving)
            endOldest();
        if (current->leave(settings.drainTime, settings.closingTime))
            leaving.push_back(std::move(current));
        else
            endCurrent();
    }
    leaveTimer.start(LookInterval);
}

void PluginRunner::lookAtLeaving()
{
    if (isBusy())
        return;
    for (auto plugin = leaving.begin(); plugin != leaving.end();) {
        const quint64 left = (*plugin)->connections();
        if (left > 0 && !(*plugin)->isLate()) {
            ++plugin;
            continue;
        }
        if (left > 0)
            CWRN(QtWarningMsg,
                 QStringLiteral("%1 connections were not closed by their devices, closing"), left);
        end(**plugin);
        plugin = leaving.erase(plugin);
    }
    if (!leaving.empty())
        return;
    leaveTimer.stop();
    if (!current)
        Q_EMIT drained();
}

void PluginRunner::endOldest()
{
    end(*leaving.front());
    leaving.erase(leaving.begin());
}

void PluginRunner::endCurrent()
{
    end(*current);
    current.reset();
}

void PluginRunner::endAll()
{
    leaveTimer.stop();
    while (!leaving.empty())
        endOldest();
    if (current)
        endCurrent();
}

// Its caller takes it away afterwards: answers to its last records must not reach another one.
void PluginRunner::end(RunningPlugin &plugin)
{
    const QScopedValueRollback guard(changing, true);
    const bool isOnly = leaving.size() + (current ? 1 : 0) == 1;
    if (isOnly)
        reader.setAnswering(false);
    plugin.end();
    if (!isOnly)
        return reader.forgetUpTo(plugin.lastConnection());
    reader.forgetAll();
    reader.setAnswering(true);
}

} // namespace inputkit
