// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "ssl/ssl.h"
#include "tcpinput/tcpinputplugin2.h"
#include "tcpinput/tcptask2.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/loglines.h"
#include "tests/kit/play.h"
#include "tests/kit/testaddress.h"
#include "tests/kit/tlsdevice.h"
#include "tests/kit/tlsengines.h"

#include <QtCore/QJsonObject>
#include <QtCore/QSemaphore>
#include <QtNetwork/QSslServer>
#include <QtTest/QtTest>

#include <linux/sockios.h>

namespace {

constexpr int MessageBytes = 16000;
constexpr int UnsentBytes = 4 * MessageBytes; // much less than the kernel's buffer holds

QString text(const char *latin1)
{
    return QString::fromLatin1(latin1);
}

int countOf(const NativeSocket &socket, unsigned long request)
{
    int count = -1;
    ::ioctl(socket.descriptor(), request, &count);
    return count;
}

// Encrypted bytes that the device has not read.
int unread(const TlsDevice &device)
{
    return countOf(device.socket, FIONREAD);
}

// Bytes that the device's kernel has taken and not sent yet.
int unsent(const TlsDevice &device)
{
    return countOf(device.socket, SIOCOUTQNSD);
}

} // namespace

/*!
    TLS devices that never read after the handshake. If such a device closes while bytes from the
    server are unread in its kernel, the kernel drops the device's unsent bytes.
*/
class tst_SessionTickets : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data();
    void init();
    void cleanup();

    void nothingIsLeftToRead_data();
    void nothingIsLeftToRead();
    void closesWithoutReading_data();
    void closesWithoutReading();
    void otherServersIssueThem();

private:
    bool connectAndGreet(TlsDevice &device);
    bool waitForLine(const QString &line)
    {
        return QTest::qWaitFor([&] { return !(log += takeLog()).filter(line).isEmpty(); },
                               HangGuardMs);
    }

    quint16 port = 0;
    std::unique_ptr<TcpInputPlugin2> plugin;
    QByteArray received; // the last offer; nothing is ever discarded
    std::unique_ptr<MessageCapture> capture;
    QStringList log;
};

void tst_SessionTickets::initTestCase_data()
{
    QTest::addColumn<QString>("engine");
    for (const char *engine : TlsEngines)
        QTest::newRow(engine) << QString::fromLatin1(engine);
}

void tst_SessionTickets::init()
{
    QFETCH_GLOBAL(QString, engine);
    capture = std::make_unique<MessageCapture>();
    port = freePort();
    plugin = std::make_unique<TcpInputPlugin2>(
            nullptr,
            QJsonObject{{text("ipAddr"), testAddress().toString()},
                        {text("port"), port},
                        {text("ssl"), withEngine(serverTls(), engine)},
                        {text("threadpoolSize"), 1}});
    connect(plugin.get(), &IInputPlugin::receivedData, this,
            [this](const shared_parsedData &record) { received = record->getOriginalMessage(); });
    QVERIFY(plugin->start());
}

void tst_SessionTickets::cleanup()
{
    plugin.reset();
    capture.reset();
    received.clear();
    log.clear();
}

// When this returns, the server has sent all that it sends at the end of a handshake.
bool tst_SessionTickets::connectAndGreet(TlsDevice &device)
{
    bool sent = false;
    const bool played = play([&] {
        if (!device.connect(testAddress(), port) || !device.handshake())
            return;
        device.write("hello");
        sent = device.flush();
    });
    return played && sent && QTest::qWaitFor([this] { return received == "hello"; }, HangGuardMs);
}

void tst_SessionTickets::nothingIsLeftToRead_data()
{
    QTest::addColumn<int>("version");
    QTest::newRow("1.2") << TLS1_2_VERSION;
    QTest::newRow("1.3") << TLS1_3_VERSION;
}

void tst_SessionTickets::nothingIsLeftToRead()
{
    QFETCH(int, version);
    TlsDevice device(version);
    QVERIFY(connectAndGreet(device));
    QCOMPARE(unread(device), 0);
}

void tst_SessionTickets::closesWithoutReading_data()
{
    nothingIsLeftToRead_data();
}

// The worker reads only after the device has closed. By then the server's kernel is full, and bytes
// wait in the device's kernel. They would be dropped if the device had unread bytes.
void tst_SessionTickets::closesWithoutReading()
{
    QFETCH(int, version);
    TlsDevice device(version);
    QVERIFY(connectAndGreet(device));

    QSemaphore stalled;
    QSemaphore goOn;
    QMetaObject::invokeMethod(
            plugin->workers().allTasks().first(),
            [&] {
                stalled.release();
                goOn.acquire();
            },
            Qt::QueuedConnection);
    stalled.acquire();
    QByteArray sent("hello");
    while (unsent(device) < UnsentBytes) {
        const QByteArray message(MessageBytes, static_cast<char>('a' + sent.size() % 26));
        device.write(message);
        if (!device.flush())
            break;
        sent += message;
    }
    const bool full = unsent(device) >= UnsentBytes;
    device.socket.close();
    goOn.release();

    QVERIFY(full);
    QVERIFY(waitForLine(text("TcpClient: closing connection")));
    QTRY_COMPARE_WITH_TIMEOUT(received.size(), sent.size(), HangGuardMs);
    QVERIFY(received == sent);
}

// The host may have TLS servers of its own. The library must not change them.
void tst_SessionTickets::otherServersIssueThem()
{
    QSslConfiguration tls;
    QVERIFY(ssl::readSslConfig(serverTls(), tls));
    QSslServer hosts;
    hosts.setSslConfiguration(tls);
    QVERIFY(hosts.listen(testAddress()));

    TlsDevice ours(TLS1_3_VERSION);
    QVERIFY(connectAndGreet(ours)); // the library's server first, as it might change the host's
    TlsDevice theirs(TLS1_3_VERSION);
    bool arrived = false;
    QVERIFY(play([&] {
        arrived = theirs.connect(testAddress(), hosts.serverPort()) && theirs.handshake()
                && theirs.flush() && NativeSocket::waitFor([&] { return unread(theirs) > 0; });
    }));
    QVERIFY(arrived);
    QCOMPARE(unread(ours), 0);
}

QTEST_GUILESS_MAIN(tst_SessionTickets)
#include "tst_sessiontickets.moc"
