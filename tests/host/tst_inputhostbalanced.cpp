// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/exitcodes.h"
#include "tests/endtoend/balancer.h"
#include "tests/host/inputhosttest.h"
#include "tests/kit/serving.h"

#include <QtTest/QtTest>

using namespace host;
using namespace inputhosttest;
using namespace Qt::StringLiterals;

namespace {

const QByteArray Up = "2";
const QByteArray Down = "0";

//! A host that tells haproxy whether it is ready, at a port of its own.
class CheckedHost : public Host
{
public:
    void begin(const QStringList &arguments)
    {
        run(listenArguments()
            + QStringList{u"--http"_s, testAddress().toString() + u":0"_s, u"--set"_s,
                          uR"(proxyProtocol={"from": ["127.0.0.1"]})"_s}
            + arguments);
        QTRY_VERIFY2_WITH_TIMEOUT(log().contains("Listening on ") || !isRunning(),
                                  log().constData(), HangGuardMs);
    }
    // As its log says.
    QString readyPort()
    {
        static const QRegularExpression line(u"Status at http://[.0-9]+:(\\d+)/"_s);
        return line.match(QString::fromLatin1(log())).captured(1);
    }
};

} // namespace

// Hosts behind haproxy, with the configuration that operators get: who gets new devices.
class tst_InputHostBalanced : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void hostThatLetsItsDevicesGo();
    void noHostIsReady();

private:
    void startHaproxy(const QList<CheckedHost *> &hosts);
    // As haproxy has found it.
    QByteArray stateOf(const QByteArray &server) const;

    quint16 frontPort = 0;
    std::unique_ptr<Balancer> balancer;
};

// deploy/haproxy.cfg with other addresses, and with these hosts alone.
void tst_InputHostBalanced::startHaproxy(const QList<CheckedHost *> &hosts)
{
    balancer = std::make_unique<Balancer>();
    frontPort = freePort();
    QFile file(QStringLiteral(SOURCE_DIR "/deploy/haproxy.cfg"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QString address = testAddress().toString();
    // Without a system's log and user, and with few descriptors.
    static const QRegularExpression ofAService(u"^    (log|user|group|maxconn) .*$"_s,
                                               QRegularExpression::MultilineOption);
    QString text = QString::fromUtf8(file.readAll()).remove(ofAService);
    text.replace(u"bind :7446"_s, u"bind %1:%2"_s.arg(address).arg(frontPort));
    text.replace(u"/run/haproxy/admin.sock"_s, balancer->path(u"commands"_s));
    text.replace(u"inter 1s"_s, u"inter 20ms"_s);
    for (qsizetype n = 0; n < hosts.size(); ++n)
        text.replace(
                u" 192.0.2.1%1:7446"_s.arg(n + 1),
                u" %1:%2 port %3"_s.arg(address).arg(hosts[n]->port).arg(hosts[n]->readyPort()));
    static const QRegularExpression ofOthers(u"^.* 192\\.0\\.2\\..*$"_s,
                                             QRegularExpression::MultilineOption);
    text.remove(ofOthers);
    QVERIFY2(balancer->start(QStringLiteral(HAPROXY_FILE), {u"-db"_s, u"-f"_s}, text, testAddress(),
                             frontPort),
             balancer->output().constData());
}

QByteArray tst_InputHostBalanced::stateOf(const QByteArray &server) const
{
    for (const QByteArray &line : balancer->ask("show servers state hosts").split('\n')) {
        const QByteArrayList fields = line.split(' ');
        if (fields.value(3) == server)
            return fields.value(5);
    }
    return {};
}

void tst_InputHostBalanced::hostThatLetsItsDevicesGo()
{
    constexpr int Devices = 5;
    CheckedHost leaving;
    leaving.begin(words("--drain 60"));
    CheckedHost staying; // only now: it gets a port that the other one has not
    staying.begin({});
    startHaproxy({&leaving, &staying});
    QVERIFY(serveUntil([&] { return stateOf("host1") == Up && stateOf("host2") == Up; }));

    Device old(testAddress(), frontPort);
    old.send("first\n");
    // With equal numbers of connections the first host is taken.
    QTRY_COMPARE_WITH_TIMEOUT(leaving.texts(), QStringList(u"first"_s), HangGuardMs);
    leaving.signal(SIGTERM);
    QVERIFY(serveUntil([&] { return stateOf("host1") == Down; }));
    std::vector<std::unique_ptr<Device>> devices;
    for (int n = 0; n < Devices; ++n) {
        devices.push_back(std::make_unique<Device>(testAddress(), frontPort));
        devices.back()->send("new\n");
    }
    QTRY_COMPARE_WITH_TIMEOUT(staying.lines().size(), Devices, HangGuardMs);
    QCOMPARE(stateOf("host2"), Up);

    old.send("last\n"); // haproxy has not cut it off
    QTRY_COMPARE_WITH_TIMEOUT(leaving.texts(), QStringList({u"first"_s, u"last"_s}), HangGuardMs);
    old.close();
    QCOMPARE(leaving.finish(), int(ExitOk));
    // The checks were no connections of devices.
    QVERIFY2(!leaving.log().contains("warning: TcpInputPlugin2"), leaving.log().constData());
    devices.clear();
    QCOMPARE(staying.stop(), int(ExitOk));
    QVERIFY2(!staying.log().contains("warning: TcpInputPlugin2"), staying.log().constData());
    QVERIFY(staying.log().contains(" connections 5 "));
}

// Its database is away. What a device sends waits in the host, and the device stays connected.
void tst_InputHostBalanced::noHostIsReady()
{
    const QTemporaryDir noServer;
    CheckedHost host;
    host.begin({u"--output"_s, u"postgresql:host="_s + noServer.path(), u"--save-within=1"_s});
    if (host.log().contains("built without libpq"))
        QSKIP("The program has no PostgreSQL");
    startHaproxy({&host});
    QVERIFY(serveUntil([&] { return stateOf("host1") == Down; }));
    Device device(testAddress(), frontPort);
    device.send("waits\n");
    QVERIFY(serveUntil([&] { return host.counters().startsWith("messages 1 "); }));
    QCOMPARE(device.socket.state(), QAbstractSocket::ConnectedState);
    QCOMPARE(host.stop(), int(ExitOutputFailed)); // it was never safe
}

QTEST_GUILESS_MAIN(tst_InputHostBalanced)
#include "tst_inputhostbalanced.moc"
