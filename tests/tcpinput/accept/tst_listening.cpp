// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcpinputplugin2.h"
#include "tests/kit/certificates.h"
#include "tests/kit/loglines.h"
#include "tests/kit/nativesocket.h"
#include "tests/kit/processresources.h"
#include "tests/kit/testaddress.h"

#include <QtCore/QJsonObject>
#include <QtTest/QTest>

#include <dlfcn.h>

#include <functional>
#include <memory>
#include <utility>

namespace {

std::function<void()> beforeListen; // called once

} // namespace

// Replaces the C library's listen(), also for Qt. Qt lets sockets reuse an address, so two
// processes may bind the same port as long as nobody listens there. Then another process may listen
// between this process's bind() and listen().
extern "C" Q_DECL_EXPORT int listen(int descriptor, int backlog) noexcept
{
    if (beforeListen)
        std::exchange(beforeListen, {})();
    static const auto original = reinterpret_cast<int (*)(int, int)>(dlsym(RTLD_NEXT, "listen"));
    return original(descriptor, backlog);
}

class tst_Listening : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data();
    void init();
    void cleanup();

    void anotherComesFirst();
    void listensOnceTheOtherHasGone();
    void aSecondStartGoesOnListening();

private:
    std::unique_ptr<TcpInputPlugin2> makePlugin() const;
    // Binds the port. Listens there just before the plugin does.
    void letAnotherComeFirst();
    QString nothingListens() const
    {
        return QStringLiteral("Listen: :0, timeout: 60s, pool size: 4\r\n");
    }
    QString listens() const
    {
        return QStringLiteral("Listen: %1:%2, timeout: 60s, pool size: 4\r\n")
                .arg(testAddress().toString())
                .arg(port);
    }

    quint16 port = 0;
    NativeSocket other;
    std::unique_ptr<MessageCapture> capture;
};

void tst_Listening::initTestCase_data()
{
    QTest::addColumn<bool>("tls");
    QTest::newRow("tcp") << false;
    QTest::newRow("tls") << true;
}

void tst_Listening::init()
{
    port = freePort();
    capture = std::make_unique<MessageCapture>();
}

void tst_Listening::cleanup()
{
    beforeListen = {};
    other.close();
    capture.reset();
}

std::unique_ptr<TcpInputPlugin2> tst_Listening::makePlugin() const
{
    QFETCH_GLOBAL(bool, tls);
    QJsonObject config{{QStringLiteral("ipAddr"), testAddress().toString()},
                       {QStringLiteral("port"), port}};
    if (tls)
        config.insert(QStringLiteral("ssl"), serverTls());
    auto plugin = std::make_unique<TcpInputPlugin2>(nullptr, config);
    plugin->pluginId = QStringLiteral("t");
    return plugin;
}

void tst_Listening::letAnotherComeFirst()
{
    other = NativeSocket::unconnected(testAddress());
    QVERIFY(other.bind(testAddress(), port));
    beforeListen = [this] { QCOMPARE(::listen(other.descriptor(), 1), 0); };
}

// As with a port that is in use already: the status says that nothing listens, and the log says
// nothing about it.
void tst_Listening::anotherComesFirst()
{
    QFETCH_GLOBAL(bool, tls);
    const auto plugin = makePlugin();
    letAnotherComeFirst();
    const qsizetype before = openDescriptors();
    QVERIFY(plugin->start());
    QVERIFY(!beforeListen);
    QCOMPARE(plugin->getStatus(), nothingListens());
    QCOMPARE(openDescriptors(), before);

    QStringList lines = takeLog();
    lines.removeOne(QStringLiteral("D: SSL: Reading SSL config"));
    QCOMPARE(lines,
             (QStringList{QStringLiteral("D: TcpInputPlugin2(t): Listening on %1:%2")
                                  .arg(testAddress().toString())
                                  .arg(port),
                          QStringLiteral("I: TcpInputPlugin2(t): Starting %1 server on port %2")
                                  .arg(tls ? QStringLiteral("SSL") : QStringLiteral("TCP"))
                                  .arg(port)}));
}

void tst_Listening::listensOnceTheOtherHasGone()
{
    const auto plugin = makePlugin();
    letAnotherComeFirst();
    QVERIFY(plugin->start());
    QCOMPARE(plugin->getStatus(), nothingListens());

    other.close();
    const auto next = makePlugin(); // the port is free, although the first one is still there
    QVERIFY(next->start());
    QCOMPARE(next->getStatus(), listens());
    QVERIFY(NativeSocket::connectedTo(testAddress(), port).isValid());

    next->stop();
    QVERIFY(plugin->start()); // now the first one can have the port
    QCOMPARE(plugin->getStatus(), listens());
    QVERIFY(NativeSocket::connectedTo(testAddress(), port).isValid());
}

// Qt refuses to listen twice, but the server goes on listening.
void tst_Listening::aSecondStartGoesOnListening()
{
    const auto plugin = makePlugin();
    QVERIFY(plugin->start());
    QVERIFY(plugin->start());
    QVERIFY(takeLog().contains(
            QStringLiteral("w: QTcpServer::listen() called when already listening")));
    QCOMPARE(plugin->getStatus(), listens());
    QVERIFY(NativeSocket::connectedTo(testAddress(), port).isValid());
}

QTEST_GUILESS_MAIN(tst_Listening)
#include "tst_listening.moc"
