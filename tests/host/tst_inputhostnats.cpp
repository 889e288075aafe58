// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/exitcodes.h"
#include "inputhosttest.h"
#include "natstest.h"

using namespace inputhosttest;
using namespace natstest;

// The program with a server of JetStream.
class tst_InputHostNats : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void storesLines();
    void serverAwayForAWhile();
    void serverAwayAtTheEnd();
    void withoutPositions();
    void example();

private:
    static QStringList outputTo(const NatsServer &server)
    {
        return {QStringLiteral("--output"), QStringLiteral("nats://%1/S").arg(server.address())};
    }
};

void tst_InputHostNats::storesLines()
{
    NatsServer server;
    server.start();
    Host host;
    host.start(outputTo(server)
               + words("--nats-create R1 --nats-subject field.{peer}.{connection}"));
    Device device(host);
    const QByteArray port = QByteArray::number(device.socket.localPort());
    device.send("hello\nworld\npart");
    device.close();
    QTRY_VERIFY_WITH_TIMEOUT(host.counters().contains("partial 1"), HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));

    const std::vector<Reader::Message> messages = Reader(server).messages();
    QCOMPARE(messages.size(), size_t(3));
    QCOMPARE(messages[0].bytes, QByteArray("hello"));
    QCOMPARE(messages[1].bytes, QByteArray("world"));
    QCOMPARE(messages[2].bytes, QByteArray("part"));
    QVERIFY(messages[0].subject.startsWith("field.127%2E"));
    QCOMPARE(messages[1].headers["Input-Position"], QByteArray("6"));
    QCOMPARE(messages[1].headers["Input-End"], QByteArray("12"));
    QVERIFY(!messages[1].headers.contains("Input-Partial"));
    QCOMPARE(messages[2].headers["Input-Partial"], QByteArray("true"));
    QCOMPARE(messages[0].headers["Input-Epoch"].size(), 32);
    QCOMPARE(messages[0].headers["Input-Port"], port);
}

void tst_InputHostNats::serverAwayForAWhile()
{
    NatsServer server;
    server.start();
    QVERIFY(Reader(server).create());
    Host host;
    host.start(outputTo(server));
    Device device(host);
    device.send("a\n");
    QTRY_COMPARE_WITH_TIMEOUT(Reader(server).messages().size(), size_t(1), HangGuardMs);
    server.kill();
    device.send("b\n");
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("no connection to"), HangGuardMs);
    device.send("c\n");
    server.start();
    QTRY_COMPARE_WITH_TIMEOUT(Reader(server).messages().size(), size_t(3), HangGuardMs);
    const int code = host.stop();
    QVERIFY2(code == ExitOk, host.log().constData());
    QByteArrayList texts;
    for (const Reader::Message &message : Reader(server).messages())
        texts.append(message.bytes);
    QCOMPARE(texts, (QByteArrayList{"a", "b", "c"}));
}

// It says how many messages are not safe.
void tst_InputHostNats::serverAwayAtTheEnd()
{
    const NatsServer server;
    Host host;
    host.start(outputTo(server) + words("--save-within 1"));
    Device device(host);
    device.send("a\nb\n");
    QTRY_VERIFY_WITH_TIMEOUT(host.counters().startsWith("messages 2"), HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOutputFailed));
    QVERIFY(host.log().contains("2 messages are not safe after 1 s"));
}

void tst_InputHostNats::withoutPositions()
{
    const NatsServer server;
    Host host;
    host.run(outputTo(server) + words("--set offsets=false"));
    QCOMPARE(host.finish(), int(ExitBadConfiguration));
    QVERIFY(host.log().contains("A store needs \"offsets\" and \"ends\""));
}

// examples/consume-nats shows one device's messages: those that are there, and those that come.
void tst_InputHostNats::example()
{
    NatsServer server;
    server.start();
    QVERIFY(Reader(server).create());
    Host host;
    host.start(outputTo(server));
    Device first(host);
    first.send("a\n");
    QTRY_COMPARE_WITH_TIMEOUT(Reader(server).messages().size(), size_t(1), HangGuardMs);
    const Reader::Message message = Reader(server).messages().front();

    QProcess consumer;
    consumer.start(QStringLiteral(CONSUMER_FILE),
                   {QStringLiteral("nats://") + server.address(), QStringLiteral("S"),
                    QString::fromUtf8(message.subject)});
    QByteArray output;
    const auto shows = [&](const char *text) {
        output += consumer.readAllStandardOutput();
        return output.endsWith(text);
    };
    QTRY_VERIFY2_WITH_TIMEOUT(shows(" at 0: a\n"), output.constData(), HangGuardMs);
    Device second(host); // another subject
    second.send("x\n");
    QTRY_COMPARE_WITH_TIMEOUT(Reader(server).messages().size(), size_t(2), HangGuardMs);
    first.send("b\n");
    QTRY_VERIFY2_WITH_TIMEOUT(shows(" at 2: b\n"), output.constData(), HangGuardMs);
    QCOMPARE(output.count('\n'), 2);
    QVERIFY(output.startsWith(message.subject + " connection "));
    consumer.kill();
    QVERIFY(consumer.waitForFinished(HangGuardMs));
}

QTEST_GUILESS_MAIN(tst_InputHostNats)
#include "tst_inputhostnats.moc"
