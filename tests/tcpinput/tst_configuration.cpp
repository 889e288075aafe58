// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcpinputplugin2.h"
#include "tests/kit/certificates.h"
#include "tests/kit/loglines.h"
#include "tests/kit/nativesocket.h"
#include "tests/kit/privatenetwork.h"
#include "tests/kit/testaddress.h"
#include "tests/tcpinput/configurationtest.h"

#include <QtCore/QJsonArray>
#include <QtNetwork/QNetworkInterface>
#include <QtTest/QTest>

using namespace Qt::StringLiterals;
using namespace configurationtest;

namespace {

constexpr int DefaultPort = 7446;

} // namespace

// What each key does. Where another program could hold the port, a test looks at the listening
// itself only in a network of its own.
class tst_Configuration : public ConfigurationTest
{
    Q_OBJECT

public:
    explicit tst_Configuration(bool networkIsPrivate) : isolated(networkIsPrivate) {}

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void construction();
    void nothingIsReadAtConstruction();
    void setConfigOnlyStores();
    void emptyObject();
    void port_data();
    void port();
    void ipAddr_data();
    void ipAddr();
    void timeout_data();
    void timeout();
    void threadpoolSize_data();
    void threadpoolSize();
    void namesAreExact();
    void refusedObjectChangesNothing();

    void interfaceLastIPv4();
    void interfaceByNumber();
    void interfaceAbsent_data();
    void interfaceAbsent();
    void ipAddrIsAppliedAfterInterface();
    void interfaceWithoutIPv4();

    void timeoutAndPoolSizeStay_data();
    void timeoutAndPoolSizeStay();
    void portAndAddressReturnToDefaults();
    void onConfigChangedDoesNothing();

    void portInUse();
    void addressNotAvailable();
    void listeningTwice();

private:
    const bool isolated;
};

void tst_Configuration::construction()
{
    TcpInputPlugin2 bare(nullptr);
    QVERIFY(bare.pluginId.isEmpty());
    QVERIFY(bare.config.isEmpty());
    QCOMPARE(bare.parent(), nullptr);
    QCOMPARE(bare.getStatus(), FirstStatus);

    QObject parent;
    const QJsonObject object = with(own(), u"timeout"_s, 90);
    TcpInputPlugin2 configured(&parent, object);
    QVERIFY(configured.pluginId.isEmpty());
    QCOMPARE(configured.config, object);
    QCOMPARE(configured.parent(), &parent);
}

void tst_Configuration::nothingIsReadAtConstruction()
{
    Plugin plugin({{u"timeout"_s, 90}, {u"threadpoolSize"_s, 2}, {u"ssl"_s, QJsonObject()}});
    QCOMPARE(plugin.getStatus(), FirstStatus);
    QVERIFY(!plugin.plainServer().isListening());
    QVERIFY(!plugin.tlsServer().isListening());
}

void tst_Configuration::setConfigOnlyStores()
{
    Plugin plugin(with(own(), u"timeout"_s, 90));
    plugin.setConfig({{u"threadpoolSize"_s, 2}});
    QCOMPARE(plugin.config, QJsonObject({{u"threadpoolSize"_s, 2}})); // replaced, not merged
    QCOMPARE(plugin.getStatus(), FirstStatus);
}

void tst_Configuration::emptyObject()
{
    if (!isolated)
        QSKIP("The default port may be in use: needs a network of its own");
    Plugin plugin({});
    QCOMPARE(plugin.startLog(), startLines(u"0.0.0.0"_s, DefaultPort));
    QCOMPARE(plugin.getStatus(), u"Listen: 0.0.0.0:7446, timeout: 60s, pool size: 4\r\n"_s);
    // The default address is IPv4 only.
    QVERIFY(NativeSocket::connectedTo(QHostAddress::LocalHost, DefaultPort).isValid());
    QVERIFY(!NativeSocket::connectedTo(QHostAddress::LocalHostIPv6, DefaultPort).isValid());
}

void tst_Configuration::port_data()
{
    QTest::addColumn<QJsonValue>("value");
    QTest::addColumn<int>("expected");

    QTest::newRow("1") << QJsonValue(1) << 1;
    QTest::newRow("7447") << QJsonValue(7447) << 7447;
    QTest::newRow("integral float") << QJsonValue(7448.0) << 7448;
    QTest::newRow("65534") << QJsonValue(65534) << 65534;

    QTest::newRow("0") << QJsonValue(0) << DefaultPort;
    QTest::newRow("-1") << QJsonValue(-1) << DefaultPort;
    QTest::newRow("65535") << QJsonValue(65535) << DefaultPort;
    QTest::newRow("65536") << QJsonValue(65536) << DefaultPort;
    QTest::newRow("65537") << QJsonValue(65537) << DefaultPort; // 1 in 16 bits
    QTest::newRow("4294967297") << QJsonValue(Q_INT64_C(4294967297)) << DefaultPort; // 1 in 32 bits
    QTest::newRow("-58090") << QJsonValue(-58090) << DefaultPort; // 7446 in 16 bits
    QTest::newRow("float") << QJsonValue(8080.5) << DefaultPort;
    QTest::newRow("text") << QJsonValue(u"8080"_s) << DefaultPort;
    QTest::newRow("true") << QJsonValue(true) << DefaultPort;
    QTest::newRow("null") << QJsonValue(QJsonValue::Null) << DefaultPort;
    QTest::newRow("array") << QJsonValue(QJsonArray{8080}) << DefaultPort;
    QTest::newRow("object") << QJsonValue(QJsonObject()) << DefaultPort;
}

void tst_Configuration::port()
{
    QFETCH(QJsonValue, value);
    QFETCH(int, expected);

    Plugin plugin(with(own(), u"port"_s, value));
    QCOMPARE(plugin.startLog(), startLines(address.toString(), expected));
    if (isolated) {
        QCOMPARE(plugin.getStatus(), statusLine(address.toString(), expected));
        QCOMPARE(plugin.plainServer().serverPort(), expected);
        QVERIFY(!plugin.tlsServer().isListening());
    }
}

void tst_Configuration::ipAddr_data()
{
    QTest::addColumn<QJsonValue>("value");
    QTest::addColumn<QString>("expected");

    QTest::newRow("IPv4") << QJsonValue(u"127.0.0.2"_s) << u"127.0.0.2"_s;
    QTest::newRow("any IPv4") << QJsonValue(u"0.0.0.0"_s) << u"0.0.0.0"_s;
    QTest::newRow("IPv6") << QJsonValue(u"::1"_s) << u"::1"_s;
    QTest::newRow("any IPv6") << QJsonValue(u"::"_s) << u"::"_s;

    QTest::newRow("no address") << QJsonValue(u"no address"_s) << u"127.0.0.1"_s;
    QTest::newRow("name") << QJsonValue(u"localhost"_s) << u"127.0.0.1"_s;
    QTest::newRow("too many") << QJsonValue(u"127.0.0.1.1"_s) << u"127.0.0.1"_s;
    QTest::newRow("too large") << QJsonValue(u"127.0.0.256"_s) << u"127.0.0.1"_s;
    QTest::newRow("with port") << QJsonValue(u"0.0.0.0:80"_s) << u"127.0.0.1"_s;
    QTest::newRow("empty") << QJsonValue(QString()) << u"127.0.0.1"_s;
    QTest::newRow("number") << QJsonValue(2130706434) << u"127.0.0.1"_s;
    QTest::newRow("true") << QJsonValue(true) << u"127.0.0.1"_s;
    QTest::newRow("null") << QJsonValue(QJsonValue::Null) << u"127.0.0.1"_s;
    QTest::newRow("array") << QJsonValue(QJsonArray{u"127.0.0.2"_s}) << u"127.0.0.1"_s;
}

void tst_Configuration::ipAddr()
{
    QFETCH(QJsonValue, value);
    QFETCH(QString, expected);

    const QHostAddress listenAddress(expected);
    const quint16 port = freePort(listenAddress);
    Plugin plugin({{u"ipAddr"_s, value}, {u"port"_s, port}});
    QCOMPARE(plugin.startLog(), startLines(expected, port));
    if (isolated) {
        if (port == 0)
            QSKIP("This system has no such address");
        QCOMPARE(plugin.getStatus(), statusLine(expected, port));
        QCOMPARE(plugin.plainServer().serverAddress(), listenAddress);
    }
}

void tst_Configuration::timeout_data()
{
    QTest::addColumn<QJsonValue>("value");
    QTest::addColumn<int>("seconds");

    QTest::newRow("1") << QJsonValue(1) << 1;
    QTest::newRow("5") << QJsonValue(5) << 5;
    QTest::newRow("90") << QJsonValue(90) << 90;
    QTest::newRow("integral float") << QJsonValue(7.0) << 7;
    QTest::newRow("2147483") << QJsonValue(2147483) << 2147483;
    // From here on the time-out is the longest whose milliseconds fit into an int.
    QTest::newRow("2147484") << QJsonValue(2147484) << 2147483;
    QTest::newRow("4294968") << QJsonValue(4294968) << 2147483; // 704 ms in 32 bits
    QTest::newRow("2147483647") << QJsonValue(2147483647) << 2147483;

    QTest::newRow("0") << QJsonValue(0) << 60;
    QTest::newRow("-1") << QJsonValue(-1) << 60;
    QTest::newRow("2147483648") << QJsonValue(Q_INT64_C(2147483648)) << 60; // no int
    QTest::newRow("float") << QJsonValue(1.5) << 60;
    QTest::newRow("text") << QJsonValue(u"5"_s) << 60;
    QTest::newRow("true") << QJsonValue(true) << 60;
    QTest::newRow("null") << QJsonValue(QJsonValue::Null) << 60;
}

void tst_Configuration::timeout()
{
    QFETCH(QJsonValue, value);
    QFETCH(int, seconds);

    Plugin plugin(with(ownWithPort(), u"timeout"_s, value));
    QVERIFY(plugin.start());
    QCOMPARE(plugin.getStatus(),
             statusLine(address.toString(), plugin.plainServer().serverPort(), seconds));
    takeLog();
}

void tst_Configuration::threadpoolSize_data()
{
    QTest::addColumn<QJsonValue>("value");
    QTest::addColumn<int>("size");

    QTest::newRow("1") << QJsonValue(1) << 1;
    QTest::newRow("5") << QJsonValue(5) << 5;
    QTest::newRow("integral float") << QJsonValue(3.0) << 3;
    QTest::newRow("2147483647") << QJsonValue(2147483647) << 2147483647;

    QTest::newRow("0") << QJsonValue(0) << 4;
    QTest::newRow("-1") << QJsonValue(-1) << 4;
    QTest::newRow("2147483648") << QJsonValue(Q_INT64_C(2147483648)) << 4;
    QTest::newRow("float") << QJsonValue(1.5) << 4;
    QTest::newRow("text") << QJsonValue(u"2"_s) << 4;
    QTest::newRow("true") << QJsonValue(true) << 4;
    QTest::newRow("null") << QJsonValue(QJsonValue::Null) << 4;
}

void tst_Configuration::threadpoolSize()
{
    QFETCH(QJsonValue, value);
    QFETCH(int, size);

    Plugin plugin(with(ownWithPort(), u"threadpoolSize"_s, value));
    QVERIFY(plugin.start());
    QCOMPARE(plugin.getStatus(),
             statusLine(address.toString(), plugin.plainServer().serverPort(), 60, size));
    takeLog();
}

void tst_Configuration::namesAreExact()
{
    QJsonObject object = ownWithPort();
    const int listenPort = object.value(u"port"_s).toInt();
    const QStringList names{u"Port"_s,           u"PORT"_s,    u"ipaddr"_s,  u"IpAddr"_s,
                            u"ipAddress"_s,      u"Timeout"_s, u"timeOut"_s, u"threadPoolSize"_s,
                            u"threadpoolsize"_s, u"SSL"_s,     u"Ssl"_s,     u"ssl "_s,
                            u"Interface"_s,      u"unknown"_s, QString()};
    for (const QString &name : names)
        object.insert(name, 1);

    Plugin plugin(object);
    QCOMPARE(plugin.startLog(), startLines(address.toString(), listenPort));
    QCOMPARE(plugin.getStatus(), statusLine(address.toString(), listenPort));
}

void tst_Configuration::refusedObjectChangesNothing()
{
    const int port = freePort(address);
    Plugin plugin(with(own(), u"port"_s, port));
    QCOMPARE(plugin.startLog(), startLines(address.toString(), port));
    const QString before = plugin.getStatus();
    plugin.setConfig(QJsonObject{{u"strict"_s, true}, {u"timeout"_s, 5}, {u"Timeout"_s, 7}});
    QCOMPARE(plugin.startLog(false),
             QStringList(u"W: TcpInputPlugin2(cfg): Configuration: unknown key Timeout, accepted: "
                         "ends, interface, ipAddr, limits, logPeers, offsets, port, prompt, "
                         "proxyProtocol, ssl, strict, threadpoolSize, timeout"_s));
    QCOMPARE(plugin.getStatus(), before);
}

void tst_Configuration::interfaceLastIPv4()
{
    QString expected;
    if (isolated) {
        QVERIFY(PrivateNetwork::setAddress("lo:1", QHostAddress(u"10.0.0.5"_s)));
        QVERIFY(PrivateNetwork::setAddress("lo:2", QHostAddress(u"10.0.0.6"_s)));
        expected = u"10.0.0.6"_s;
    } else {
        const auto entries = QNetworkInterface::interfaceFromName(u"lo"_s).addressEntries();
        for (const QNetworkAddressEntry &entry : entries) {
            if (entry.ip().protocol() == QAbstractSocket::IPv4Protocol)
                expected = entry.ip().toString();
        }
    }
    const quint16 port = freePort(QHostAddress(expected));
    Plugin plugin({{u"interface"_s, u"lo"_s}, {u"port"_s, port}});
    QCOMPARE(plugin.startLog(), startLines(expected, port));
    if (isolated) {
        QCOMPARE(plugin.getStatus(), statusLine(expected, port));
        QVERIFY(PrivateNetwork::setAddress("lo:2", QHostAddress(u"0.0.0.0"_s)));
        QVERIFY(PrivateNetwork::setAddress("lo:1", QHostAddress(u"0.0.0.0"_s)));
    }
}

// Qt decides what is a name.
void tst_Configuration::interfaceByNumber()
{
    const auto loopback = QNetworkInterface::interfaceFromName(u"lo"_s);
    QString expected;
    for (const QNetworkAddressEntry &entry : loopback.addressEntries()) {
        if (entry.ip().protocol() == QAbstractSocket::IPv4Protocol)
            expected = entry.ip().toString();
    }
    const quint16 port = freePort(QHostAddress(expected));
    Plugin plugin({{u"interface"_s, QString::number(loopback.index())}, {u"port"_s, port}});
    QCOMPARE(plugin.startLog(), startLines(expected, port));
}

void tst_Configuration::interfaceAbsent_data()
{
    QTest::addColumn<QJsonValue>("value");

    QTest::newRow("unknown") << QJsonValue(u"nosuchinterface"_s);
    QTest::newRow("case") << QJsonValue(u"LO"_s);
    QTest::newRow("address") << QJsonValue(u"127.0.0.1"_s);
    QTest::newRow("empty") << QJsonValue(QString());
    QTest::newRow("number") << QJsonValue(1);
    QTest::newRow("null") << QJsonValue(QJsonValue::Null);
    QTest::newRow("array") << QJsonValue(QJsonArray{u"lo"_s});
}

void tst_Configuration::interfaceAbsent()
{
    QFETCH(QJsonValue, value);

    const quint16 port = freePort(QHostAddress(QHostAddress::AnyIPv4));
    Plugin plugin({{u"interface"_s, value}, {u"port"_s, port}});
    QCOMPARE(plugin.startLog(), startLines(u"0.0.0.0"_s, port));
}

void tst_Configuration::ipAddrIsAppliedAfterInterface()
{
    const QJsonObject object = with(ownWithPort(), u"interface"_s, u"lo"_s);
    const int port = object.value(u"port"_s).toInt();
    Plugin plugin(object);
    QCOMPARE(plugin.startLog(), startLines(address.toString(), port));

    // Also if the address is bad.
    Plugin fallback(with(object, u"ipAddr"_s, u"bad"_s));
    QCOMPARE(fallback.startLog(), startLines(u"127.0.0.1"_s, port));
}

void tst_Configuration::interfaceWithoutIPv4()
{
    if (!isolated)
        QSKIP("Takes an address away: needs a network of its own");
    QVERIFY(PrivateNetwork::setAddress("lo", QHostAddress(u"0.0.0.0"_s)));
    const auto entries = QNetworkInterface::interfaceFromName(u"lo"_s).addressEntries();
    Plugin plugin({{u"interface"_s, u"lo"_s}});
    const QStringList lines = plugin.startLog();
    QVERIFY(PrivateNetwork::setAddress("lo", QHostAddress(QHostAddress::LocalHost)));

    for (const QNetworkAddressEntry &entry : entries)
        QCOMPARE(entry.ip().protocol(), QAbstractSocket::IPv6Protocol);
    QCOMPARE(lines, startLines(u"0.0.0.0"_s, DefaultPort));
}

void tst_Configuration::timeoutAndPoolSizeStay_data()
{
    QTest::addColumn<QJsonObject>("next");

    QTest::newRow("keys removed") << QJsonObject();
    QTest::newRow("zero") << QJsonObject{{u"timeout"_s, 0}, {u"threadpoolSize"_s, 0}};
    QTest::newRow("negative") << QJsonObject{{u"timeout"_s, -1}, {u"threadpoolSize"_s, -1}};
    QTest::newRow("texts") << QJsonObject{{u"timeout"_s, u"5"_s}, {u"threadpoolSize"_s, u"5"_s}};
}

void tst_Configuration::timeoutAndPoolSizeStay()
{
    QFETCH(QJsonObject, next);

    QJsonObject first = ownWithPort();
    const int port = first.value(u"port"_s).toInt();
    first.insert(u"timeout"_s, 90);
    first.insert(u"threadpoolSize"_s, 2);
    Plugin plugin(first);
    QVERIFY(plugin.start());
    QCOMPARE(plugin.getStatus(), statusLine(address.toString(), port, 90, 2));
    QVERIFY(plugin.stop());

    plugin.setConfig(with(with(next, u"ipAddr"_s, address.toString()), u"port"_s, port));
    QVERIFY(plugin.start());
    QCOMPARE(plugin.getStatus(), statusLine(address.toString(), port, 90, 2));
    takeLog();
}

void tst_Configuration::portAndAddressReturnToDefaults()
{
    const QJsonObject first = ownWithPort();
    const int port = first.value(u"port"_s).toInt();
    Plugin plugin(first);
    QCOMPARE(plugin.startLog(), startLines(address.toString(), port));
    QVERIFY(plugin.stop());
    plugin.setConfig(own());
    QCOMPARE(plugin.startLog(), startLines(address.toString(), DefaultPort));
    QVERIFY(plugin.stop());
    plugin.setConfig({{u"port"_s, port}});
    QCOMPARE(plugin.startLog(), startLines(u"0.0.0.0"_s, port));
}

void tst_Configuration::onConfigChangedDoesNothing()
{
    const QJsonObject first = ownWithPort();
    Plugin plugin(first);
    QVERIFY(plugin.start());
    const QString status = plugin.getStatus();
    takeLog();

    plugin.setConfig({{u"timeout"_s, 90}, {u"threadpoolSize"_s, 2}, {u"ssl"_s, QJsonObject()}});
    plugin.onConfigChanged();
    QCoreApplication::processEvents();
    QCOMPARE(takeLog(), QStringList());
    QCOMPARE(plugin.getStatus(), status);
    QVERIFY(plugin.plainServer().isListening());
}

// start() does not look at the result of listening.
void tst_Configuration::portInUse()
{
    const QJsonObject object = ownWithPort();
    const int port = object.value(u"port"_s).toInt();
    Plugin first(object);
    QCOMPARE(first.startLog(), startLines(address.toString(), port));

    Plugin second(object);
    QCOMPARE(second.startLog(), startLines(address.toString(), port));
    QCOMPARE(second.getStatus(), u"Listen: :0, timeout: 60s, pool size: 4\r\n"_s);
    QVERIFY(!second.plainServer().isListening());

    Plugin third(with(object, u"ssl"_s, serverTls()));
    QCOMPARE(third.startLog(), tlsStartLines(address.toString(), port));
    QCOMPARE(third.getStatus(), u"Listen: :0, timeout: 60s, pool size: 4\r\n"_s);
}

void tst_Configuration::addressNotAvailable()
{
    // An address that is kept for documentation: no machine has it.
    Plugin plugin({{u"ipAddr"_s, u"203.0.113.1"_s}});
    QCOMPARE(plugin.startLog(), startLines(u"203.0.113.1"_s, DefaultPort));
    QCOMPARE(plugin.getStatus(), FirstStatus);
}

void tst_Configuration::listeningTwice()
{
    const QJsonObject object = ownWithPort();
    const int port = object.value(u"port"_s).toInt();
    Plugin plugin(object);
    QCOMPARE(plugin.startLog(), startLines(address.toString(), port));

    const QString linesOfQt = u"w: QTcpServer::listen() called when already listening"_s;
    const int otherPort = freePort(address);
    plugin.setConfig(with(object, u"port"_s, otherPort));
    QCOMPARE(plugin.startLog(), startLines(address.toString(), otherPort) + QStringList{linesOfQt});
    // The first server goes on.
    QCOMPARE(plugin.getStatus(), statusLine(address.toString(), port));
}

int main(int argc, char *argv[])
{
    const bool isolated = PrivateNetwork::enter();
    const QCoreApplication application(argc, argv);
    tst_Configuration test(isolated);
    return QTest::qExec(&test, argc, argv);
}
#include "tst_configuration.moc"
