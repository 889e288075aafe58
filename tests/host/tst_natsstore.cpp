// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "natstest.h"

using namespace natstest;

class tst_NatsStore : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void storesOnceInOrder();
    void batchWithoutMessages();
    void sameBatchTwice();
    void tellsOrigins();
    void hostileTexts();
    void longMessage();
    void longMessageForStream();
    void createsStream();
    void streamMissing();
    void streamFull();
    void otherStreamsSubject();
    void user();
    void wrongPassword();
    void missingFiles();
};

void tst_NatsStore::storesOnceInOrder()
{
    NatsServer server;
    server.start();
    const Reader reader(server);
    QVERIFY(reader.create());
    Storing storing(settingsFor(server));
    QCOMPARE(storing.store.open(), QString());
    for (int n = 0; n < 5; ++n)
        storing.add(300, 4);
    QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), LoadHangGuardMs);
    QVERIFY(storing.isInOrder);
    QCOMPARE(storing.safe.size(), size_t(300));
    QCOMPARE(storing.safe[7], quint64(2000));
    QVERIFY(storing.isExact(reader));
    QCOMPARE(storing.connected, QList<bool>{true});
}

void tst_NatsStore::batchWithoutMessages()
{
    NatsServer server;
    Storing storing(settingsFor(server));
    Batch batch;
    batch.addBegin({});
    batch.addEnd({}, QStringLiteral("peer"), 0);
    storing.give(std::move(batch));
    QVERIFY(storing.isAllStored());
}

// As after an answer that was lost, within the server's window.
void tst_NatsStore::sameBatchTwice()
{
    NatsServer server;
    server.start();
    const Reader reader(server);
    QVERIFY(reader.create());
    for (int n = 0; n < 2; ++n) {
        Storing storing(settingsFor(server));
        QCOMPARE(storing.store.open(), QString());
        storing.add(5, 3);
        QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), HangGuardMs);
        QVERIFY(storing.isExact(reader));
    }
}

void tst_NatsStore::tellsOrigins()
{
    NatsServer server;
    server.start();
    const Reader reader(server);
    QVERIFY(reader.create());
    NatsSettings settings = settingsFor(server);
    settings.subject = QStringLiteral("dev.{stream}.{peer}.{port}.{epoch}.{connection}");
    Storing storing(settings);
    QCOMPARE(storing.store.open(), QString());
    Origin origin;
    origin.connection = 12;
    origin.time = QDateTime::fromMSecsSinceEpoch(1700000000123);
    origin.peer = QStringLiteral("192.0.2.7");
    origin.port = 1234;
    origin.source = QStringLiteral("tcp://192.0.2.7:1234");
    Batch batch;
    const QByteArray bytes("a\0\r\nb", 5);
    batch.add({origin, {}, bytes, 0, 6});
    batch.add({origin, {}, "", 6, 7, true});
    storing.give(std::move(batch));
    QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), HangGuardMs);

    const std::vector<Reader::Message> messages = reader.messages();
    QCOMPARE(messages.size(), size_t(2));
    const QByteArray epoch = settings.epoch;
    QCOMPARE(messages[0].subject, "dev.S.192%2E0%2E2%2E7.1234." + epoch + ".12");
    QCOMPARE(messages[0].bytes, bytes);
    const QMap<QByteArray, QByteArray> expected = {
            {"Nats-Msg-Id", epoch + "-12-0"},
            {"Nats-Expected-Stream", "S"},
            {"Input-Epoch", epoch},
            {"Input-Connection", "12"},
            {"Input-Position", "0"},
            {"Input-End", "6"},
            {"Input-Peer", "192.0.2.7"},
            {"Input-Port", "1234"},
            {"Input-Source", "tcp://192.0.2.7:1234"},
            {"Input-Time", "2023-11-14T22:13:20.123Z"},
    };
    QCOMPARE(messages[0].headers, expected);
    QCOMPARE(messages[1].bytes, QByteArray());
    QCOMPARE(messages[1].headers["Input-Position"], QByteArray("6"));
    QCOMPARE(messages[1].headers["Input-Partial"], QByteArray("true"));
}

void tst_NatsStore::hostileTexts()
{
    NatsServer server;
    server.start();
    const Reader reader(server);
    QVERIFY(reader.create());
    NatsSettings settings = settingsFor(server);
    settings.subject = QStringLiteral("dev.{peer}.{source}");
    Storing storing(settings);
    QCOMPARE(storing.store.open(), QString());
    Origin origin;
    origin.connection = 1;
    origin.peer = QStringLiteral("a\r\nInput-Evil: yes\r\n\r\n");
    origin.source = QStringLiteral("> * .\t\u00e9\r\nPUB dev.evil 0\r\n\r\n");
    Batch batch;
    batch.add({origin, {}, "x", 0, 2});
    storing.give(std::move(batch));
    QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), HangGuardMs);

    const std::vector<Reader::Message> messages = reader.messages();
    QCOMPARE(messages.size(), size_t(1));
    QCOMPARE(messages[0].subject,
             QByteArray("dev.a%0D%0AInput-Evil:%20yes%0D%0A%0D%0A."
                        "%3E%20%2A%20%2E%09\xc3\xa9%0D%0APUB%20dev%2Eevil%200%0D%0A%0D%0A"));
    QCOMPARE(messages[0].headers["Input-Peer"], QByteArray("a%0D%0AInput-Evil: yes%0D%0A%0D%0A"));
    QCOMPARE(messages[0].headers["Input-Source"],
             QByteArray("> * .%09\xc3\xa9%0D%0APUB dev.evil 0%0D%0A%0D%0A"));
    const QList<QByteArray> names = {
            "Input-Connection", "Input-End",    "Input-Epoch",          "Input-Peer", "Input-Port",
            "Input-Position",   "Input-Source", "Nats-Expected-Stream", "Nats-Msg-Id"};
    QCOMPARE(messages[0].headers.keys(), names); // none is empty: that would swallow the next one
    QCOMPARE(messages[0].bytes, QByteArray("x"));
}

// Messages that the server would close the connection for. What comes behind them goes on.
void tst_NatsStore::longMessage()
{
    NatsServer server("max_payload: 2000\n");
    server.start();
    const Reader reader(server);
    QVERIFY(reader.create());
    const MessageCapture capture;
    Storing storing(settingsFor(server));
    QCOMPARE(storing.store.open(), QString());
    Origin origin;
    origin.connection = 1000;
    Batch batch;
    for (quint64 n = 0; n < 20000; ++n)
        batch.add({origin, {}, QByteArray(1900, 'x'), n * 2000, (n + 1) * 2000});
    batch.add({origin, {}, "short", 40'000'000, 40'000'006});
    storing.give(std::move(batch));
    storing.add(3, 2);
    QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), HangGuardMs);
    QVERIFY(storing.isInOrder);
    QCOMPARE(storing.safe[1000], quint64(40'000'006));
    auto stored = reader.byConnection();
    QCOMPARE(stored["1000"], QByteArrayList{"short"});
    QCOMPARE(stored.size(), size_t(4));
    QCOMPARE(stored["3"].size(), 2);
    storing.store.close();
    const QStringList lines = takeLog().filter(QStringLiteral("W: "));
    QCOMPARE(lines.size(), 11);
    QVERIFY2(lines.first().contains(QStringLiteral("takes no message of 2")),
             qPrintable(lines.first()));
    QVERIFY(lines.last().contains(QStringLiteral("19990 more messages skipped")));
    QCOMPARE(storing.connected, QList<bool>{true});
}

// The limit is the stream's, which only the server knows.
void tst_NatsStore::longMessageForStream()
{
    NatsServer server;
    server.start();
    const Reader reader(server);
    QVERIFY(reader.create([](jsStreamConfig &configuration) { configuration.MaxMsgSize = 1000; }));
    const MessageCapture capture;
    Storing storing(settingsFor(server));
    QCOMPARE(storing.store.open(), QString());
    Origin origin;
    origin.connection = 1;
    Batch batch;
    batch.add({origin, {}, "a", 0, 2});
    batch.add({origin, {}, QByteArray(1000, 'x'), 2, 1003});
    batch.add({origin, {}, "b", 1003, 1005});
    storing.give(std::move(batch));
    QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), HangGuardMs);
    QCOMPARE(reader.byConnection()["1"], (QByteArrayList{"a", "b"}));
    const QStringList lines = takeLog().filter(QStringLiteral("W: "));
    QCOMPARE(lines.size(), 1);
    QVERIFY2(lines.first().contains(QStringLiteral("takes no message of 1")),
             qPrintable(lines.first()));
    QCOMPARE(storing.connected, QList<bool>{true});
}

void tst_NatsStore::createsStream()
{
    NatsServer server;
    server.start();
    NatsSettings settings = settingsFor(server);
    settings.subject = QStringLiteral("field.{epoch}.x-{connection}");
    settings.replicas = 1;
    Storing storing(settings);
    QCOMPARE(storing.store.open(), QString());
    storing.add(3, 3);
    QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), HangGuardMs);
    const Reader reader(server);
    QVERIFY(storing.isExact(reader));
    const jsStreamConfig *created = reader.info()->Config;
    QCOMPARE(created->SubjectsLen, 1);
    QCOMPARE(created->Subjects[0], "field.*.*");
    QCOMPARE(created->Duplicates, 600'000'000'000);
    QCOMPARE(created->Replicas, 1);
    QCOMPARE(created->Storage, js_FileStorage);
    QCOMPARE(created->Discard, js_DiscardNew);
}

void tst_NatsStore::streamMissing()
{
    NatsServer server;
    server.start();
    const MessageCapture capture;
    Storing storing(settingsFor(server));
    QCOMPARE(storing.store.open(), QString());
    storing.add(3, 3);
    QStringList log;
    const auto says = [&log](const QString &text) {
        log += takeLog();
        return !log.filter(text).isEmpty();
    };
    QTRY_VERIFY_WITH_TIMEOUT(says(QStringLiteral("has no stream S: messages wait for it")),
                             HangGuardMs);
    QCOMPARE(storing.messages, 0);
    const Reader reader(server);
    QVERIFY(reader.create());
    QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), HangGuardMs);
    QVERIFY(storing.isExact(reader));
    QVERIFY(says(QStringLiteral("stores messages in stream S")));
    QCOMPARE(log.filter(QStringLiteral("W: ")).size(), 1);
    QCOMPARE(storing.connected, QList<bool>{true});
}

void tst_NatsStore::streamFull()
{
    NatsServer server;
    server.start();
    const Reader reader(server);
    const auto limit = [](int messages) {
        return [messages](jsStreamConfig &configuration) {
            configuration.MaxMsgs = messages;
            configuration.Discard = js_DiscardNew;
        };
    };
    QVERIFY(reader.create(limit(10)));
    const MessageCapture capture;
    Storing storing(settingsFor(server));
    QCOMPARE(storing.store.open(), QString());
    storing.add(4, 10);
    QTRY_COMPARE_WITH_TIMEOUT(storing.messages, 10, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(storing.connected, (QList<bool>{true, false}), HangGuardMs);
    QVERIFY(reader.update(limit(1000)));
    QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), HangGuardMs);
    QVERIFY(storing.isExact(reader));
    const QStringList lines = takeLog().filter(QStringLiteral("W: "));
    QCOMPARE(lines.size(), 1);
    QVERIFY(lines.first().contains(
            QStringLiteral("refuses messages: they wait: maximum messages")));
    QTRY_COMPARE_WITH_TIMEOUT(storing.connected, (QList<bool>{true, false, true}), HangGuardMs);
}

// The subjects belong to another stream: nothing must get into that.
void tst_NatsStore::otherStreamsSubject()
{
    NatsServer server;
    server.start();
    const Reader reader(server);
    const char *others[] = {"other.>"};
    QVERIFY(reader.create([&](jsStreamConfig &configuration) { configuration.Name = "Other"; }));
    QVERIFY(reader.create([&](jsStreamConfig &configuration) { configuration.Subjects = others; }));
    const MessageCapture capture;
    Storing storing(settingsFor(server));
    QCOMPARE(storing.store.open(), QString());
    storing.add(1, 1);
    QStringList lines;
    const auto isRefused = [&lines] {
        lines += takeLog();
        return !lines.filter(QStringLiteral("refuses messages")).isEmpty();
    };
    QTRY_VERIFY_WITH_TIMEOUT(isRefused(), HangGuardMs);
    QCOMPARE(storing.messages, 0);
    QCOMPARE(storing.connected, QList<bool>());
}

void tst_NatsStore::user()
{
    NatsServer server("authorization { user: \"us:er\", password: \"p@ss\" }\n");
    server.start();
    const Reader reader(server, "us:er", "p@ss");
    QVERIFY(reader.create());
    NatsSettings settings = settingsFor(server);
    const QString address = QStringLiteral("us%3Aer:p%40ss@%1/S").arg(server.address());
    QCOMPARE(readNatsAddress(address, settings), QString());
    Storing storing(settings);
    QCOMPARE(storing.store.open(), QString());
    storing.add(2, 2);
    QTRY_VERIFY_WITH_TIMEOUT(storing.isAllStored(), HangGuardMs);
    QVERIFY(storing.isExact(reader));
}

void tst_NatsStore::wrongPassword()
{
    NatsServer server("authorization { user: somebody, password: right }\n");
    server.start();
    const MessageCapture capture;
    NatsSettings settings = settingsFor(server);
    settings.user = QStringLiteral("somebody");
    settings.password = QStringLiteral("secret");
    Storing storing(settings);
    QCOMPARE(storing.store.open(), QString());
    storing.add(1, 1);
    QStringList lines;
    const auto refused = [&lines] {
        lines += takeLog();
        return !lines.filter(QStringLiteral("refuses us: messages wait")).isEmpty();
    };
    QTRY_VERIFY_WITH_TIMEOUT(refused(), HangGuardMs);
    // A fence: several attempts later nothing more was said.
    QSignalSpy lost(storing.store.findChild<NatsLink *>(), &NatsLink::lost);
    QTRY_VERIFY_WITH_TIMEOUT(lost.count() >= 3, HangGuardMs);
    lines += takeLog();
    QCOMPARE(lines.size(), 1);
    QVERIFY(!lines.first().contains(QStringLiteral("secret")));
    QCOMPARE(storing.connected, QList<bool>());
}

void tst_NatsStore::missingFiles()
{
    NatsServer server;
    const QString missing = QStringLiteral("/no/such/file");
    for (QString NatsSettings::*file :
         {&NatsSettings::caFile, &NatsSettings::certificateFile, &NatsSettings::credentialsFile}) {
        NatsSettings settings = settingsFor(server);
        settings.*file = missing;
        Storing storing(settings);
        QCOMPARE(storing.store.open(), QStringLiteral("Cannot read /no/such/file"));
    }
    NatsSettings settings = settingsFor(server);
    settings.caFile = QStringLiteral(__FILE__);
    Storing storing(settings);
    QVERIFY(storing.store.open().startsWith(QStringLiteral(__FILE__ ": ")));
}

QTEST_GUILESS_MAIN(tst_NatsStore)
#include "tst_natsstore.moc"
