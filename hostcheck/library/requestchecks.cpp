// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// What a host asks, and what a plugin asks it.

#include "hostcheck/library/checks.h"
#include "hostcheck/library/subject.h"
#include "plugin/countersevent.h"
#include "plugin/drain.h"
#include "plugin/sharedport.h"

#include <QtNetwork/QTcpServer>

namespace hostcheck {
namespace {

QString idOf(const shared_parsedData &record)
{
    return record->getPluginSubIdKey(QStringLiteral("client"));
}

void statusOfClients(Subject &subject)
{
    IInputPlugin &plugin = subject.start({{QStringLiteral("threadpoolSize"), 1}});
    Device first(subject.address(), subject.port());
    Device second(subject.address(), subject.port());
    first.send("x");
    second.send("x");
    QStringList ids = {idOf(subject.waitForRecord(first, 1)),
                       idOf(subject.waitForRecord(second, 1))};
    ids.sort();
    QString expected;
    for (const QString &id : std::as_const(ids))
        expected += QStringLiteral("   %1\r\n      (empty 0)\r\n").arg(id);
    const QString status = plugin.getStatus();
    requireEqual(status.mid(status.indexOf(QLatin1Char('\n')) + 1), expected,
                 QStringLiteral("status behind the first line"));
}

void lookupQueries(Subject &subject)
{
    IInputPlugin &plugin = subject.start();
    Device device(subject.address(), subject.port());
    device.send("x");
    const QString query = QStringLiteral("lookup TCP:") + idOf(subject.waitForRecord(device, 1));
    subject.setAnswer({QStringLiteral("not used")});
    require(plugin.getStatus().endsWith(QLatin1String("      (empty 0)\r\n")),
            QStringLiteral("the answer is used"));
    requireEqual(subject.queries(), {}, QStringLiteral("queries before the event loop runs"));
    subject.waitFor([&] { return !subject.queries().isEmpty(); }, QStringLiteral("no query"));
    requireEqual(subject.queries(), {query}, QStringLiteral("queries"));
}

void threadReport(Subject &subject)
{
    IInputPlugin &plugin = subject.start();
    Device device(subject.address(), subject.port());
    device.send("x");
    subject.waitForRecord(device, 1);
    const auto report = [&] { QMetaObject::invokeMethod(&plugin, "showThreads"); };
    for (const QStringList &answer :
         {QStringList(), QStringList{QStringLiteral("info"), QStringLiteral("debug")}}) {
        subject.setAnswer(answer);
        report();
        requireEqual(subject.log().texts(QStringLiteral("#threads")), {},
                     QStringLiteral("reports at another log level"));
    }
    subject.setAnswer({QStringLiteral("some-debugging")});
    report();
    requireEqual(subject.queries(), QStringList(3, QStringLiteral("loglevel")),
                 QStringLiteral("queries"));
    require(subject.log().has(QtDebugMsg,
                              QStringLiteral("TcpInputPlugin2 checked: #threads = 1, #tasks = 1")),
            QStringLiteral("no report"));
    const QString part = QStringLiteral("  TcpTask2: id = checked, #clients = 1, id = ");
    subject.waitFor([&] { return subject.log().texts(part).size() == 1; },
                    QStringLiteral("no line ") + part);
}

void discardLines(Subject &subject)
{
    IInputPlugin &plugin = subject.start();
    Device device(subject.address(), subject.port());
    device.send("x");
    subject.waitForRecord(device, 1);
    const QString task = QStringLiteral("task");
    const QString client = QStringLiteral("client");
    const QString zero = QStringLiteral("0");
    const QString nobody = QStringLiteral("nobody");
    const QList<std::pair<QMap<QString, QString>, QString>> lines = {
            {{}, QStringLiteral("TcpInput2(checked): subid[task] not set")},
            {{{task, QStringLiteral("2")}},
             QStringLiteral("TcpInput2(checked): discarding for non-existing task 2")},
            {{{task, zero}}, QStringLiteral("TcpTask2: subid[client] not set")},
            {{{task, QStringLiteral("abc")}}, QStringLiteral("TcpTask2: subid[client] not set")},
            {{{task, zero}, {client, nobody}},
             QStringLiteral("TcpTask2: discard for non-existing client nobody")},
    };
    for (const auto &[subId, line] : lines) {
        subject.log().clear();
        plugin.discard(1, subId);
        requireEqual(subject.log().texts(), {line}, QStringLiteral("log lines"));
        require(subject.log().has(QtDebugMsg, line), QStringLiteral("not a debug line: ") + line);
    }
}

void dropLine(Subject &subject)
{
    IInputPlugin &plugin = subject.start();
    plugin.drop(0);
    const QString line = QStringLiteral("TcpInputPlugin2(checked): dropping 0 bytes");
    require(subject.log().has(QtInfoMsg, line), QStringLiteral("no line ") + line);
}

void counters(Subject &subject)
{
    IInputPlugin &plugin = subject.start();
    Device device(subject.address(), subject.port());
    device.send("abc");
    subject.waitForRecord(device, 1);
    const auto counted = CountersEvent::countersOf(plugin);
    require(counted.has_value(), QStringLiteral("it has no counters"));
    requireEqual(counted->accepted, quint64(1), QStringLiteral("accepted"));
    requireEqual(counted->open, quint64(1), QStringLiteral("open"));
    requireEqual(counted->bytes, quint64(3), QStringLiteral("bytes"));
    requireEqual(counted->offers, quint64(1), QStringLiteral("offers"));
    requireEqual(counted->buffered, quint64(3), QStringLiteral("buffered"));
}

void drain(Subject &subject)
{
    IInputPlugin &plugin = subject.start();
    Device device(subject.address(), subject.port());
    device.send("a");
    subject.discard(subject.waitForRecord(device, 1), 1);
    require(Drain::ask(plugin, std::chrono::milliseconds(0)).has_value(),
            QStringLiteral("it does not know the request"));
    QTcpServer successor;
    require(successor.listen(subject.address(), subject.port()),
            QStringLiteral("it still listens"));
    subject.waitFor([&] { return device.isEnded(); }, QStringLiteral("the device is not told"));
    device.send("b");
    device.close();
    subject.waitFor([&] { return subject.offersOf(device).last().endsWith('b'); },
                    QStringLiteral("what the device has sent afterwards is lost"));
    const auto counted = CountersEvent::countersOf(plugin);
    require(counted.has_value(), QStringLiteral("it has no counters"));
    requireEqual(counted->open + counted->waiting, quint64(0), QStringLiteral("connections left"));
}

void sharedPort(Subject &subject)
{
    IInputPlugin &plugin = subject.start();
    const std::unique_ptr<IInputPlugin> next(subject.create()(nullptr, plugin.config));
    require(SharedPort::offer(plugin, *next), QStringLiteral("it does not share its port"));
    require(next->start(), QStringLiteral("start() has failed"));
    requireEqual(next->getStatus().section(QLatin1Char(','), 0, 0),
                 plugin.getStatus().section(QLatin1Char(','), 0, 0),
                 QStringLiteral("where the second plugin listens"));
    plugin.stop();
    Device device(subject.address(), subject.port());
    subject.waitFor([&] { return CountersEvent::countersOf(*next)->accepted == 1; },
                    QStringLiteral("the second plugin does not accept"));
}

} // namespace

const std::vector<Check> &requestChecks()
{
    static const std::vector<Check> checks = {
            {"status", statusOfClients},
            {"lookup-queries", lookupQueries},
            {"thread-report", threadReport},
            {"discard-lines", discardLines},
            {"drop-line", dropLine},
            {"counters", counters},
            {"drain", drain},
            {"shared-port", sharedPort},
    };
    return checks;
}

} // namespace hostcheck
