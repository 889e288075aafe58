// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/tlschecks.h"
#include "tests/kit/certificatemaker.h"

#include <QtCore/QDateTime>
#include <QtCore/QFile>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

#include <sys/stat.h>

using namespace host;
using namespace Qt::StringLiterals;

// What the host says of "ssl" by itself.
class tst_TlsChecks : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void refusesSystemAuthorities_data();
    void refusesSystemAuthorities();
    void nothingToSay_data();
    void nothingToSay();
    void expiry_data();
    void expiry();
    void otherKey_data();
    void otherKey();
    void chains_data();
    void chains();
    void whereTheyAreFrom();
    void expiryOfTheChain();
    void onlyRegularFilesAreRead_data();
    void onlyRegularFilesAreRead();

private:
    using Authority = made::Authority;

    QString file(const QString &name, const QByteArray &content) const
    {
        QString path = folder.filePath(name);
        QFile written(path);
        if (!written.open(QIODevice::WriteOnly) || written.write(content) != content.size())
            qFatal("Cannot write a file");
        return path;
    }
    QStringList warnings(const QByteArray &certificates, const QByteArray &keyText) const
    {
        return certificateWarnings({{u"Certificate"_s, QString::fromLatin1(certificates)},
                                    {u"PrivateKey"_s, QString::fromLatin1(keyText)},
                                    {u"Chain"_s, true}},
                                   QDateTime::currentDateTimeUtc());
    }

    const QTemporaryDir folder;
    const made::Key key = made::ecKey();
    const made::Key authorityKey = made::ecKey();
    const made::Certificate root =
            made::certificate("root", authorityKey, Authority{authorityKey, nullptr}, true);
    const made::Certificate middle =
            made::certificate("middle", authorityKey, Authority{authorityKey, &root}, true);
    const made::Certificate leaf = made::certificate("leaf", key, Authority{authorityKey, &middle});
};

void tst_TlsChecks::refusesSystemAuthorities_data()
{
    QTest::addColumn<QByteArray>("ssl"); // none: no such key
    QTest::addColumn<bool>("refused");
    const auto row = [](const char *ssl, bool refused) {
        QTest::newRow(ssl) << QByteArray(ssl) << refused;
    };
    row("", false);
    row("{}", true);
    row(R"({"verifyPeer": true})", true);
    row(R"({"verifyPeer": false})", false);
    row(R"({"verifyPeer": "true"})", false); // to the plugin that is false
    row(R"({"CAFile": "x"})", false);
    row(R"({"CACertificate": "x", "verifyPeer": true})", false);
    row(R"({"systemCAs": true})", false);
    row(R"({"systemCAs": false})", true);
    row(R"({"systemCAs": 1})", true);
    row("true", true); // to the plugin that is an empty object
}

void tst_TlsChecks::refusesSystemAuthorities()
{
    QFETCH(QByteArray, ssl);
    QFETCH(bool, refused);
    const QByteArray text = ssl.isEmpty() ? QByteArray("{}") : "{\"ssl\": " + ssl + '}';
    const QString refusal = tlsRefusal(QJsonDocument::fromJson(text).object());
    QCOMPARE(!refusal.isEmpty(), refused);
    QCOMPARE(refusal.contains(u"\"systemCAs\": true"_s), refused);
}

void tst_TlsChecks::nothingToSay_data()
{
    QTest::addColumn<QByteArray>("certificates");
    QTest::addColumn<QByteArray>("keyText");
    QTest::newRow("good") << made::pem(leaf) << made::pkcs8(key);
    QTest::newRow("with its chain")
            << made::pem(leaf) + made::pem(middle) + made::pem(root) << made::pkcs8(key);
    QTest::newRow("traditional key") << made::pem(leaf) << made::traditional(key);
    const made::Certificate self = made::certificate("self", key, Authority{key, nullptr});
    QTest::newRow("self-signed") << made::pem(self) << made::pkcs8(key);
    const made::Key ed25519 = made::ed25519Key();
    QTest::newRow("Ed25519") << made::pem(made::certificate("ed", ed25519, {ed25519, nullptr}))
                             << made::pkcs8(ed25519);
    // The plugin says what it thinks of these.
    QTest::newRow("nothing") << QByteArray() << QByteArray();
    QTest::newRow("no certificate") << QByteArray() << made::pkcs8(key);
    QTest::newRow("no key") << made::pem(leaf) << QByteArray("nonsense");
    QTest::newRow("a pass phrase") << made::pem(leaf) << made::pkcs8(authorityKey, "phrase");
}

void tst_TlsChecks::nothingToSay()
{
    QFETCH(QByteArray, certificates);
    QFETCH(QByteArray, keyText);
    QCOMPARE(warnings(certificates, keyText), QStringList());
}

void tst_TlsChecks::expiry_data()
{
    QTest::addColumn<int>("days");
    QTest::addColumn<QString>("text"); // none: no warning
    QTest::newRow("long") << 31 << QString();
    QTest::newRow("a month") << 29 << u"Certificate %1 expires on %2"_s;
    QTest::newRow("a day") << 1 << u"Certificate %1 expires on %2"_s;
    QTest::newRow("over") << -1 << u"Certificate %1 has expired on %2"_s;
}

void tst_TlsChecks::expiry()
{
    QFETCH(int, days);
    QFETCH(QString, text);
    constexpr long Day = 24L * 3600;
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const made::Certificate short1 =
            made::certificate("short", key, Authority{key, nullptr}, false, days * Day);
    const QStringList lines = warnings(made::pem(short1), made::pkcs8(key));
    if (text.isEmpty()) {
        QCOMPARE(lines, QStringList());
        return;
    }
    QCOMPARE(lines.size(), 1);
    // The day could have changed since the certificate was made.
    const QDateTime end = now.addDays(days);
    const QString before = text.arg(u"short"_s, end.toString(u"yyyy-MM-dd"_s));
    const QString after = text.arg(u"short"_s, end.addSecs(60).toString(u"yyyy-MM-dd"_s));
    QVERIFY2(lines[0] == before || lines[0] == after, qPrintable(lines[0]));
}

void tst_TlsChecks::otherKey_data()
{
    QTest::addColumn<QByteArray>("keyText");
    QTest::newRow("EC") << made::pkcs8(authorityKey);
    QTest::newRow("RSA") << made::pkcs8(made::rsaKey());
    QTest::newRow("Ed25519") << made::pkcs8(made::ed25519Key());
}

void tst_TlsChecks::otherKey()
{
    QFETCH(QByteArray, keyText);
    QCOMPARE(warnings(made::pem(leaf), keyText),
             QStringList(u"Certificate leaf does not match the private key"_s));
}

void tst_TlsChecks::chains_data()
{
    QTest::addColumn<QByteArray>("chain");
    QTest::addColumn<QString>("warning");
    const QByteArray first = made::pem(middle);
    const QByteArray second = made::pem(root);
    QTest::newRow("wrong order")
            << second + first
            << u"Certificate leaf is followed by root in its chain, which has not issued it"_s;
    QTest::newRow("issuer missing")
            << second << u"Certificate leaf has an issuer that is not in its chain"_s;
    QTest::newRow("another authority's")
            << first + made::pem(made::certificate("foreign", key, Authority{key, nullptr}, true))
            << u"Certificate middle has an issuer that is not in its chain"_s;
    QTest::newRow("begins with the certificate") << made::pem(leaf) + first + second << QString();
    QTest::newRow("empty") << QByteArray() << QString();
}

void tst_TlsChecks::chains()
{
    QFETCH(QByteArray, chain);
    QFETCH(QString, warning);
    const QStringList expected = warning.isEmpty() ? QStringList() : QStringList(warning);
    const QJsonObject object{{u"Certificate"_s, QString::fromLatin1(made::pem(leaf))},
                             {u"ChainFile"_s, file(u"chain"_s, chain)}};
    QCOMPARE(certificateWarnings(object, QDateTime::currentDateTimeUtc()), expected);

    // As a part of the certificate's own text.
    QCOMPARE(warnings(made::pem(leaf) + chain, made::pkcs8(key)), expected);
}

// Texts win over files, and "ChainFile" over "Chain".
void tst_TlsChecks::whereTheyAreFrom()
{
    QJsonObject object{{u"CertFile"_s, file(u"certificate"_s, made::pem(leaf) + made::pem(root))},
                       {u"KeyFile"_s, file(u"key"_s, made::pkcs8(authorityKey, "phrase"))},
                       {u"KeyPassphraseFile"_s, file(u"phrase"_s, "phrase\n")},
                       {u"Chain"_s, true}};
    const QDateTime now = QDateTime::currentDateTimeUtc();
    QCOMPARE(certificateWarnings(object, now),
             QStringList({u"Certificate leaf does not match the private key"_s,
                          u"Certificate leaf has an issuer that is not in its chain"_s}));
    object.insert(u"ChainFile"_s, file(u"chain"_s, made::pem(middle)));
    object.insert(u"PrivateKey"_s, QString::fromLatin1(made::pkcs8(key)));
    QCOMPARE(certificateWarnings(object, now), QStringList());
    object.remove(u"ChainFile"_s);
    object.insert(u"Chain"_s, false);
    QCOMPARE(certificateWarnings(object, now), QStringList());
    object.insert(u"Certificate"_s, QString::fromLatin1(made::pem(root)));
    QCOMPARE(certificateWarnings(object, now),
             QStringList(u"Certificate root does not match the private key"_s));
    object.insert(u"CertFile"_s, u"/nowhere"_s);
    object.insert(u"Certificate"_s, QJsonValue());
    QCOMPARE(certificateWarnings(object, now), QStringList());
}

void tst_TlsChecks::expiryOfTheChain()
{
    const made::Certificate old =
            made::certificate("old", authorityKey, Authority{authorityKey, &root}, true, -100);
    const made::Certificate issued = made::certificate("leaf", key, Authority{authorityKey, &old});
    const QStringList lines = warnings(made::pem(issued) + made::pem(old), made::pkcs8(key));
    QCOMPARE(lines.size(), 1);
    QVERIFY2(lines[0].startsWith(u"Certificate old has expired on "_s), qPrintable(lines[0]));
}

void tst_TlsChecks::onlyRegularFilesAreRead_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("isRead");
    file(u"regular"_s, made::pem(leaf));
    QVERIFY(QFile::link(u"regular"_s, folder.filePath(u"link"_s)));
    QVERIFY(::mkfifo(qPrintable(folder.filePath(u"fifo"_s)), 0600) == 0);
    QVERIFY(QFile::link(u"fifo"_s, folder.filePath(u"link to fifo"_s)));
    QVERIFY(QFile::link(u"nowhere"_s, folder.filePath(u"broken link"_s)));
    QTest::newRow("regular") << u"regular"_s << true;
    QTest::newRow("link") << u"link"_s << true;
    QTest::newRow("FIFO") << u"fifo"_s << false;
    QTest::newRow("link to a FIFO") << u"link to fifo"_s << false;
    QTest::newRow("broken link") << u"broken link"_s << false;
    QTest::newRow("folder") << u"."_s << false;
}

// Nobody writes to that FIFO: reading it would never end.
void tst_TlsChecks::onlyRegularFilesAreRead()
{
    QFETCH(QString, name);
    QFETCH(bool, isRead);
    const QString path = folder.filePath(name);
    const QStringList lines =
            certificateWarnings({{u"CertFile"_s, path},
                                 {u"PrivateKey"_s, QString::fromLatin1(made::pkcs8(authorityKey))}},
                                QDateTime::currentDateTimeUtc());
    QCOMPARE(lines.size(), isRead ? 1 : 0);
    const QByteArray nothing = fingerprintOfFiles({});
    for (const char *each :
         {"CAFile", "CRLFile", "CertFile", "ChainFile", "KeyFile", "KeyPassphraseFile"}) {
        const QByteArray some = fingerprintOfFiles({{QLatin1String(each), path}});
        QCOMPARE(some != nothing, isRead);
    }
}

QTEST_GUILESS_MAIN(tst_TlsChecks)
#include "tst_tlschecks.moc"
