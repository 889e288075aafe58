// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/exitcodes.h"
#include "tests/host/inputhosttest.h"
#include "tests/kit/certificatemaker.h"

#include <QtNetwork/QTcpServer>
#include <QtTest/QtTest>

using namespace host;
using namespace inputhosttest;

namespace {

made::Certificate selfSigned(const char *subject, const made::Key &key,
                             long seconds = 100L * 24 * 3600)
{
    return made::certificate(subject, key, made::Authority{key, nullptr}, false, seconds);
}

} // namespace

// --check-config, --print-config and --print-schema.
class tst_InputHostCheck : public InputHostTest
{
    Q_OBJECT

private Q_SLOTS:
    void goodOnes();
    void unreadable();
    void keysAndValues_data();
    void keysAndValues();
    void certificates_data();
    void certificates();
    void whatADeviceSays();
    void portInUse();
    void nobodyIsServed();
    void oneTaskAtATime();
    void originOfValues();
    void secretsStayHidden();
    void schemaMayBeNamed();

private:
    // Runs the program, and returns its exit code.
    int check(Host &host, const QByteArray &configuration, const QStringList &more = {}) const
    {
        const QString name = file(QStringLiteral("checked.json"), configuration);
        QStringList arguments = {QStringLiteral("--check-config"), QStringLiteral("--config"),
                                 name};
        arguments += more;
        host.runPlain(arguments + host.listenArguments());
        return host.finish();
    }
};

void tst_InputHostCheck::goodOnes()
{
    Host host;
    QCOMPARE(check(host, "{}"), int(ExitOk));
    QCOMPARE(host.output(), QByteArray("The configuration is good.\n"));
    QCOMPARE(host.log(), QByteArray());
}

void tst_InputHostCheck::unreadable()
{
    Host missing;
    missing.runPlain({QStringLiteral("--check-config"), QStringLiteral("--config"),
                      folder.filePath(QStringLiteral("none"))});
    QCOMPARE(missing.finish(), int(ExitBadConfiguration));
    QVERIFY(missing.output().contains("error: Cannot read "));
    Host broken;
    QCOMPARE(check(broken, "{\"port\": }"), int(ExitBadConfiguration));
    QVERIFY(broken.output().contains("is not JSON"));
}

void tst_InputHostCheck::keysAndValues_data()
{
    QTest::addColumn<QByteArray>("configuration");
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArray>("line");
    const auto row = [](const char *name, const char *configuration, int code, const char *line) {
        QTest::newRow(name) << QByteArray(configuration) << code << QByteArray(line);
    };
    row("unknown", R"({"Port": 1})", ExitBadConfiguration, "Did you mean port?\n");
    row("unknown, nothing near", R"({"colour": 1})", ExitBadConfiguration,
        "error: unknown key colour, accepted: ");
    row("in an object", R"({"limits": {"totalbuffer": 1}})", ExitBadConfiguration,
        "Did you mean limits.totalBuffer?\n");
    row("elsewhere", R"({"CertFile": "x"})", ExitBadConfiguration, "Did you mean ssl.CertFile?\n");
    row("also without strict", R"({"strict": false, "Port": 1})", ExitBadConfiguration,
        "Did you mean port?\n");
    row("type", R"({"timeout": "60"})", ExitBadConfiguration,
        "error: timeout is \"60\", accepted: 1 to 2147483647\n");
    row("object", R"({"limits": 1})", ExitBadConfiguration,
        "error: limits is 1, accepted: an object\n");
    row("no CA", R"({"ssl": {}})", ExitBadConfiguration,
        "error: \"ssl\" verifies devices, but names no CA.");
}

void tst_InputHostCheck::keysAndValues()
{
    QFETCH(QByteArray, configuration);
    QFETCH(QByteArray, line);
    Host host;
    QTEST(check(host, configuration), "code");
    QVERIFY2(host.output().contains(line), host.output().constData());
    QVERIFY(host.output().endsWith("The configuration is not good.\n"));
}

void tst_InputHostCheck::certificates_data()
{
    QTest::addColumn<QByteArray>("ssl");
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArray>("line");
    const made::Key key = made::ecKey();
    const QByteArray good =
            file(QStringLiteral("good.pem"), made::pem(selfSigned("good", key))).toUtf8();
    const QByteArray goodKey = file(QStringLiteral("good.key"), made::pkcs8(key)).toUtf8();
    const QByteArray otherKey =
            file(QStringLiteral("other.key"), made::pkcs8(made::ecKey())).toUtf8();
    const QByteArray empty = file(QStringLiteral("empty"), {}).toUtf8();
    const auto row = [](const char *name, const QByteArray &certificate, const QByteArray &keyFile,
                        int code, const char *line) {
        QTest::newRow(name) << R"({"ssl": {"verifyPeer": false, "CertFile": ")" + certificate
                        + R"(", "KeyFile": ")" + keyFile + R"("}})"
                            << code << QByteArray(line);
    };
    row("good", good, goodKey, ExitOk, "note: Certificate good is for no name and ends on ");
    row("no file", "/none", goodKey, ExitBadCertificates,
        "error: SSL: Failed to open Certificate file /none\n");
    row("no key", good, "/none", ExitBadCertificates,
        "error: SSL: Failed to open key file /none\n");
    row("not a certificate", empty, goodKey, ExitBadCertificates,
        "error: There is no certificate: no device can connect\n");
    row("not a key", good, empty, ExitBadCertificates,
        "error: There is no private key that can be read\n");
    const QByteArray old =
            file(QStringLiteral("old.pem"), made::pem(selfSigned("old", key, -60))).toUtf8();
    row("expired", old, goodKey, ExitBadCertificates,
        "error: Certificate old is not valid now: devices refuse it\n");
    row("another's key", good, otherKey, ExitBadCertificates,
        "error: Certificate good does not match the private key\n");
}

void tst_InputHostCheck::certificates()
{
    QFETCH(QByteArray, ssl);
    QFETCH(QByteArray, line);
    Host host;
    QTEST(check(host, ssl), "code");
    QVERIFY2(host.output().contains(line), host.output().constData());
}

void tst_InputHostCheck::whatADeviceSays()
{
    const made::Key key = made::ecKey();
    const QByteArray name =
            file(QStringLiteral("self.pem"), made::pem(selfSigned("self", key))).toUtf8();
    const QByteArray keyName = file(QStringLiteral("self.key"), made::pkcs8(key)).toUtf8();
    Host host;
    QCOMPARE(check(host,
                   R"({"ssl": {"verifyPeer": false, "CertFile": ")" + name + R"(", "KeyFile": ")"
                           + keyName + R"("}})"),
             int(ExitOk));
    // OpenSSL's words follow.
    QVERIFY2(host.output().contains("A device that trusts the system's CAs says: "),
             host.output().constData());
}

void tst_InputHostCheck::portInUse()
{
    QTcpServer other;
    QVERIFY(other.listen(testAddress()));
    Host host(other.serverPort());
    QCOMPARE(check(host, "{}"), int(ExitNotListening));
    QVERIFY2(host.output().contains(" cannot be had: "), host.output().constData());
}

// It does not take a connection that is meant for the program that listens.
void tst_InputHostCheck::nobodyIsServed()
{
    Host running;
    running.start();
    Host host(running.port);
    QCOMPARE(check(host, "{}"), int(ExitNotListening));
    Device device(running);
    device.send("one\n");
    QTRY_VERIFY_WITH_TIMEOUT(running.output().contains("\"text\":\"one\""), HangGuardMs);
}

void tst_InputHostCheck::oneTaskAtATime()
{
    Host host;
    host.runPlain(words("--check-config --print-config"));
    QCOMPARE(host.finish(), int(ExitBadArguments));
}

void tst_InputHostCheck::originOfValues()
{
    Host host;
    const QString name = file(QStringLiteral("origins.json"),
                              R"({"timeout": 5, "limits": {"totalBuffer": 7}, "port": 9})");
    host.runPlain({QStringLiteral("--print-config"), QStringLiteral("--config"), name,
                   QStringLiteral("--set"), QStringLiteral("port=10")});
    QCOMPARE(host.finish(), int(ExitOk));
    const QStringList lines = QString::fromUtf8(host.output())
                                      .simplified()
                                      .replace(name, QStringLiteral("FILE"))
                                      .split(QStringLiteral(" "));
    const QString text = lines.join(u' ');
    QVERIFY2(text.contains(QStringLiteral("timeout 5 FILE")), qPrintable(text));
    QVERIFY2(text.contains(QStringLiteral("limits.totalBuffer 7 FILE")), qPrintable(text));
    QVERIFY2(text.contains(QStringLiteral("port 10 --set")), qPrintable(text));
    QVERIFY2(text.contains(QStringLiteral("offsets true inputhost")), qPrintable(text));
    QVERIFY2(text.contains(QStringLiteral("threadpoolSize 4 default")), qPrintable(text));
    // Whoever gives "limits" gives all of them, but for what the kit adds.
    QVERIFY2(!text.contains(QStringLiteral("stalledTimeout")), qPrintable(text));
}

void tst_InputHostCheck::secretsStayHidden()
{
    Host host;
    const QByteArray key = made::pkcs8(made::ecKey());
    const QJsonObject ssl{{QStringLiteral("PrivateKey"), QString::fromLatin1(key)}};
    const QString name = file(QStringLiteral("secret.json"),
                              QJsonDocument(QJsonObject{{QStringLiteral("ssl"), ssl}}).toJson());
    host.runPlain({QStringLiteral("--print-config"), QStringLiteral("--config"), name});
    QCOMPARE(host.finish(), int(ExitOk));
    QVERIFY(host.output().contains("a text of "));
    QVERIFY(!host.output().contains(key.mid(40, 20)));
}

void tst_InputHostCheck::schemaMayBeNamed()
{
    Host host;
    QCOMPARE(check(host, R"({"$schema": "inputhost.schema.json"})"), int(ExitOk));
}

QTEST_GUILESS_MAIN(tst_InputHostCheck)
#include "tst_inputhostcheck.moc"
