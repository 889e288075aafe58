// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcpinputplugin2.h"
#include "tcpinput/tcptask2.h"
#include "tests/kit/certificates.h"
#include "tests/kit/loglines.h"
#include "tests/kit/play.h"
#include "tests/kit/tlsdevice.h"
#include "tests/kit/tlsengines.h"
#include "tests/tcpinput/plugintest.h"

#include <QtCore/QRegularExpression>
#include <QtNetwork/QSslSocket>
#include <QtTest/QTest>

#include <thread>

using namespace Qt::StringLiterals;
using namespace plugintest;

namespace {

// The good server, with the engine of the row.
QJsonObject engineTls()
{
    QFETCH_GLOBAL(QString, engine);
    return withEngine(serverTls(), engine);
}

// A server that wants certificates of the good authority from its clients.
QJsonObject verifyingTls(bool debug)
{
    QJsonObject tls = engineTls();
    tls.insert(u"verifyPeer"_s, true);
    tls.insert(u"CAFile"_s, certificateFile(u"ca.pem"_s));
    tls.insert(u"tlsDebug"_s, debug);
    return tls;
}

} // namespace

//! A socket with an error text.
class FailedSocket : public QSslSocket
{
public:
    explicit FailedSocket(const QString &text) { setErrorString(text); }
};

// The plugin with TLS: its lines, and clients that it refuses.
class tst_PluginTls : public PluginTest
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data();
    void init() { begin(); }
    void cleanup() { end(); }

    void tlsErrorLines();
    void tlsSignalsAreConnected_data();
    void tlsSignalsAreConnected();
    void refusedClient_data();
    void refusedClient();
    void tlsConnectionLines();
};

void tst_PluginTls::initTestCase_data()
{
    QTest::addColumn<QString>("engine");
    for (const char *engine : TlsEngines)
        QTest::newRow(engine) << QString::fromLatin1(engine);
}

void tst_PluginTls::tlsErrorLines()
{
    Plugin plugin;
    FailedSocket socket(u"no common cipher"_s);
    const QSslError error(QSslError::CertificateExpired);

    plugin.sslErrors(&socket, {error});
    plugin.sslErrors(nullptr, {});
    QCOMPARE(takeLog(),
             QStringList({u"W: TcpInputPlugin2(p): SSL Errors"_s,
                          u"W: TcpInputPlugin2(p): SSL Errors"_s}));
    plugin.socketError(&socket, QAbstractSocket::SslHandshakeFailedError);
    QCOMPARE(takeLog(),
             QStringList{u"W: TcpInputPlugin2(p): SSL Socket error: no common cipher"_s});
    plugin.hshakeError(nullptr, error);
    QCOMPARE(takeLog(),
             QStringList{u"W: TcpInputPlugin2(p): SSL handshake error: "_s + error.errorString()});
}

void tst_PluginTls::tlsSignalsAreConnected_data()
{
    QTest::addColumn<bool>("debug");

    QTest::newRow("with tlsDebug") << true;
    QTest::newRow("without tlsDebug") << false;
}

void tst_PluginTls::tlsSignalsAreConnected()
{
    QFETCH(bool, debug);

    QJsonObject tls = engineTls();
    tls.insert(u"tlsDebug"_s, debug);
    Plugin plugin(withTls({}, tls));
    QVERIFY(plugin.start());
    takeLog();

    auto *server = plugin.findChild<SslServer *>();
    FailedSocket socket(u"text"_s);
    const QSslError error(QSslError::CertificateExpired);
    Q_EMIT server->errorOccurred(&socket, QAbstractSocket::SslHandshakeFailedError);
    Q_EMIT server->sslErrors(&socket, {error});
    const QStringList connected{u"W: TcpInputPlugin2(p): SSL Socket error: text"_s,
                                u"W: TcpInputPlugin2(p): SSL Errors"_s};
    QCOMPARE(takeLog(), connected);

    // The connection is direct: the slot runs in the thread that emits the signal.
    const QString handshakeLine =
            u"W: TcpInputPlugin2(p): SSL handshake error: "_s + error.errorString();
    const QStringList direct = debug ? QStringList{handshakeLine} : QStringList();
    std::thread([&] { Q_EMIT server->handshakeInterruptedOnError(&socket, error); }).join();
    QCOMPARE(takeLog(), direct);

    // No slot is connected to this other signal of the server.
    Q_EMIT server->peerVerifyError(&socket, error);
    QCOMPARE(takeLog(), QStringList());
}

void tst_PluginTls::refusedClient_data()
{
    QTest::addColumn<QString>("certificate");
    QTest::addColumn<bool>("debug");
    QTest::addColumn<QStringList>("lines"); // how they begin

    const QString prefix = u"W: TcpInputPlugin2(p): "_s;
    const auto add = [&](const char *certificate, QSslError::SslError error) {
        const QString text = QSslError(error).errorString();
        QTest::newRow(certificate)
                << QString::fromLatin1(certificate) << false
                << QStringList{prefix + u"SSL Errors"_s, prefix + u"SSL Socket error: "_s + text};
        // The handshake does not get as far as the list of errors.
        QTest::addRow("%s, tlsDebug", certificate)
                << QString::fromLatin1(certificate) << true
                << QStringList{prefix + u"SSL handshake error: "_s + text,
                               prefix + u"SSL Socket error: "_s};
    };
    add("client-expired", QSslError::CertificateExpired);
    add("client-foreign", QSslError::UnableToGetLocalIssuerCertificate);
    add("self-signed", QSslError::SelfSignedCertificate);

    // Without a certificate the handshake gets that far.
    const QStringList missing{prefix + u"SSL Errors"_s,
                              prefix + u"SSL Socket error: "_s
                                      + QSslError(QSslError::NoPeerCertificate).errorString()};
    QTest::newRow("none") << QString() << false << missing;
    QTest::newRow("none, tlsDebug") << QString() << true << missing;
}

void tst_PluginTls::refusedClient()
{
    QFETCH(QString, certificate);
    QFETCH(bool, debug);
    QFETCH(QStringList, lines);

    Plugin plugin(withTls({}, verifyingTls(debug)));
    QVERIFY(plugin.start());
    takeLog();
    TlsDevice refused(TLS1_3_VERSION, certificate);
    QVERIFY(sendOverTls(refused, plugin, "refused"));
    bool ended = false;
    QVERIFY(play([&] { ended = refused.waitForEnd(); }));
    QVERIFY(ended);

    // The next client is served, and causes no warning.
    TlsDevice good(TLS1_3_VERSION, u"client"_s);
    QVERIFY(sendOverTls(good, plugin, "good"));
    QVERIFY(plugin.recordOf("good"));
    QVERIFY(plugin.records.first()->getOriginalMessage() == "good");
    const QStringList warnings = takeLog().filter(QRegularExpression(u"^[^DI]"_s));
    QVERIFY2(warnings.size() == lines.size(), qPrintable(warnings.join(u'\n')));
    for (qsizetype n = 0; n < lines.size(); ++n)
        QVERIFY2(warnings[n].startsWith(lines[n]), qPrintable(warnings[n]));
}

// After the hand-over the client is the task's, and a line says so.
void tst_PluginTls::tlsConnectionLines()
{
    Plugin plugin(withTls({}, engineTls()));
    QVERIFY(plugin.start());
    takeLog();
    TlsDevice device(TLS1_3_VERSION);
    QVERIFY(sendOverTls(device, plugin, "secret"));
    const auto record = plugin.recordOf("secret");
    QVERIFY(record);
    const long worker = threadNumberOf(plugin.workers().allTasks().first());
    QCOMPARE(takeLog().mid(0, 4),
             QStringList({ThreadLine, TaskLine, newConnectionLine(),
                          u"D: TcpTask2: Handling SSL connection, %1"_s.arg(worker)}));
    QCOMPARE(record->getPeerAddress(), u"127.0.0.1"_s);
    QCOMPARE(record->getPluginSubId().value(u"task"_s), u"0"_s);
    QCOMPARE(plugin.getStatus(),
             u"Listen: %1:%2, timeout: 60s, pool size: 4\r\n   %3\r\n      (empty 0)\r\n"_s
                     .arg(plugin.address.toString())
                     .arg(plugin.port)
                     .arg(record->getPluginSubId().value(u"client"_s)));
}

QTEST_GUILESS_MAIN(tst_PluginTls)
#include "tst_plugintls.moc"
