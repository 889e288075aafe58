// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/nats/natsanswers.h"
#include "host/sinks/nats/natssettings.h"
#include "host/sinks/nats/subjecttemplate.h"

#include <QtTest/QtTest>

using namespace host;

/*!
    What needs no server: addresses, subjects, answers.
*/
class tst_NatsParts : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void address_data();
    void address();
    void badAddress_data();
    void badAddress();
    void subject_data();
    void subject();
    void badSubject_data();
    void badSubject();
    void answers();
    void headers();
};

void tst_NatsParts::address_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QStringList>("servers");
    QTest::addColumn<QString>("user");
    QTest::addColumn<QString>("password");
    const auto row = [](const char *text, const char *servers, const char *user = "",
                        const char *password = "") {
        QTest::newRow(text) << QString::fromLatin1(text) << QString::fromLatin1(servers).split(u' ')
                            << QString::fromLatin1(user) << QString::fromLatin1(password);
    };
    row("broker/S", "broker:4222");
    row("broker:1234/S", "broker:1234");
    row("a,b:5,192.0.2.1/S", "a:4222 b:5 192.0.2.1:4222");
    row("[::1]:5,[2001:db8::1]/S", "[::1]:5 [2001:db8::1]:4222");
    row("me:secret@a,b/S", "a:4222 b:4222", "me", "secret");
    row("m%40e:se%2Fcr%3Aet@a/S", "a:4222", "m@e", "se/cr:et");
    row("token@a/S", "a:4222", "token");
    row("me:@a/S", "a:4222", "me");
}

void tst_NatsParts::address()
{
    QFETCH(QString, text);
    NatsSettings settings;
    QCOMPARE(readNatsAddress(text, settings), QString());
    QTEST(settings.servers, "servers");
    QTEST(settings.user, "user");
    QTEST(settings.password, "password");
    QCOMPARE(settings.password.isNull(), !text.contains(u'@') || !text.contains(u":"));
    QCOMPARE(settings.stream, QStringLiteral("S"));
}

void tst_NatsParts::badAddress_data()
{
    QTest::addColumn<QString>("text");
    for (const char *text :
         {"", "broker", "broker/", "/S", "broker:x/S", "broker:0x1/S", "broker:99999/S", "a,,b/S",
          "a b/S", "a?x=secret/S", "a/x/S", "broker/a.b", "broker/a*", "broker/a>", "broker/a b",
          "u:secret@/S", "u:secret@a:x/S"})
        QTest::newRow(text) << QString::fromLatin1(text);
}

void tst_NatsParts::badAddress()
{
    QFETCH(QString, text);
    NatsSettings settings;
    const QString error = readNatsAddress(text, settings);
    QVERIFY(!error.isEmpty());
    QVERIFY(!error.contains(QStringLiteral("secret")));
}

void tst_NatsParts::subject_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QByteArray>("expected");
    QTest::addColumn<QString>("pattern");
    const auto row = [](const char *text, const char *expected, const char *pattern) {
        QTest::newRow(text) << QString::fromLatin1(text) << QByteArray(expected)
                            << QString::fromLatin1(pattern);
    };
    row("dev", "dev", "dev");
    row("dev.{connection}", "dev.12", "dev.*");
    row("a.{peer}.b.{port}", "a.192%2E0%2E2%2E1.b.99", "a.*.b.*");
    row("{stream}.{source}", "S.tcp://%20%25%2A%3E", "S.*");
    row("x{connection}y{port}.{client}", "x12y99.-", "*.*");
    row("a.{epoch}.{plugin}", "a.0e.tcp%0A", "a.*.*");
}

void tst_NatsParts::subject()
{
    QFETCH(QString, text);
    Origin origin;
    origin.connection = 12;
    origin.peer = QStringLiteral("192.0.2.1");
    origin.port = 99;
    origin.source = QStringLiteral("tcp:// %*>");
    origin.plugin = QStringLiteral("tcp\n");
    SubjectTemplate subject;
    const QString error = subject.read(text, QStringLiteral("S"), "0e");
    if (!text.startsWith(u'x')) // its first word is a wildcard
        QCOMPARE(error, QString());
    QTEST(subject.subjectOf(origin), "expected");
    QTEST(subject.pattern(), "pattern");
}

void tst_NatsParts::badSubject_data()
{
    QTest::addColumn<QString>("text");
    for (const char *text :
         {"", ".", "a..b", ".a", "a.", "a b", "a.*", "a.>", "a.{nothing}", "a.{peer", "a.peer}",
          "a.{}", "{peer}", "{peer}x.a", "$JS.a", "_INBOX.a", "a\tb"})
        QTest::newRow(text) << QString::fromLatin1(text);
}

void tst_NatsParts::badSubject()
{
    QFETCH(QString, text);
    SubjectTemplate subject;
    QVERIFY(!subject.read(text, QStringLiteral("S"), "0e").isEmpty());
}

void tst_NatsParts::answers()
{
    const StreamAnswer stored = readStreamAnswer(R"({"stream":"S", "seq":7,"duplicate": true})");
    QCOMPARE(stored.errorCode, 0);
    QCOMPARE(stored.sequence, quint64(7));

    const StreamAnswer refused = readStreamAnswer(
            R"({"error":{"code":400,"err_code":10077,"description":"full"},"stream":"S","seq":0})");
    QCOMPARE(refused.errorCode, 10077);
    QCOMPARE(refused.error, QStringLiteral("full"));

    const StreamAnswer info =
            readStreamAnswer(R"({"created":"now","state":{"messages":2,"last_seq":90}})");
    QCOMPARE(info.errorCode, 0);
    QCOMPARE(info.sequence, quint64(90));
    QCOMPARE(info.created, QStringLiteral("now"));

    const StreamAnswer message =
            readStreamAnswer(R"({"message":{"seq":5,"hdrs":")"
                             + QByteArray("H\r\nA: b\r\n\r\n").toBase64() + R"("}})");
    QCOMPARE(message.errorCode, 0);
    QCOMPARE(message.sequence, quint64(5));
    QCOMPARE(message.headers, QByteArray("H\r\nA: b\r\n\r\n"));

    for (const char *odd : {"", "hello", "[]", "{}", R"({"seq":0})", R"({"error":{}})"})
        QVERIFY2(readStreamAnswer(odd).errorCode != 0, odd);
}

void tst_NatsParts::headers()
{
    const QByteArray headers = "NATS/1.0\r\nNats-Msg-Id: a-1-2\r\nB: Nats-Msg-Id: c\r\n\r\n";
    QCOMPARE(headerValue(headers, "Nats-Msg-Id"), QByteArray("a-1-2"));
    QCOMPARE(headerValue(headers, "B"), QByteArray("Nats-Msg-Id: c"));
    QCOMPARE(headerValue(headers, "Msg-Id"), QByteArray());
    QCOMPARE(headerValue({}, "B"), QByteArray());
    QCOMPARE(headerText(QStringLiteral("a b\u00e9%")), QByteArray("a b\xc3\xa9%"));
    QCOMPARE(headerText(QStringLiteral(" a\r\nB: c\x7f ")), QByteArray("%20a%0D%0AB: c%7F%20"));
}

QTEST_GUILESS_MAIN(tst_NatsParts)
#include "tst_natsparts.moc"
