// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// How a plugin reads its configuration, listens and stops.

#include "hostcheck/library/checks.h"
#include "hostcheck/library/subject.h"

#include <QtNetwork/QTcpServer>

namespace hostcheck {
namespace {

constexpr quint16 DefaultPort = 7446;

// The first line of the status.
QString listenLine(const IInputPlugin &plugin)
{
    return const_cast<IInputPlugin &>(plugin).getStatus().section(QStringLiteral("\r\n"), 0, 0);
}

QString listenLine(const QString &address, int port, int seconds = 60, int pool = 4)
{
    return QStringLiteral("Listen: %1:%2, timeout: %3s, pool size: %4")
            .arg(address)
            .arg(port)
            .arg(seconds)
            .arg(pool);
}

void statusBeforeStart(Subject &subject)
{
    requireEqual(subject.make().getStatus(),
                 QStringLiteral("Listen: :0, timeout: 60s, pool size: 4\r\n"),
                 QStringLiteral("status"));
}

void startLines(Subject &subject)
{
    subject.start();
    const QString port = QString::number(subject.port());
    const QString listening = QStringLiteral("TcpInputPlugin2(checked): Listening on %1:%2")
                                      .arg(subject.address().toString(), port);
    const QString starting =
            QStringLiteral("TcpInputPlugin2(checked): Starting TCP server on port ") + port;
    requireEqual(subject.log().texts(), {listening, starting}, QStringLiteral("log lines"));
    require(subject.log().has(QtDebugMsg, listening),
            QStringLiteral("no debug line: ") + listening);
    require(subject.log().has(QtInfoMsg, starting), QStringLiteral("no info line: ") + starting);
}

void defaults(Subject &subject)
{
    // The address is this process's. The port is taken even so if somebody listens on all of them.
    if (!QTcpServer().listen(subject.address(), DefaultPort))
        throw Skip{QStringLiteral("port %1 is in use").arg(DefaultPort)};
    // Every value is a bad one and ignored.
    IInputPlugin &plugin = subject.make({{QStringLiteral("port"), 65535},
                                         {QStringLiteral("timeout"), 0},
                                         {QStringLiteral("threadpoolSize"), -1},
                                         {QStringLiteral("unknown"), 1}});
    require(plugin.start(), QStringLiteral("start() returned false"));
    requireEqual(listenLine(plugin), listenLine(subject.address().toString(), DefaultPort),
                 QStringLiteral("status with bad values"));
    plugin.stop();

    QJsonObject config = plugin.config;
    config.insert(QStringLiteral("port"), QString::number(subject.port()));
    config.insert(QStringLiteral("timeout"), QStringLiteral("5"));
    plugin.setConfig(config);
    require(plugin.start(), QStringLiteral("second start() returned false"));
    requireEqual(listenLine(plugin), listenLine(subject.address().toString(), DefaultPort),
                 QStringLiteral("status with texts for numbers"));
}

void values(Subject &subject)
{
    const IInputPlugin &plugin =
            subject.start({{QStringLiteral("timeout"), 90}, {QStringLiteral("threadpoolSize"), 2}});
    requireEqual(listenLine(plugin),
                 listenLine(subject.address().toString(), subject.port(), 90, 2),
                 QStringLiteral("status"));
}

void badAddress(Subject &subject)
{
    const quint16 port = Subject::freePort(QHostAddress(QHostAddress::LocalHost));
    IInputPlugin &plugin = subject.make({{QStringLiteral("ipAddr"), QStringLiteral("nowhere")},
                                         {QStringLiteral("port"), port}});
    require(plugin.start(), QStringLiteral("start() returned false"));
    const QString line = QStringLiteral("TcpInputPlugin2(checked): Listening on 127.0.0.1:%1");
    require(subject.log().has(QtDebugMsg, line.arg(port)),
            QStringLiteral("does not fall back to 127.0.0.1"));
}

void portInUse(Subject &subject)
{
    IInputPlugin &plugin = subject.make();
    QTcpServer other;
    require(other.listen(subject.address(), subject.port()), QStringLiteral("port already in use"));
    require(plugin.start(), QStringLiteral("start() returned false"));
    requireEqual(plugin.getStatus(), QStringLiteral("Listen: :0, timeout: 60s, pool size: 4\r\n"),
                 QStringLiteral("status"));
}

void badCertificates(Subject &subject)
{
    const QString file = QStringLiteral("/nowhere/certificate");
    IInputPlugin &plugin = subject.make(
            {{QStringLiteral("ssl"), QJsonObject{{QStringLiteral("CertFile"), file}}}});
    require(!plugin.start(), QStringLiteral("start() returned true"));
    require(subject.log().has(QtWarningMsg,
                              QStringLiteral("SSL: Failed to open Certificate file ") + file),
            QStringLiteral("no warning about the file"));
    require(subject.log().has(QtWarningMsg,
                              QStringLiteral("TcpInputPlugin2(checked): Failed to "
                                             "setup certificates, aborting")),
            QStringLiteral("no warning that it aborts"));
    requireEqual(subject.log().texts(QStringLiteral("Listening on")), {},
                 QStringLiteral("lines that it listens"));
}

void stopCloses(Subject &subject)
{
    IInputPlugin &plugin = subject.start();
    Device device(subject.address(), subject.port());
    device.send("x");
    subject.waitForRecord(device, 1);
    subject.log().clear();
    require(plugin.stop(), QStringLiteral("stop() returned false"));
    require(subject.log().has(QtDebugMsg, QStringLiteral("TcpInputPlugin2(checked): stop()")),
            QStringLiteral("no line"));
    requireEqual(plugin.getStatus(), QStringLiteral("Listen: :0, timeout: 60s, pool size: 4\r\n"),
                 QStringLiteral("status"));
    subject.waitFor([&] { return device.isEnded(); }, QStringLiteral("the connection stays open"));
    const QString finished = QStringLiteral("  -- TI2: thread finished");
    subject.waitFor([&] { return subject.log().has(QtDebugMsg, finished); },
                    QStringLiteral("no line that the thread has finished"));
}

void freshPlugin(Subject &subject)
{
    subject.start();
    const quint16 port = subject.port();
    {
        Device device(subject.address(), port);
        device.send("x");
        subject.waitForRecord(device, 1);
        subject.plugin().stop();
        subject.destroy();
    }
    subject.start({{QStringLiteral("port"), port}});
    Device device(subject.address(), port);
    device.send("y");
    requireEqual(subject.waitForRecord(device, 1)->getOriginalMessage(), QByteArray("y"),
                 QStringLiteral("record of the second plugin"));
}

} // namespace

const std::vector<Check> &startChecks()
{
    static const std::vector<Check> checks = {
            {"status-before-start", statusBeforeStart},
            {"start-lines", startLines},
            {"defaults", defaults},
            {"values", values},
            {"bad-address", badAddress},
            {"port-in-use", portInUse},
            {"bad-certificates", badCertificates},
            {"stop", stopCloses},
            {"fresh-plugin", freshPlugin},
    };
    return checks;
}

} // namespace hostcheck
