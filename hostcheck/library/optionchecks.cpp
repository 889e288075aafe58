// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// What is off unless its own key is in the configuration.

#include "hostcheck/library/checks.h"
#include "hostcheck/library/subject.h"

#include <QtCore/QJsonArray>

namespace hostcheck {
namespace {

QString key(const char *name)
{
    return QLatin1String(name);
}

QString subIdOf(const shared_parsedData &record, const char *name)
{
    return record->getPluginSubIdKey(QLatin1String(name));
}

void offsets(Subject &subject)
{
    subject.start({{key("offsets"), true}, {key("prompt"), true}});
    Device device(subject.address(), subject.port());
    device.send(QByteArray(5, 'a') + QByteArray(30, 'b'));
    const shared_parsedData first = subject.waitForRecord(device, 1);
    requireEqual(subIdOf(first, "offset"), QStringLiteral("0"), QStringLiteral("first offset"));
    require(!subIdOf(first, "connection").isEmpty(), QStringLiteral("no connection number"));
    subject.discard(first, 5);
    const shared_parsedData second = subject.waitForRecord(device, 2);
    requireEqual(subIdOf(second, "offset"), QStringLiteral("5"), QStringLiteral("second offset"));
    requireEqual(second->getOriginalMessage(), QByteArray(30, 'b'), QStringLiteral("second offer"));

    subject.discard(first, 5); // late, for the second time: cuts nothing
    subject.discard(first, 10);
    const shared_parsedData third = subject.waitForRecord(device, 3);
    requireEqual(subIdOf(third, "offset"), QStringLiteral("10"), QStringLiteral("third offset"));
    requireEqual(third->getOriginalMessage(), QByteArray(25, 'b'), QStringLiteral("third offer"));

    Device other(subject.address(), subject.port());
    other.send("x");
    require(subIdOf(subject.waitForRecord(other, 1), "connection") != subIdOf(first, "connection"),
            QStringLiteral("two connections have the same number"));
}

void prompt(Subject &subject)
{
    subject.start({{key("prompt"), true}});
    Device device(subject.address(), subject.port());
    device.send("a");
    subject.waitForRecord(device, 1);
    device.send("b"); // by itself it would wait until the idle time-out
    requireEqual(subject.waitForRecord(device, 2)->getOriginalMessage(), QByteArray("ab"),
                 QStringLiteral("offer"));
}

// The reason in the last record of the device, which has no bytes.
void requireEnd(Subject &subject, quint16 port, const char *reason)
{
    const auto isEnd = [&](const shared_parsedData &record) {
        return record->getPeerPort() == port && !subIdOf(record, "end").isEmpty();
    };
    subject.waitFor(
            [&] { return std::any_of(subject.records().begin(), subject.records().end(), isEnd); },
            QStringLiteral("no record with the end, reason ") + QLatin1String(reason));
    shared_parsedData last;
    for (const shared_parsedData &record : subject.records())
        last = record->getPeerPort() == port ? record : last;
    requireEqual(subIdOf(last, "end"), QString::fromLatin1(reason), QStringLiteral("reason"));
    requireEqual(last->getOriginalMessage(), QByteArray(), QStringLiteral("bytes of the end"));
}

void ends(Subject &subject)
{
    subject.start({{key("ends"), true}, {key("timeout"), 1}});
    quint16 port = 0;
    {
        Device device(subject.address(), subject.port());
        port = device.port();
        device.send("x");
        subject.waitForRecord(device, 1);
    }
    requireEnd(subject, port, "peer");
    {
        Device device(subject.address(), subject.port());
        port = device.port();
        device.send("x");
        subject.waitForRecord(device, 1);
        device.reset();
    }
    requireEnd(subject, port, "reset");
    Device idle(subject.address(), subject.port());
    idle.send("x");
    subject.waitForRecord(idle, 1);
    requireEnd(subject, idle.port(), "idle");
}

void endsOfStop(Subject &subject)
{
    subject.start({{key("ends"), key("all")}});
    Device device(subject.address(), subject.port());
    Device silent(subject.address(), subject.port());
    device.send("x");
    subject.waitForRecord(device, 1);
    subject.waitFor(
            [&] { return subject.log().texts(QStringLiteral("new client added")).size() == 2; },
            QStringLiteral("a connection was not taken"));
    subject.plugin().stop();
    requireEnd(subject, device.port(), "stop");
    requireEnd(subject, silent.port(), "stop");
}

void noEndsWithoutKey(Subject &subject)
{
    subject.start({{key("threadpoolSize"), 1}});
    {
        Device device(subject.address(), subject.port());
        device.send("x");
        subject.waitForRecord(device, 1);
    }
    subject.waitFor(
            [&] { return !subject.log().texts(QStringLiteral("closing connection")).isEmpty(); },
            QStringLiteral("no closing line"));
    Device fence(subject.address(), subject.port());
    fence.send("fence");
    subject.waitForRecord(fence, 1);
    for (const shared_parsedData &record : subject.records())
        requireEqual(QStringList(record->getPluginSubId().keys()), {key("client"), key("task")},
                     QStringLiteral("keys of the sub-ids"));
}

void strict(Subject &subject)
{
    require(!subject.make({{key("strict"), true}, {key("prot"), 1}}).start(),
            QStringLiteral("start() accepts an unknown key"));
    const QStringList lines =
            subject.log().texts(QStringLiteral("TcpInputPlugin2(checked): Configuration: "));
    requireEqual(lines.size(), 1, QStringLiteral("lines about the configuration"));
    require(lines.first().contains(key("prot")), QStringLiteral("the line does not name the key"));
    require(!subject.make({{key("strict"), true}, {key("timeout"), 0}}).start(),
            QStringLiteral("start() accepts a bad value"));
    subject.start({{key("strict"), true}, {key("timeout"), 1}});
}

void refusesBadOptions(Subject &subject)
{
    const QJsonObject bad[] = {{{key("prompt"), 1}},
                               {{key("ends"), key("some")}},
                               {{key("limits"), true}},
                               {{key("limits"), QJsonObject{{key("unknown"), 1}}}},
                               {{key("proxyProtocol"), QJsonObject()}}};
    for (const QJsonObject &option : bad)
        require(!subject.make(option).start(),
                QStringLiteral("start() accepts a bad value of ") + option.keys().first());
}

void limitOfBuffer(Subject &subject)
{
    IInputPlugin &plugin =
            subject.start({{key("offsets"), true},
                           {key("limits"), QJsonObject{{key("connectionBuffer"), 1000}}}});
    Device device(subject.address(), subject.port());
    const QByteArray sent(200000, 'x');
    device.send(sent);
    subject.waitFor(
            [&] { return plugin.getStatus().contains(QLatin1String(", 1 connections paused")); },
            QStringLiteral("not paused, or not in the status"));
    qint64 seen = 0;
    subject.waitFor(
            [&] {
                for (const shared_parsedData &record : subject.recordsOf(device)) {
                    const int size = record->getDataLength();
                    seen = subIdOf(record, "offset").toLongLong() + size;
                    subject.discard(record, size);
                }
                subject.forgetRecords();
                return seen == sent.size();
            },
            QStringLiteral("not all came when it was consumed"));
}

void limitOfConnections(Subject &subject)
{
    IInputPlugin &plugin =
            subject.start({{key("limits"), QJsonObject{{key("maxConnections"), 1}}}});
    auto first = std::make_unique<Device>(subject.address(), subject.port());
    first->send("first");
    subject.waitForRecord(*first, 1);
    Device second(subject.address(), subject.port());
    second.send("second");
    subject.waitFor(
            [&] {
                return plugin.getStatus().contains(
                        QLatin1String("1 connections open, 0 refused, accepting paused"));
            },
            QStringLiteral("the status does not say that accepting is paused"));
    requireEqual(subject.recordsOf(second).size(), 0, QStringLiteral("records of the second"));
    first.reset();
    subject.waitForRecord(second, 1);
}

} // namespace

const std::vector<Check> &optionChecks()
{
    static const std::vector<Check> checks = {
            {"offsets", offsets},
            {"prompt", prompt},
            {"ends", ends},
            {"ends-of-stop", endsOfStop},
            {"no-ends", noEndsWithoutKey},
            {"strict", strict},
            {"bad-options", refusesBadOptions},
            {"limit-of-buffer", limitOfBuffer},
            {"limit-of-connections", limitOfConnections},
    };
    return checks;
}

} // namespace hostcheck
