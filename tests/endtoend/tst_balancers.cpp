// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/endtoend/balancer.h"
#include "tests/endtoend/proxytest.h"

using namespace Qt::StringLiterals;

namespace {

constexpr int DevicesOfATest = 20;

} // namespace

/*!
    Devices behind haproxy and nginx from Debian packages. Records have the device's address. If the
    devices use TLS, both programs pass it through.
*/
class tst_Balancers : public ProxyTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data() { addTransports(); }
    void init();
    void cleanup();

    void haproxy_data();
    void haproxy();
    void haproxySpeaksTls_data();
    void haproxySpeaksTls();
    void haproxyChecks_data();
    void haproxyChecks();
    void nginx();
    void haproxyOfTheDocument();
    void nginxOfTheDocument();

private:
    QString example(const QString &language) const;
    void runHaproxy(const QString &configuration);
    void runNginx(const QString &configuration);
    // server: the options behind the address in haproxy's server line.
    void startHaproxy(const QString &server);
    bool deviceIsServed(ProxiedDevice &device);
    void devicesAreServed();
    QByteArray serverState() const;

    quint16 frontPort = 0;
    std::unique_ptr<Balancer> balancer;
};

void tst_Balancers::init()
{
    begin();
    do
        frontPort = freePort();
    while (frontPort == port);
    balancer = std::make_unique<Balancer>();
}

void tst_Balancers::cleanup()
{
    balancer.reset();
    end();
}

void tst_Balancers::startHaproxy(const QString &server)
{
    const QString configuration = uR"(
global
    stats socket %1
defaults
    mode tcp
    timeout connect 60s
    timeout client 600s
    timeout server 600s
frontend devices
    bind %2:%3
    unique-id-format %ci:%cp-%Ts-%rt
    default_backend hosts
backend hosts
    source %4
    server host %2:%5 %6
)"_s.arg(balancer->path(u"commands"_s), testAddress().toString(), QString::number(frontPort),
         proxyAddress().toString(), QString::number(port), server);
    runHaproxy(configuration);
}

// The device's message is its own endpoint. The record must have that endpoint, too.
bool tst_Balancers::deviceIsServed(ProxiedDevice &device)
{
    const qsizetype before = records.size();
    if (!device.connect(frontPort, strangerAddress()))
        return false;
    const QString endpoint = device.endpoint();
    if (!send(device, endpoint.toLatin1()) || !waitForRecords(before + 1))
        return false;
    const auto &record = records[before];
    return record->getOriginalMessage() == endpoint.toLatin1()
            && u"%1:%2"_s.arg(record->getPeerAddress()).arg(record->getPeerPort()) == endpoint
            && idOf(before) == expectedId(endpoint);
}

void tst_Balancers::devicesAreServed()
{
    for (int n = 0; n < DevicesOfATest; ++n) {
        ProxiedDevice device = newDevice();
        QVERIFY(deviceIsServed(device));
        plugin->discard(records.last()->getDataLength(), records.last()->getPluginSubId());
    }
    QCOMPARE(warnings(), QStringList());
}

void tst_Balancers::haproxy_data()
{
    QTest::addColumn<QString>("server");
    for (const char *server :
         {"send-proxy", "send-proxy-v2", "send-proxy-v2 proxy-v2-options crc32c",
          "send-proxy-v2 proxy-v2-options crc32c,unique-id", "send-proxy-v2-ssl-cn"})
        QTest::newRow(server) << QString::fromLatin1(server);
}

void tst_Balancers::haproxy()
{
    QFETCH(QString, server);
    start(rule({{u"others"_s, u"refuse"_s}}));
    startHaproxy(server);
    devicesAreServed();
    QCOMPARE(lines().filter(proxyAddress().toString()), QStringList());
}

void tst_Balancers::haproxySpeaksTls_data()
{
    haproxy_data();
}

// haproxy speaks TLS to the plugin, the devices speak plain TCP. haproxy sends the PROXY header
// before its ClientHello.
void tst_Balancers::haproxySpeaksTls()
{
    QFETCH_GLOBAL(bool, tls);
    QFETCH(QString, server);
    if (!tls)
        return;
    start(rule());
    startHaproxy(server + u" ssl verify none"_s);
    ProxiedDevice device(false);
    QVERIFY(deviceIsServed(device));
    QCOMPARE(warnings(), QStringList());
}

void tst_Balancers::haproxyChecks_data()
{
    QTest::addColumn<QString>("server");
    QTest::newRow("text") << u"send-proxy check"_s;
    QTest::newRow("binary") << u"send-proxy-v2 check"_s;
    QTest::newRow("binary with checksum") << u"send-proxy-v2 proxy-v2-options crc32c check"_s;
    // A check with its own port sends no header, unless the option check-send-proxy is set.
    QTest::newRow("check-send-proxy") << u"send-proxy-v2 check port %1 check-send-proxy"_s;
    QTest::newRow("without header") << u"send-proxy-v2 check port %1"_s;
}

// A health check causes no warning and no record, and it finds that the plugin is up.
void tst_Balancers::haproxyChecks()
{
    constexpr int Checks = 3;
    QFETCH(QString, server);
    server.replace(u"%1"_s, QString::number(port));
    startHaproxy(server + u" inter 20ms fall 1 rise %1"_s.arg(Checks));
    QVERIFY(serveUntil([&] { return serverState() == "0"; })); // nobody listens
    start(rule());
    QVERIFY(serveUntil([&] { return serverState() == "2"; }));
    devicesAreServed();
    QCOMPARE(records.size(), DevicesOfATest);
}

// The state that haproxy has found. "0": down. "2": up.
QByteArray tst_Balancers::serverState() const
{
    const QByteArray answer = balancer->ask("show servers state hosts");
    return answer.split('\n').value(2).split(' ').value(5);
}

void tst_Balancers::nginx()
{
    start(rule({{u"others"_s, u"refuse"_s}}));
    const QString configuration = uR"(
daemon off;
master_process off;
pid %1;
load_module %2;
events { worker_connections 256; }
stream {
    server {
        listen %3:%4;
        proxy_bind %5;
        proxy_protocol on;
        proxy_pass %3:%6;
    }
}
)"_s.arg(balancer->path(u"pid"_s), QStringLiteral(NGINX_STREAM_FILE), testAddress().toString(),
         QString::number(frontPort), proxyAddress().toString(), QString::number(port));
    runNginx(configuration);
    devicesAreServed();
}

void tst_Balancers::runHaproxy(const QString &configuration)
{
    QVERIFY2(balancer->start(QStringLiteral(HAPROXY_FILE), {u"-db"_s, u"-f"_s}, configuration,
                             testAddress(), frontPort),
             balancer->output().constData());
}

void tst_Balancers::runNginx(const QString &configuration)
{
    QVERIFY2(balancer->start(QStringLiteral(NGINX_FILE),
                             {u"-p"_s, balancer->path({}), u"-e"_s, u"stderr"_s, u"-c"_s},
                             configuration, testAddress(), frontPort),
             balancer->output().constData());
}

// The example in docs/OPERATIONS.md. Both of its two hosts become this test's plugin.
QString tst_Balancers::example(const QString &language) const
{
    QFile document(QStringLiteral(SOURCE_DIR "/docs/OPERATIONS.md"));
    if (!document.open(QIODevice::ReadOnly))
        return {};
    QString text = QString::fromUtf8(document.readAll());
    text = text.section(u"```%1\n"_s.arg(language), 1, 1).section(u"```"_s, 0, 0);
    const QString host = u"%1:%2"_s.arg(testAddress().toString()).arg(port);
    text.replace(u"10.0.0.5:7446"_s, u"%1:%2"_s.arg(testAddress().toString()).arg(frontPort));
    text.replace(u"10.0.0.5"_s, proxyAddress().toString());
    text.replace(u"10.0.1.1:7446"_s, host);
    text.replace(u"10.0.1.2:7446"_s, host);
    text.replace(u"20000"_s, u"200"_s); // the test has few descriptors
    return text;
}

void tst_Balancers::haproxyOfTheDocument()
{
    start(rule({{u"others"_s, u"refuse"_s}}));
    runHaproxy(example(u"haproxy"_s));
    devicesAreServed();
}

void tst_Balancers::nginxOfTheDocument()
{
    start(rule({{u"others"_s, u"refuse"_s}}));
    runNginx(u"daemon off;\nmaster_process off;\npid %1;\nload_module %2;\n"_s.arg(
                     balancer->path(u"pid"_s), QStringLiteral(NGINX_STREAM_FILE))
             + example(u"nginx"_s));
    devicesAreServed();
}

QTEST_GUILESS_MAIN(tst_Balancers)
#include "tst_balancers.moc"
