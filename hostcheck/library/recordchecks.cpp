// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// What is in a record, which worker has a connection, and what the log says of it.

#include "hostcheck/library/checks.h"
#include "hostcheck/library/subject.h"

#include <QtCore/QTimeZone>

namespace hostcheck {
namespace {

// The text that names a connection.
QString idOf(const Subject &subject, const Device &device)
{
    return QStringLiteral("tcp2:%1:%2-%3:%4")
            .arg(subject.address().toString())
            .arg(subject.port())
            .arg(device.address().toString())
            .arg(device.port());
}

void record(Subject &subject)
{
    subject.start();
    Device device(subject.address(), subject.port());
    const QByteArray bytes("a\0\xff z\n", 6);
    device.send(bytes);
    const shared_parsedData record = subject.waitForRecord(device, 1);
    const QString id = idOf(subject, device);
    requireEqual(record->getOriginalMessage(), bytes, QStringLiteral("bytes"));
    requireEqual(record->getPeerAddress(), device.address().toString(),
                 QStringLiteral("peer address"));
    requireEqual(record->getPeerPort(), device.port(), QStringLiteral("peer port"));
    requireEqual(record->getSource(), QStringLiteral("TCP:") + id, QStringLiteral("source"));
    requireEqual(record->getPluginId(), QStringLiteral("checked"), QStringLiteral("plugin id"));
    requireEqual(record->getPluginSubId(),
                 {{QStringLiteral("client"), id}, {QStringLiteral("task"), QStringLiteral("0")}},
                 QStringLiteral("sub-ids"));
}

void recordIsEmptyElsewhere(Subject &subject)
{
    subject.start();
    Device device(subject.address(), subject.port());
    device.send("x");
    const shared_parsedData record = subject.waitForRecord(device, 1);
    requireEqual(record->getFormat() + record->getDeviceId(), QString(),
                 QStringLiteral("format and device id"));
    requireEqual(record->getData(), {}, QStringLiteral("data"));
    require(!record->isParsed() && !record->isGPSPosData() && !record->getDevice(),
            QStringLiteral("a flag or the device is set"));
    const QDateTime time =
            QDateTime::fromString(record->getTimestamp(QTimeZone::utc()), Qt::ISODate);
    require(time.isValid() && qAbs(time.secsTo(QDateTime::currentDateTimeUtc())) < 3600,
            QStringLiteral("the time is another one"));
}

// The number of the worker of each of so many connections, one after the other.
QStringList workersOf(Subject &subject, int count)
{
    QStringList workers;
    std::vector<std::unique_ptr<Device>> devices;
    for (int i = 0; i < count; ++i) {
        devices.push_back(std::make_unique<Device>(subject.address(), subject.port()));
        devices.back()->send("x");
        workers += subject.waitForRecord(*devices.back(), 1)
                           ->getPluginSubIdKey(QStringLiteral("task"));
    }
    return workers;
}

void rotation(Subject &subject)
{
    subject.start({{QStringLiteral("threadpoolSize"), 3}});
    requireEqual(workersOf(subject, 7).join(QLatin1Char(' ')), QStringLiteral("0 1 2 0 1 2 0"),
                 QStringLiteral("workers"));
}

void defaultPool(Subject &subject)
{
    subject.start();
    requireEqual(workersOf(subject, 6).join(QLatin1Char(' ')), QStringLiteral("0 1 2 3 0 1"),
                 QStringLiteral("workers"));
}

void connectionLines(Subject &subject)
{
    subject.start();
    subject.log().clear();
    const QString id = [&] {
        Device device(subject.address(), subject.port());
        device.send("hello");
        subject.waitForRecord(device, 1);
        return idOf(subject, device);
    }();
    const QString closing =
            QStringLiteral("TcpClient: closing connection %1 (received 5 bytes, 1 msgs)");
    subject.waitFor([&] { return subject.log().has(QtDebugMsg, closing.arg(id)); },
                    QStringLiteral("no line ") + closing.arg(id));
    const QString peer = id.section(QLatin1Char('-'), 1);
    const QString local = id.section(QLatin1Char('-'), 0, 0).mid(5);
    const QString host = subject.address().toString();
    const QString port = QString::number(subject.port());
    const QList<std::pair<QtMsgType, QString>> expected = {
            {QtDebugMsg, QStringLiteral("TcpInputPlugin2(checked): Creating new TCP Thread")},
            {QtInfoMsg, QStringLiteral("TcpInputPlugin2(checked): Creating new TcpTask2")},
            {QtDebugMsg, QStringLiteral("TcpTask2: new connection ") + id},
            {QtDebugMsg,
             QStringLiteral("TcpClient: id = '%1', local = '%2:%3'").arg(id, host, port)},
            {QtDebugMsg, QStringLiteral("TcpTask2 (0): new client added, size = 1")},
            {QtDebugMsg, QStringLiteral("TCP READ: %1 (%2)").arg(local, peer)},
            {QtDebugMsg, closing.arg(id)},
    };
    const QStringList texts = subject.log().texts();
    qsizetype previous = -1;
    for (const auto &[type, text] : expected) {
        require(subject.log().has(type, text), QStringLiteral("no such line: ") + text);
        const qsizetype at = texts.indexOf(text);
        require(at > previous, QStringLiteral("too early: ") + text);
        previous = at;
    }
    for (const char *start :
         {"TcpInputPlugin2(checked): new connection, ", "TcpTask2: Handling TCP connection, "})
        requireEqual(subject.log().texts(QLatin1String(start)).size(), 1,
                     QStringLiteral("lines ") + QLatin1String(start));
}

void lineForm(Subject &subject)
{
    subject.start();
    Device device(subject.address(), subject.port());
    device.send("x");
    subject.waitForRecord(device, 1);
    const QList<LogLine> lines = subject.log().lines();
    for (const LogLine &line : lines)
        require(line.hasTime, QStringLiteral("no time before: ") + line.text);
}

void largeReadLine(Subject &subject)
{
    subject.start();
    Device large(subject.address(), subject.port());
    large.send(QByteArray(1001, 'x'));
    subject.waitForRecord(large, 1);
    const QString text =
            QStringLiteral("TcpClient2 (%1): msgsize = 1001").arg(idOf(subject, large));
    require(subject.log().has(QtInfoMsg, text), QStringLiteral("no line ") + text);

    Device small(subject.address(), subject.port());
    small.send(QByteArray(1000, 'x'));
    subject.waitForRecord(small, 1);
    requireEqual(subject.log().texts(QStringLiteral("msgsize = ")), {text},
                 QStringLiteral("lines about large reads"));
}

} // namespace

const std::vector<Check> &recordChecks()
{
    static const std::vector<Check> checks = {
            {"record", record},
            {"record-rest", recordIsEmptyElsewhere},
            {"rotation", rotation},
            {"default-pool", defaultPool},
            {"connection-lines", connectionLines},
            {"line-form", lineForm},
            {"large-read-line", largeReadLine},
    };
    return checks;
}

} // namespace hostcheck
