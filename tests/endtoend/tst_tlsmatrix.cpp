// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/certificates.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/loadedplugin.h"
#include "tests/kit/loglines.h"
#include "tests/kit/tlsengines.h"

#include <QtCore/QProcess>
#include <QtNetwork/QSslConfiguration>
#include <QtNetwork/QSslKey>
#include <QtNetwork/QSslSocket>
#include <QtTest/QtTest>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <array>

namespace {

QString text(const char *latin1)
{
    return QString::fromLatin1(latin1);
}

// The beginning of the library's lines. The reason follows, from Qt or OpenSSL.
const QString SocketErrorLine = text("W: TcpInputPlugin2(t): SSL Socket error: ");

// The line for a handshake that OpenSSL has ended for this reason (SSL_R_...). Qt's own words come
// first, then OpenSSL's.
QString handshakeErrorLine(int reason)
{
    std::array<char, 256> words{};
    ERR_error_string_n(ERR_PACK(ERR_LIB_SSL, 0, reason), words.data(), words.size());
    return SocketErrorLine + text("*: ") + text(words.data());
}

// Why a server that verifies its peers refuses this certificate.
QString reasonAgainst(const QString &certificate)
{
    if (certificate.isEmpty())
        return QSslError(QSslError::NoPeerCertificate).errorString();
    if (certificate == QLatin1String("client-expired"))
        return QSslError(QSslError::CertificateExpired).errorString();
    return QSslError(QSslError::UnableToGetLocalIssuerCertificate).errorString();
}

// Whether the line is the expected one. A * in expected stands for any words.
bool fits(const QString &line, const QString &expected)
{
    QString pattern = QRegularExpression::escape(expected);
    pattern.replace(text("\\*"), text(".+"));
    return QRegularExpression(QRegularExpression::anchoredPattern(pattern)).match(line).hasMatch();
}

//! A device that connects with TLS, may send "hello" as soon as it can, and stays.
class Client
{
public:
    struct Role
    {
        QString version; // "1.2" or "1.3"
        QString certificate; // name of its files; empty: none
        bool sends = true;
    };

    virtual ~Client() = default;
    virtual bool hasEnded() = 0;
    // Whether the client reported a TLS alert from the server.
    virtual bool wasAlerted() = 0;
};

class ProgramClient : public Client
{
public:
    ProgramClient(const QHostAddress &address, quint16 port, const Role &role)
    {
        QStringList arguments{text("s_client"),
                              text("-connect"),
                              text("%1:%2").arg(address.toString()).arg(port),
                              text("-CAfile"),
                              certificateFile(text("ca.pem")),
                              text("-verify_return_error"),
                              role.version == QLatin1String("1.2") ? text("-tls1_2")
                                                                   : text("-tls1_3")};
        if (!role.certificate.isEmpty()) {
            arguments << text("-cert") << certificateFile(role.certificate + text(".pem"))
                      << text("-key") << certificateFile(role.certificate + text(".key"));
        }
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(text("openssl"), arguments);
        if (role.sends)
            process.write("hello");
    }
    ~ProgramClient() override
    {
        process.kill();
        process.waitForFinished();
    }
    bool hasEnded() override
    {
        return process.state() == QProcess::NotRunning && process.error() == QProcess::UnknownError;
    }
    bool wasAlerted() override { return process.readAll().contains("SSL alert number"); }

private:
    QProcess process;
};

class SocketClient : public Client
{
public:
    SocketClient(const QHostAddress &address, quint16 port, const Role &role)
    {
        QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
        tls.setProtocol(role.version == QLatin1String("1.2") ? QSsl::TlsV1_2 : QSsl::TlsV1_3);
        tls.setCaCertificates(QSslCertificate::fromPath(certificateFile(text("ca.pem"))));
        socket.setSslConfiguration(tls);
        if (!role.certificate.isEmpty()) {
            socket.setLocalCertificate(certificateFile(role.certificate + text(".pem")));
            socket.setPrivateKey(certificateFile(role.certificate + text(".key")));
        }
        QObject::connect(&socket, &QSslSocket::alertReceived, &socket, [this] { alerted = true; });
        socket.setPeerVerifyName(text("localhost"));
        socket.connectToHostEncrypted(address.toString(), port);
        if (role.sends)
            socket.write("hello");
    }
    bool hasEnded() override { return socket.state() == QAbstractSocket::UnconnectedState; }
    bool wasAlerted() override { return alerted; }

private:
    QSslSocket socket;
    bool alerted = false;
};

} // namespace

/*!
    Which devices the TLS settings let in: two kinds of real devices against the loaded library.
*/
class tst_TlsMatrix : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase_data();
    void cleanup();

    void version_data();
    void version();
    void certificate_data();
    void certificate();
    void unusableServer_data();
    void unusableServer();

private:
    void start(QJsonObject tls);
    std::unique_ptr<Client> connectClient(const Client::Role &role) const;
    void expectDelivery(const Client::Role &role);
    void expectRefusal(Client::Role role, const QStringList &lines, bool alert);
    QStringList warnings();

    LoadedLibrary library;
    quint16 port = 0;
    std::unique_ptr<IInputPlugin> plugin;
    std::unique_ptr<MessageCapture> capture;
    QStringList log;
    QByteArray received;
};

void tst_TlsMatrix::initTestCase_data()
{
    QTest::addColumn<QString>("engine");
    QTest::addColumn<bool>("program");
    for (const char *engine : TlsEngines) {
        QTest::addRow("%s, openssl s_client", engine) << text(engine) << true;
        QTest::addRow("%s, QSslSocket", engine) << text(engine) << false;
    }
}

void tst_TlsMatrix::cleanup()
{
    plugin.reset();
    capture.reset();
    log.clear();
    received.clear();
}

void tst_TlsMatrix::start(QJsonObject tls)
{
    const QJsonObject good = serverTls();
    for (auto it = good.begin(); it != good.end(); ++it) {
        if (!tls.contains(it.key()) && it.key() != QLatin1String("verifyPeer"))
            tls.insert(it.key(), it.value());
    }
    tls.insert(text("CAFile"), certificateFile(text("ca.pem")));
    port = freePort();
    QJsonObject config = tcpConfig(port);
    QFETCH_GLOBAL(QString, engine);
    config.insert(text("ssl"), withEngine(tls, engine));
    capture = std::make_unique<MessageCapture>();
    plugin = library.create(config);
    connect(plugin.get(), &IInputPlugin::receivedData, this,
            [this](const shared_parsedData &record) { received = record->getOriginalMessage(); });
    QVERIFY(plugin->start());
    QVERIFY(isListening(*plugin));
}

std::unique_ptr<Client> tst_TlsMatrix::connectClient(const Client::Role &role) const
{
    QFETCH_GLOBAL(bool, program);
    if (program)
        return std::make_unique<ProgramClient>(testAddress(), port, role);
    return std::make_unique<SocketClient>(testAddress(), port, role);
}

QStringList tst_TlsMatrix::warnings()
{
    log += takeLog();
    return log.filter(QRegularExpression(text("^[WCFwcf]: ")));
}

void tst_TlsMatrix::expectDelivery(const Client::Role &role)
{
    const auto client = connectClient(role);
    QTRY_COMPARE_WITH_TIMEOUT(received, QByteArray("hello"), HangGuardMs);
    QVERIFY(!client->hasEnded());
    QCOMPARE(warnings(), QStringList());
}

// lines: the library's warnings, with a * for words that Qt chooses. alert: whether the client gets
// a TLS alert with the reason, or its connection is just closed.
void tst_TlsMatrix::expectRefusal(Client::Role role, const QStringList &lines, bool alert)
{
    role.sends = !alert; // a client that sends into a closed connection may miss the alert
    const auto client = connectClient(role);
    QTRY_VERIFY_WITH_TIMEOUT(client->hasEnded(), HangGuardMs);
    QTRY_VERIFY_WITH_TIMEOUT(warnings().size() >= lines.size(), HangGuardMs);
    plugin.reset(); // after that it logs no more
    const QStringList said = warnings();
    QCOMPARE(said.size(), lines.size());
    for (qsizetype i = 0; i < said.size(); ++i)
        QVERIFY2(fits(said[i], lines[i]), qPrintable(said[i]));
    QCOMPARE(received, QByteArray());
    QCOMPARE(log.filter(text("new connection")), QStringList());
    QCOMPARE(client->wasAlerted(), alert);
}

void tst_TlsMatrix::version_data()
{
    QTest::addColumn<QString>("server");
    QTest::addColumn<QString>("client");
    QTest::addColumn<bool>("accepted");
    for (const char *client : {"1.2", "1.3"}) {
        const bool newest = QByteArray(client) == "1.3";
        const struct
        {
            const char *server;
            bool accepted;
        } rows[] = {
                {"", true}, {"1.2", !newest}, {"1.2+", true}, {"1.3", newest}, {"1.3+", newest}};
        for (const auto &row : rows) {
            QTest::addRow("server '%s', client %s", row.server, client)
                    << text(row.server) << text(client) << row.accepted;
        }
    }
}

void tst_TlsMatrix::version()
{
    QFETCH(QString, server);
    QFETCH(QString, client);
    QFETCH(bool, accepted);
    QJsonObject tls{{text("verifyPeer"), false}};
    if (!server.isEmpty())
        tls.insert(text("tlsVersion"), server);
    start(tls);
    const Client::Role role{client, QString()};
    if (accepted)
        expectDelivery(role);
    else
        expectRefusal(role, {handshakeErrorLine(SSL_R_UNSUPPORTED_PROTOCOL)}, true);
}

void tst_TlsMatrix::certificate_data()
{
    QTest::addColumn<QString>("verifyPeer");
    QTest::addColumn<QString>("certificate");
    QTest::addColumn<QString>("client");
    QTest::addColumn<bool>("tlsDebug");
    for (const char *verifyPeer : {"absent", "true", "false"}) {
        for (const char *certificate : {"", "client", "client-expired", "client-foreign"}) {
            for (const char *client : {"1.2", "1.3"}) {
                for (const bool tlsDebug : {false, true}) {
                    QTest::addRow("verifyPeer %s, certificate '%s', %s%s", verifyPeer, certificate,
                                  client, tlsDebug ? ", tlsDebug" : "")
                            << text(verifyPeer) << text(certificate) << text(client) << tlsDebug;
                }
            }
        }
    }
}

void tst_TlsMatrix::certificate()
{
    QFETCH(QString, verifyPeer);
    QFETCH(QString, certificate);
    QFETCH(QString, client);
    QFETCH(bool, tlsDebug);
    QJsonObject tls{{text("tlsDebug"), tlsDebug}};
    if (verifyPeer != QLatin1String("absent"))
        tls.insert(text("verifyPeer"), verifyPeer == QLatin1String("true"));
    start(tls);
    const Client::Role role{client, certificate};
    if (verifyPeer == QLatin1String("false") || certificate == QLatin1String("client")) {
        expectDelivery(role);
        return;
    }
    const QString reason = reasonAgainst(certificate);
    if (tlsDebug && !certificate.isEmpty()) {
        expectRefusal(role,
                      {text("W: TcpInputPlugin2(t): SSL handshake error: ") + reason,
                       handshakeErrorLine(SSL_R_CERTIFICATE_VERIFY_FAILED)},
                      true);
    } else {
        // Qt verifies after the handshake. Then it is too late for an alert.
        expectRefusal(role, {text("W: TcpInputPlugin2(t): SSL Errors"), SocketErrorLine + reason},
                      false);
    }
}

void tst_TlsMatrix::unusableServer_data()
{
    QTest::addColumn<QJsonObject>("tls");
    QTest::addColumn<QString>("client");
    QTest::addColumn<bool>("hasKey");
    for (const char *client : {"1.2", "1.3"}) {
        QTest::addRow("null certificate, client %s", client)
                << QJsonObject{{text("Certificate"), text("nonsense")}} << text(client) << true;
        QTest::addRow("null key, client %s", client)
                << QJsonObject{{text("PrivateKey"), 1}} << text(client) << false;
        QTest::addRow("no RSA key, client %s", client)
                << QJsonObject{{text("CertFile"), certificateFile(text("ec.pem"))},
                               {text("KeyFile"), certificateFile(text("ec.key"))}}
                << text(client) << false;
    }
}

// The plugin starts and listens, but every handshake fails.
void tst_TlsMatrix::unusableServer()
{
    QFETCH(QJsonObject, tls);
    QFETCH(QString, client);
    QFETCH(bool, hasKey);
    QFETCH_GLOBAL(bool, program);
    tls.insert(text("verifyPeer"), false);
    start(tls);
    if (!hasKey) {
        expectRefusal({client, QString()}, {SocketErrorLine + QLatin1Char('*')}, false);
        return;
    }
    // QSslSocket also offers a cipher for pre-shared keys. If the server chooses it, the client
    // gives up, because it has no such key.
    const bool clientGivesUp = !program && client == QLatin1String("1.2");
    int reason = SSL_R_NO_SUITABLE_SIGNATURE_ALGORITHM;
    if (clientGivesUp)
        reason = SSL_R_SSLV3_ALERT_HANDSHAKE_FAILURE;
    else if (client == QLatin1String("1.2"))
        reason = SSL_R_NO_SHARED_CIPHER;
    expectRefusal({client, QString()}, {handshakeErrorLine(reason)}, !clientGivesUp);
}

QTEST_GUILESS_MAIN(tst_TlsMatrix)
#include "tst_tlsmatrix.moc"
