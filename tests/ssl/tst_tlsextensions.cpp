// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/ssl/extensionstest.h"

#include <QtNetwork/QSslCipher>
#include <QtNetwork/QSslEllipticCurve>

using namespace ssltest;

namespace {

QString namesOf(const QList<QSslCipher> &ciphers)
{
    QStringList names;
    for (const QSslCipher &cipher : ciphers)
        names += cipher.name();
    return names.join(u' ');
}

QString needsOwn(const QString &key)
{
    return u"W: SSL: %1 needs \"engine\": \"own\" with this value"_s.arg(key);
}

QString firstName(const QSslCertificate &certificate)
{
    return certificate.subjectInfo(QSslCertificate::CommonName).value(0);
}

} // namespace

// The other keys that readExtensions() reads.
class tst_TlsExtensions : public ExtensionsTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void emptyObject();
    void engine();
    void ownEngineHasThem();
    void qtHasThemNot();
    void chainOfCertificate_data();
    void chainOfCertificate();
    void chainFile();
    void noChainWithoutCertificate();
    void badFiles_data();
    void badFiles();
    void ciphersForQt();
    void ciphersThatQtHasNot_data();
    void ciphersThatQtHasNot();
    void groupsForQt_data();
    void groupsForQt();
    void ownEngineTakesAllAlgorithms();
    void systemAuthorities_data();
    void systemAuthorities();
    void everyFaultHasALine();

private:
    const Identity identity{made::ecKey()};
    const QByteArray certificatePem = made::pem(identity.certificate);
    const QByteArray intermediatePem = made::pem(identity.intermediate);
};

void tst_TlsExtensions::emptyObject()
{
    tls::Settings settings;
    QVERIFY(read({}, settings));
    QVERIFY(settings.base == verifyingDefault());
    QCOMPARE(settings.engine, tls::Engine::Qt);
    QCOMPARE(settings.systemCas, true);
    QCOMPARE(settings.sessionTickets, false);
    QCOMPARE(settings.minimumSecurity, -1);
    QCOMPARE(settings.ciphers + settings.cipherSuites + settings.groups + settings.revoked,
             QByteArray());
}

void tst_TlsExtensions::engine()
{
    for (const bool own : {false, true}) {
        tls::Settings settings;
        QVERIFY(read({{u"engine"_s, own ? u"own"_s : u"qt"_s}}, settings));
        QCOMPARE(settings.engine, own ? tls::Engine::Own : tls::Engine::Qt);
    }
}

void tst_TlsExtensions::ownEngineHasThem()
{
    const QByteArray list = made::revocationList(identity.authorityKey, identity.authority);
    QJsonObject object{{u"engine"_s, u"own"_s},
                       {u"minimumSecurity"_s, 0},
                       {u"sessionTickets"_s, true},
                       {u"CRLFile"_s, file(u"crl"_s, list + list)}};
    tls::Settings settings;
    QVERIFY(read(object, settings));
    QCOMPARE(settings.minimumSecurity, 0);
    QCOMPARE(settings.sessionTickets, true);
    QCOMPARE(settings.revoked, list + list);
}

void tst_TlsExtensions::qtHasThemNot()
{
    tls::Settings settings;
    QVERIFY(!read(
            {{u"minimumSecurity"_s, 0}, {u"sessionTickets"_s, true}, {u"CRLFile"_s, u"/nowhere"_s}},
            settings));
    QCOMPARE(takeLog(),
             QStringList({needsOwn(u"CRLFile"_s), needsOwn(u"minimumSecurity"_s),
                          needsOwn(u"sessionTickets"_s)}));
    // No tickets are what Qt's engine does anyway.
    QVERIFY(read({{u"sessionTickets"_s, false}}, settings));
}

void tst_TlsExtensions::chainOfCertificate_data()
{
    QTest::addColumn<bool>("asFile");
    QTest::addColumn<QJsonValue>("chain");
    QTest::addColumn<qsizetype>("count");
    for (const bool asFile : {false, true}) {
        const char *kind = asFile ? "file" : "text";
        QTest::addRow("%s, absent", kind)
                << asFile << QJsonValue(QJsonValue::Undefined) << qsizetype(1);
        QTest::addRow("%s, false", kind) << asFile << QJsonValue(false) << qsizetype(1);
        QTest::addRow("%s, true", kind) << asFile << QJsonValue(true) << qsizetype(2);
    }
}

void tst_TlsExtensions::chainOfCertificate()
{
    QFETCH(bool, asFile);
    QFETCH(QJsonValue, chain);
    QFETCH(qsizetype, count);
    const QByteArray both = certificatePem + intermediatePem;
    QJsonObject object{{u"CertFile"_s, file(u"certificate"_s, asFile ? both : certificatePem)}};
    if (!asFile)
        object.insert(u"Certificate"_s, QString::fromLatin1(both));
    if (!chain.isUndefined())
        object.insert(u"Chain"_s, chain);
    tls::Settings settings;
    QVERIFY(read(object, settings));
    const auto sent = settings.base.localCertificateChain();
    QCOMPARE(sent.size(), count);
    QCOMPARE(firstName(settings.base.localCertificate()), u"localhost"_s);
    QCOMPARE(firstName(sent.last()), count == 2 ? u"intermediate"_s : u"localhost"_s);
}

// It may begin with the server's certificate, and it takes the place of "Chain".
void tst_TlsExtensions::chainFile()
{
    const QJsonObject object{
            {u"CertFile"_s, file(u"certificate"_s, certificatePem + intermediatePem)},
            {u"Chain"_s, true}};
    for (const QByteArray &before : {QByteArray(), certificatePem}) {
        QJsonObject more = object;
        more.insert(u"ChainFile"_s,
                    file(u"chain"_s, before + intermediatePem + made::pem(identity.authority)));
        tls::Settings settings;
        QVERIFY(read(more, settings));
        QStringList names;
        for (const QSslCertificate &each : settings.base.localCertificateChain())
            names += firstName(each);
        QCOMPARE(names, QStringList({u"localhost"_s, u"intermediate"_s, u"authority"_s}));
    }
}

void tst_TlsExtensions::noChainWithoutCertificate()
{
    const QString chain = file(u"chain"_s, intermediatePem);
    for (const QJsonObject &object :
         {QJsonObject{{u"ChainFile"_s, chain}}, QJsonObject{{u"Chain"_s, true}},
          QJsonObject{{u"ChainFile"_s, chain}, {u"Certificate"_s, u"nonsense"_s}}}) {
        tls::Settings settings;
        QVERIFY(read(object, settings));
        QCOMPARE(takeLog(), QStringList());
        QVERIFY(settings.base.localCertificate().isNull());
        QVERIFY(settings.base.localCertificateChain().size() <= 1);
    }
}

void tst_TlsExtensions::badFiles_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QByteArray>("content"); // null: there is no such file
    QTest::addColumn<QString>("line");
    const QString noChain = u"W: SSL: No certificates, or a broken one, in chain file "_s;
    const QString noList =
            u"W: SSL: No list of revoked certificates, or a broken one, in CRL file "_s;
    QTest::newRow("no chain file")
            << u"ChainFile"_s << QByteArray() << u"W: SSL: Failed to open chain file "_s;
    QTest::newRow("empty chain file") << u"ChainFile"_s << QByteArray("") << noChain;
    QTest::newRow("a key as chain") << u"ChainFile"_s << made::pkcs8(identity.key) << noChain;
    QByteArray broken = intermediatePem;
    broken.replace(100, 20, QByteArray(20, 'A'));
    QTest::newRow("a broken one behind") << u"ChainFile"_s << intermediatePem + broken << noChain;
    QTest::newRow("no CRL file") << u"CRLFile"_s << QByteArray()
                                 << u"W: SSL: Failed to open CRL file "_s;
    QTest::newRow("empty CRL file") << u"CRLFile"_s << QByteArray("") << noList;
    QTest::newRow("a certificate as list") << u"CRLFile"_s << certificatePem << noList;
    QByteArray list = made::revocationList(identity.authorityKey, identity.authority);
    list += QByteArray(list).replace(80, 20, QByteArray(20, 'A'));
    QTest::newRow("a broken list behind") << u"CRLFile"_s << list << noList;
}

void tst_TlsExtensions::badFiles()
{
    QFETCH(QString, key);
    QFETCH(QByteArray, content);
    QFETCH(QString, line);
    const QString name = content.isNull() ? u"/nowhere/file"_s : file(u"file"_s, content);
    tls::Settings settings;
    QVERIFY(!read({{u"engine"_s, u"own"_s}, {key, name}}, settings));
    QCOMPARE(takeLog(), QStringList(line + name));
}

void tst_TlsExtensions::ciphersForQt()
{
    const QString before = namesOf(QSslConfiguration::defaultConfiguration().ciphers());
    const QString suites = u"TLS_AES_128_GCM_SHA256 TLS_AES_256_GCM_SHA384"_s;
    const QString ciphers = u"ECDHE-RSA-AES128-GCM-SHA256 ECDHE-ECDSA-AES128-GCM-SHA256"_s;
    const QJsonValue suitesText = QString(suites).replace(u' ', u':');
    const QJsonValue ciphersText = QString(ciphers).replace(u' ', u':');

    tls::Settings both;
    QVERIFY(read({{u"CipherSuites"_s, suitesText}, {u"Ciphers"_s, ciphersText}}, both));
    QCOMPARE(namesOf(both.base.ciphers()), suites + u' ' + ciphers);
    QCOMPARE(both.cipherSuites, suitesText.toString().toLatin1());
    QCOMPARE(both.ciphers, ciphersText.toString().toLatin1());

    // Of the other version all are left as they were.
    tls::Settings newer;
    QVERIFY(read({{u"CipherSuites"_s, suitesText}}, newer));
    QCOMPARE(namesOf(newer.base.ciphers().mid(0, 2)), suites);
    QVERIFY(before.endsWith(namesOf(newer.base.ciphers().mid(2))));
    QVERIFY(newer.base.ciphers().size() > 20);
    tls::Settings older;
    QVERIFY(read({{u"Ciphers"_s, ciphersText}}, older));
    const auto all = older.base.ciphers();
    QCOMPARE(namesOf(all.mid(all.size() - 2)), ciphers);
    QVERIFY(before.startsWith(namesOf(all.mid(0, all.size() - 2))));
    QVERIFY(all.size() > 3);

    // Qt does not know all that OpenSSL has. It gets those that it knows.
    tls::Settings many;
    QVERIFY(read({{u"Ciphers"_s, u"ALL"_s}}, many));
    QVERIFY(many.base.ciphers().size() > 20);
}

void tst_TlsExtensions::ciphersThatQtHasNot_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("value");
    QTest::newRow("no authentication") << u"Ciphers"_s << u"ADH"_s;
    QTest::newRow("security level") << u"Ciphers"_s << u"HIGH:@SECLEVEL=2"_s;
    QTest::newRow("suite") << u"CipherSuites"_s
                           << u"TLS_AES_128_GCM_SHA256:TLS_AES_128_CCM_SHA256"_s;
    // As one that a later OpenSSL has.
    QTest::newRow("group") << u"Groups"_s << u"X25519:unknown"_s;
}

void tst_TlsExtensions::ciphersThatQtHasNot()
{
    QFETCH(QString, key);
    QFETCH(QString, value);
    tls::Settings settings;
    QVERIFY(!read({{key, value}}, settings));
    QCOMPARE(takeLog(), QStringList(needsOwn(key)));
    QVERIFY(read({{u"engine"_s, u"own"_s}, {key, value}}, settings));
}

void tst_TlsExtensions::groupsForQt_data()
{
    QTest::addColumn<QString>("list");
    QTest::addColumn<QString>("names");
    QTest::newRow("P-256") << u"P-256"_s << u"prime256v1"_s;
    QTest::newRow("all names of one") << u"prime256v1"_s << u"prime256v1"_s;
    QTest::newRow("the name of TLS") << u"secp256r1"_s << u"prime256v1"_s;
    QTest::newRow("order") << u"X25519:P-384:X448:P-521"_s << u"X25519 secp384r1 X448 secp521r1"_s;
}

void tst_TlsExtensions::groupsForQt()
{
    QFETCH(QString, list);
    QFETCH(QString, names);
    tls::Settings settings;
    QVERIFY(read({{u"Groups"_s, list}}, settings));
    QStringList read;
    for (const QSslEllipticCurve &curve : settings.base.ellipticCurves())
        read += curve.shortName();
    QCOMPARE(read.join(u' '), names);
    QCOMPARE(settings.groups, list.toLatin1());
}

void tst_TlsExtensions::ownEngineTakesAllAlgorithms()
{
    tls::Settings settings;
    QVERIFY(read({{u"engine"_s, u"own"_s},
                  {u"Ciphers"_s, u"ALL:@SECLEVEL=0"_s},
                  {u"CipherSuites"_s, u"TLS_AES_128_CCM_SHA256"_s},
                  {u"Groups"_s, u"X25519"_s}},
                 settings));
    QCOMPARE(settings.ciphers, QByteArray("ALL:@SECLEVEL=0"));
    QCOMPARE(settings.cipherSuites, QByteArray("TLS_AES_128_CCM_SHA256"));
    QCOMPARE(settings.groups, QByteArray("X25519"));
    QVERIFY(settings.base == verifyingDefault());
}

void tst_TlsExtensions::systemAuthorities_data()
{
    QTest::addColumn<QJsonObject>("keys");
    QTest::addColumn<bool>("system");
    QTest::addColumn<qsizetype>("own");
    const QJsonObject none;
    const QJsonObject fromFile{{u"CAFile"_s, certificateFile(u"ca.pem"_s)}};
    const QJsonObject fromText{{u"CACertificate"_s, certificateText(u"ca.pem"_s)}};
    const QJsonObject broken{{u"CACertificate"_s, u"nonsense"_s}};
    const auto with = [](QJsonObject object, bool value) {
        object.insert(u"systemCAs"_s, value);
        return object;
    };
    QTest::newRow("none") << none << true << qsizetype(0);
    QTest::newRow("file") << fromFile << false << qsizetype(1);
    QTest::newRow("text") << fromText << false << qsizetype(1);
    QTest::newRow("broken") << broken << false << qsizetype(1); // a null certificate
    QTest::newRow("none, no system") << with(none, false) << false << qsizetype(0);
    QTest::newRow("file, no system") << with(fromFile, false) << false << qsizetype(1);
    QTest::newRow("broken, no system") << with(broken, false) << false << qsizetype(1);
    QTest::newRow("none, system") << with(none, true) << true << qsizetype(0);
    QTest::newRow("file, system") << with(fromFile, true) << true << qsizetype(1);
}

void tst_TlsExtensions::systemAuthorities()
{
    QFETCH(QJsonObject, keys);
    QFETCH(bool, system);
    QFETCH(qsizetype, own);
    tls::Settings settings;
    QVERIFY(read(keys, settings));
    QCOMPARE(settings.systemCas, system);
    const bool said = keys.contains(u"systemCAs"_s);
    // Qt's default list; it is empty where Qt looks the system's up when it needs them.
    const qsizetype byDefault = QSslConfiguration::defaultConfiguration().caCertificates().size();
    qsizetype expected = own + (said && !system ? 0 : byDefault);
    if (said && system && own > 0)
        expected += QSslConfiguration::systemCaCertificates().size();
    QCOMPARE(settings.base.caCertificates().size(), expected);

    // Equal only if Qt may look them up in both.
    QSslConfiguration same = QSslConfiguration::defaultConfiguration();
    same.setPeerVerifyMode(QSslSocket::VerifyPeer);
    QCOMPARE(settings.base == same, own == 0 && system);
}

void tst_TlsExtensions::everyFaultHasALine()
{
    tls::Settings settings;
    QVERIFY(!read({{u"KeyAlgorithm"_s, u"auto"_s},
                   {u"PrivateKey"_s, u"nonsense"_s},
                   {u"ChainFile"_s, u"/nowhere/a"_s},
                   {u"sessionTickets"_s, true},
                   {u"Ciphers"_s, u"ADH"_s}},
                  settings));
    QCOMPARE(takeLog(),
             QStringList({needsOwn(u"sessionTickets"_s),
                          u"W: SSL: PrivateKey cannot be used: there is no private key in PEM"_s,
                          u"W: SSL: Failed to open chain file /nowhere/a"_s,
                          needsOwn(u"Ciphers"_s)}));
}

QTEST_GUILESS_MAIN(tst_TlsExtensions)
#include "tst_tlsextensions.moc"
