// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "natstest.h"
#include "tests/kit/certificatemaker.h"

using namespace natstest;

namespace {

void addSubject(made::Certificate &certificate, const made::Key &issuer, const QByteArray &names)
{
    X509_EXTENSION *extension =
            X509V3_EXT_conf_nid(nullptr, nullptr, NID_subject_alt_name, names.constData());
    X509_add_ext(certificate.get(), extension, -1);
    X509_EXTENSION_free(extension);
    made::sign(certificate.get(), issuer);
}

} // namespace

/*!
    Servers that speak TLS.
*/
class tst_NatsTls : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void givesUpServerThatStandsStill();
    void refusesServer_data();
    void refusesServer();
    void withoutCertificate();

private:
    QString file(const QString &name) const { return folder.filePath(name); }
    void write(const QString &name, const QByteArray &content) const
    {
        QFile written(file(name));
        QVERIFY(written.open(QIODevice::WriteOnly) && written.write(content) == content.size());
    }
    // NAME.pem and NAME.key.
    void issue(const char *name, const QByteArray &names, const made::Authority &issuer) const
    {
        const made::Key key = made::ecKey();
        made::Certificate certificate = made::certificate(name, key, issuer);
        addSubject(certificate, issuer.key, names);
        write(QString::fromLatin1(name) + QStringLiteral(".pem"), made::pem(certificate));
        write(QString::fromLatin1(name) + QStringLiteral(".key"), made::pkcs8(key));
    }
    // A server with that certificate, for one user with a certificate of his own.
    QByteArray configuration(const char *name) const
    {
        return QStringLiteral("tls { cert_file: \"%1.pem\", key_file: \"%1.key\", ca_file: "
                              "\"%2\", verify: true }\n"
                              "authorization { user: me, password: secret }\n")
                .arg(file(QString::fromLatin1(name)), file(QStringLiteral("ca.pem")))
                .toUtf8();
    }
    NatsSettings settings(const NatsServer &server) const
    {
        NatsSettings settings = settingsFor(server);
        settings.user = QStringLiteral("me");
        settings.password = QStringLiteral("secret");
        settings.caFile = file(QStringLiteral("ca.pem"));
        settings.certificateFile = file(QStringLiteral("device.pem"));
        settings.keyFile = file(QStringLiteral("device.key"));
        settings.replicas = 1;
        return settings;
    }

    const QTemporaryDir folder;
};

void tst_NatsTls::initTestCase()
{
    const QByteArray address = "IP:" + testAddress().toString().toLatin1();
    const made::Key key = made::ecKey();
    const made::Certificate root = made::certificate("root", key, {key, nullptr}, true);
    const made::Key foreignKey = made::ecKey();
    const made::Certificate foreign =
            made::certificate("foreign", foreignKey, {foreignKey, nullptr}, true);
    write(QStringLiteral("ca.pem"), made::pem(root));
    issue("server", address, {key, &root});
    issue("device", "DNS:device", {key, &root});
    issue("other", "IP:192.0.2.1,DNS:localhost", {key, &root});
    issue("stranger", address, {foreignKey, &foreign});
}

// The server stands still: the kernel takes no more, and the store gives it up instead of waiting
// for ever.
void tst_NatsTls::givesUpServerThatStandsStill()
{
    NatsServer server(configuration("server"));
    server.start();
    const MessageCapture capture;
    const NatsSettings options = settings(server);
    Storing storing(options);
    QCOMPARE(storing.store.open(), QString());
    storing.add(300, 2);
    QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), HangGuardMs);
    server.suspend();
    Batch batch;
    Origin origin;
    for (quint64 connection = 1001; connection <= 1200; ++connection) {
        origin.connection = connection;
        batch.add({origin, {}, QByteArray(100000, 'x'), 0, 100001});
    }
    storing.give(std::move(batch));
    storing.add(300, 2);
    storing.add(300, 2);
    QSignalSpy lost(storing.store.findChild<NatsLink *>(), &NatsLink::lost);
    QTRY_VERIFY_WITH_TIMEOUT(!lost.isEmpty(), HangGuardMs);
    server.resume();
    QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), LoadHangGuardMs);
    QVERIFY(storing.isInOrder);

    const Reader reader(server, "me", "secret", [&options](natsOptions *target) {
        natsOptions_LoadCATrustedCertificates(target, options.caFile.toLatin1().constData());
        natsOptions_LoadCertificatesChain(target, options.certificateFile.toLatin1().constData(),
                                          options.keyFile.toLatin1().constData());
    });
    auto stored = reader.byConnection();
    for (int connection = 1001; connection <= 1200; ++connection) {
        const QByteArray number = QByteArray::number(connection);
        QCOMPARE(stored[number].size(), 1);
        stored.erase(number);
    }
    QCOMPARE(stored.size(), size_t(300));
    for (const auto &[connection, messages] : stored)
        QCOMPARE(messages.size(), 6);
}

void tst_NatsTls::refusesServer_data()
{
    QTest::addColumn<QByteArray>("certificate");
    QTest::newRow("for another address") << QByteArray("other");
    QTest::newRow("of another authority") << QByteArray("stranger");
}

void tst_NatsTls::refusesServer()
{
    QFETCH(const QByteArray, certificate);
    NatsServer server(configuration(certificate.constData()));
    server.start();
    const MessageCapture capture;
    Storing storing(settings(server));
    QSignalSpy lost(storing.store.findChild<NatsLink *>(), &NatsLink::lost);
    QCOMPARE(storing.store.open(), QString());
    storing.add(1, 1);
    QTRY_VERIFY_WITH_TIMEOUT(lost.count() >= 2, HangGuardMs);
    QCOMPARE(storing.messages, 0);
    const QStringList lines = takeLog();
    QCOMPARE(lines.size(), 1);
    QVERIFY2(lines.first().contains(QStringLiteral("messages wait: ")), qPrintable(lines.first()));
    QVERIFY(!lines.first().contains(QStringLiteral("secret")));
}

void tst_NatsTls::withoutCertificate()
{
    NatsServer server(configuration("server"));
    server.start();
    const MessageCapture capture;
    NatsSettings options = settings(server);
    options.certificateFile.clear();
    options.keyFile.clear();
    Storing storing(options);
    QSignalSpy lost(storing.store.findChild<NatsLink *>(), &NatsLink::lost);
    QCOMPARE(storing.store.open(), QString());
    storing.add(1, 1);
    QTRY_VERIFY_WITH_TIMEOUT(lost.count() >= 2, HangGuardMs);
    QCOMPARE(storing.messages, 0);
    QVERIFY(!takeLog().isEmpty());
}

QTEST_GUILESS_MAIN(tst_NatsTls)
#include "tst_natstls.moc"
