// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/messageformat.h"
#include "simulatorreceivers.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/locales.h"
#include "tests/kit/testaddress.h"

#include <QtCore/QCryptographicHash>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QProcess>
#include <QtCore/QRegularExpression>
#include <QtCore/QTemporaryDir>
#include <QtNetwork/QSslKey>
#include <QtTest/QTest>

#include <cerrno>
#include <csignal>
#include <cstring>

#include <openssl/x509_vfy.h>

using namespace simulator;

namespace {

QString text(const char *latin1)
{
    return QString::fromLatin1(latin1);
}

QStringList words(const char *latin1)
{
    return text(latin1).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

QByteArray sha1(const QByteArray &bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Sha1).toHex();
}

// The stream of the device's messages first to last in the default format.
QByteArray stream(quint64 device, quint64 first, quint64 last, const Options &options = {})
{
    const MessageFormat format(options);
    QByteArray bytes;
    for (quint64 number = first; number <= last; ++number)
        format.append(bytes, device, number);
    return bytes;
}

/*!
    A run of the program, reporting as JSON.
*/
class Simulator
{
public:
    ~Simulator()
    {
        process.kill();
        process.waitForFinished();
    }

    void start(const QTcpServer &receiver, const QStringList &arguments)
    {
        start(QStringList{QStringLiteral("--host"), receiver.serverAddress().toString(),
                          QStringLiteral("--port"), QString::number(receiver.serverPort()),
                          QStringLiteral("--output"), QStringLiteral("json")}
              + arguments);
    }

    void setEnvironment(const QStringList &variables) { process.setEnvironment(variables); }

    void start(const QStringList &arguments)
    {
        process.start(QStringLiteral(DEVICESIM_FILE), arguments);
    }

    // While this thread's receivers go on receiving.
    bool waitForEnd()
    {
        const bool ended = QTest::qWaitFor(
                [this] { return process.state() == QProcess::NotRunning; }, HangGuardMs);
        output = process.readAllStandardOutput();
        return ended && process.exitStatus() == QProcess::NormalExit;
    }

    void signal(int number) { ::kill(static_cast<pid_t>(process.processId()), number); }

    int exitCode() const { return process.exitCode(); }
    QByteArray errors() { return process.readAllStandardError(); }
    QJsonObject document() const { return QJsonDocument::fromJson(output).object(); }
    QJsonObject summary() const { return document().value(text("summary")).toObject(); }
    QJsonArray connections() const { return document().value(text("connections")).toArray(); }
    QJsonObject connection(int index = 0) const { return connections().at(index).toObject(); }

    QByteArray output; // once it has ended

private:
    QProcess process;
};

QString end(const QJsonObject &connection)
{
    return connection.value(text("end")).toString();
}

int number(const QJsonObject &object, const char *key)
{
    return object.value(text(key)).toInt(-1);
}

// Holds a port at which nobody listens.
class DeafPort
{
public:
    DeafPort() { socket.bind(testAddress(), 0); }
    QStringList arguments() const
    {
        return {QStringLiteral("--host"), testAddress().toString(), QStringLiteral("--port"),
                QString::number(socket.localPort())};
    }

private:
    QTcpSocket socket;
};

} // namespace

/*!
    The simulator as a program: what receivers see of it, what it reports, its exit status.
*/
class tst_DeviceSim : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();

    void sends_data();
    void sends();
    void sendsAllOfManyDevices();
    void closes();
    void halfCloses();
    void halfCloseGoesUnanswered();
    void aborts();
    void stays_data();
    void stays();
    void staysUntilThePeerCloses();
    void reconnects();
    void bindsInTurn();
    void ipv6();

    void keepsItsRate();
    void keepsItsPauses();
    void keepsItsConnectRate();
    void limitsOpenConnections();

    void stopsAtMessageEnd_data();
    void stopsAtMessageEnd();
    void tellsItsProgress();
    void countsWhatTheKernelAccepted();

    void nobodyListens();
    void peerEndsEarly_data();
    void peerEndsEarly();
    void stopsReconnectingAfterFailure();
    void wrongCommandLine();
    void anyLocale_data();
    void anyLocale();
    void reportsTexts();
    void reportsSummaryOnly();

    void tls_data();
    void tls();
    void tlsDeliversThenCloses();
    void tlsReconnects();
    void tlsRefusals_data();
    void tlsRefusals();
    void tlsServerRefusesDevice_data();
    void tlsServerRefusesDevice();
    void tlsQtServerRefusesDevice();
    void tlsClientCertificate();
    void tlsUnusableFiles();
    void tlsHandshakeTimesOut();

    void silent_data();
    void silent();
    void garbage();
    void abortsHandshake();
    void endsTlsOnly();
    void endsTlsOnlyWhateverThePeerAnswers();
    void closesWithoutReading_data();
    void closesWithoutReading();

private:
    QString file(const char *name) const { return certificates.filePath(text(name)); }
    void openssl(const QStringList &arguments);
    QSslConfiguration serverConfiguration() const;

    QTemporaryDir certificates;
};

void tst_DeviceSim::initTestCase()
{
    QVERIFY(certificates.isValid());
    std::signal(SIGPIPE, SIG_IGN); // TlsPeer writes to devices that are gone
    const QStringList newKey =
            words("req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes");
    const QStringList byAuthority{text("-CA"), file("ca.pem"), text("-CAkey"), file("ca.key")};
    const auto made = [this](const char *name) {
        return QStringList{text("-keyout"), file(name) + text(".key"),
                           text("-out"),    file(name) + text(".pem"),
                           text("-subj"),   text("/CN=") + text(name)};
    };
    const QStringList serverNames{text("-addext"),
                                  text("subjectAltName=DNS:receiver.example,IP:")
                                          + testAddress().toString()};
    openssl(newKey + made("ca"));
    openssl(newKey + made("stranger"));
    openssl(newKey + made("server") + serverNames + byAuthority);
    openssl(newKey + made("device") + byAuthority);
}

void tst_DeviceSim::openssl(const QStringList &arguments)
{
    QProcess process;
    process.start(QStringLiteral("openssl"), arguments);
    QVERIFY2(process.waitForFinished(HangGuardMs), "the program openssl makes the certificates");
    QVERIFY2(process.exitCode() == 0, process.readAllStandardError().constData());
}

QSslConfiguration tst_DeviceSim::serverConfiguration() const
{
    QSslConfiguration configuration;
    QFile keyFile(file("server.key"));
    if (keyFile.open(QFile::ReadOnly))
        configuration.setPrivateKey(QSslKey(keyFile.readAll(), QSsl::Ec));
    configuration.setLocalCertificateChain(QSslCertificate::fromPath(file("server.pem")));
    configuration.setCaCertificates(QSslCertificate::fromPath(file("ca.pem")));
    return configuration;
}

void tst_DeviceSim::sends_data()
{
    QTest::addColumn<QByteArray>("commandLine");
    QTest::newRow("lines") << QByteArray("--framing lines");
    QTest::newRow("length") << QByteArray("--framing length");
    QTest::newRow("byte by byte") << QByteArray("--segments byte");
    QTest::newRow("random cuts") << QByteArray("--segments random --seed 3");
    QTest::newRow("random cuts and pauses")
            << QByteArray("--segments random --pause-ms 0-2 --framing length");
    QTest::newRow("large messages") << QByteArray("--size 100000");
    QTest::newRow("no padding") << QByteArray("--size 0");
    QTest::newRow("rate and random cuts") << QByteArray("--segments random --rate 500");
}

void tst_DeviceSim::sends()
{
    QFETCH(const QByteArray, commandLine);
    const QStringList arguments = words("--messages 50") + words(commandLine.constData());
    const Options options = parseOptions(QStringList(QString()) + arguments).options;
    const QByteArray expected = stream(1, 1, 50, options);

    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, arguments);
    QVERIFY(simulator.waitForEnd());

    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE(receiver.peers.size(), 1);
    QTRY_COMPARE(receiver.peers.first()->ended, Peer::Fin);
    QCOMPARE(receiver.peers.first()->bytes, expected);
    const QJsonObject connection = simulator.connection();
    QCOMPARE(simulator.connections().size(), 1);
    QCOMPARE(number(connection, "device"), 1);
    QCOMPARE(number(connection, "connection"), 1);
    QCOMPARE(number(connection, "messages"), 50);
    QCOMPARE(number(connection, "bytes"), expected.size());
    QCOMPARE(number(connection, "localPort"), receiver.peers.first()->port);
    QCOMPARE(connection.value(text("localAddress")).toString(),
             receiver.peers.first()->address.toString());
    QCOMPARE(connection.value(text("sha1")).toString().toLatin1(), sha1(expected));
    QCOMPARE(end(connection), text("closed"));
    QCOMPARE(number(simulator.summary(), "opened"), 1);
    QCOMPARE(number(simulator.summary(), "failed"), 0);
    QCOMPARE(number(simulator.summary(), "messages"), 50);
    QCOMPARE(number(simulator.summary(), "bytes"), expected.size());
    QCOMPARE(simulator.summary().value(text("interrupted")).toBool(true), false);
}

void tst_DeviceSim::sendsAllOfManyDevices()
{
    constexpr int Devices = 200;
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--connections 200 --messages 20 --segments random"));
    QVERIFY(simulator.waitForEnd());

    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE(receiver.peers.size(), Devices);
    QTRY_COMPARE(receiver.openPeers(), 0);
    QList<QByteArray> received;
    for (const Peer *peer : receiver.peers)
        received.append(peer->bytes);
    for (quint64 device = 1; device <= Devices; ++device)
        QCOMPARE(received.count(stream(device, 1, 20)), 1);
    QCOMPARE(number(simulator.summary(), "messages"), 20 * Devices);
}

void tst_DeviceSim::closes()
{
    Receiver receiver;
    receiver.answersEnd = false;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--messages 10 --close close"));
    QVERIFY(simulator.waitForEnd()); // without any answer
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE(receiver.peers.size(), 1);
    QTRY_COMPARE(receiver.peers.first()->ended, Peer::Fin);
    QCOMPARE(receiver.peers.first()->bytes, stream(1, 1, 10));
    QCOMPARE(end(simulator.connection()), text("closed"));
}

void tst_DeviceSim::halfCloses()
{
    Receiver receiver;
    receiver.answersEnd = false;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--messages 10 --close half-close"));
    QTRY_COMPARE(receiver.peers.size(), 1);
    Peer *peer = receiver.peers.first();
    QTRY_COMPARE(peer->ended, Peer::Fin);
    QCOMPARE(peer->bytes, stream(1, 1, 10));

    peer->close();
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(end(simulator.connection()), text("closed"));
}

void tst_DeviceSim::halfCloseGoesUnanswered()
{
    Receiver receiver;
    receiver.answersEnd = false;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--close half-close --linger-ms 200"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(end(simulator.connection()), text("unanswered"));
    QVERIFY(number(simulator.summary(), "elapsedMs") >= 190); // less what a coarse timer may miss
}

void tst_DeviceSim::aborts()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--messages 1000 --close abort"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE(receiver.peers.size(), 1);
    QTRY_COMPARE(receiver.peers.first()->ended, Peer::Reset);
    QCOMPARE(receiver.peers.first()->bytes, stream(1, 1, 1000));
    QCOMPARE(end(simulator.connection()), text("reset"));
}

void tst_DeviceSim::stays_data()
{
    QTest::addColumn<QByteArray>("linger");
    QTest::addColumn<bool>("interrupted");
    QTest::newRow("for a while") << QByteArray("--linger-ms 200") << false;
    QTest::newRow("until SIGTERM") << QByteArray() << true;
    QTest::newRow("SIGTERM while sending") << QByteArray("--messages 0 --rate 1") << true;
}

void tst_DeviceSim::stays()
{
    QFETCH(const QByteArray, linger);
    QFETCH(const bool, interrupted);
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--messages 10 --close stay") + words(linger.constData()));
    QTRY_COMPARE(receiver.peers.size(), 1);
    QTRY_VERIFY(receiver.peers.first()->bytes.startsWith(stream(1, 1, 1)));
    if (interrupted) {
        QCOMPARE(receiver.peers.first()->ended, Peer::Open);
        simulator.signal(SIGTERM);
    }
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE(receiver.peers.first()->ended, Peer::Fin);
    QCOMPARE(receiver.peers.first()->bytes.size(), number(simulator.connection(), "bytes"));
    QCOMPARE(end(simulator.connection()), text("closed"));
    QCOMPARE(simulator.summary().value(text("interrupted")).toBool(), interrupted);
    if (!interrupted)
        QVERIFY(number(simulator.summary(), "elapsedMs") >= 190);
}

void tst_DeviceSim::staysUntilThePeerCloses()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--messages 10 --close stay"));
    QTRY_COMPARE(receiver.peers.size(), 1);
    QTRY_COMPARE(receiver.peers.first()->bytes, stream(1, 1, 10));
    receiver.peers.first()->close();
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(end(simulator.connection()), text("peer-closed"));
}

void tst_DeviceSim::reconnects()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    // Half-closing: the next connection comes after the receiver has seen the end of the last.
    simulator.start(receiver, words("--messages 8 --reconnect 2 --close half-close"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE(receiver.peers.size(), 3);
    QTRY_COMPARE(receiver.openPeers(), 0);
    QCOMPARE(receiver.mostOpen, 1);
    QCOMPARE(receiver.peers.at(0)->bytes, stream(1, 1, 3));
    QCOMPARE(receiver.peers.at(1)->bytes, stream(1, 4, 6));
    QCOMPARE(receiver.peers.at(2)->bytes, stream(1, 7, 8));
    for (int i = 0; i < 3; ++i) {
        QCOMPARE(number(simulator.connection(i), "connection"), i + 1);
        QCOMPARE(number(simulator.connection(i), "localPort"), receiver.peers.at(i)->port);
    }
    QCOMPARE(number(simulator.summary(), "opened"), 3);
    QCOMPARE(number(simulator.summary(), "messages"), 8);
}

void tst_DeviceSim::bindsInTurn()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    const quint32 own = testAddress().toIPv4Address();
    const QString first = QHostAddress(own ^ (1U << 22U)).toString(); // not the receiver's
    Simulator simulator;
    simulator.start(
            receiver,
            words("--connections 4")
                    + QStringList{text("--bind"), first, text("--bind"), testAddress().toString()});
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE(receiver.peers.size(), 4);
    QTRY_COMPARE(receiver.openPeers(), 0);
    for (const Peer *peer : receiver.peers) {
        const bool isOdd = peer->bytes == stream(1, 1, 1) || peer->bytes == stream(3, 1, 1);
        QCOMPARE(peer->address.toString(), isOdd ? first : testAddress().toString());
    }
}

void tst_DeviceSim::ipv6()
{
    Receiver receiver;
    if (!receiver.listen(QHostAddress::LocalHostIPv6))
        QSKIP("no IPv6 here", ); // the comma: pedantic compilers want the macro's second argument
    Simulator simulator;
    simulator.start(receiver, words("--messages 3"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE(receiver.peers.size(), 1);
    QTRY_COMPARE(receiver.peers.first()->bytes, stream(1, 1, 3));
    QCOMPARE(simulator.connection().value(text("localAddress")).toString(), text("::1"));
    QCOMPARE(number(simulator.connection(), "localPort"), receiver.peers.first()->port);
}

void tst_DeviceSim::keepsItsRate()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--messages 11 --rate 50 --reconnect 1"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QVERIFY(number(simulator.summary(), "elapsedMs") >= 200);
}

void tst_DeviceSim::keepsItsPauses()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--messages 11 --pause-ms 20"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QVERIFY(number(simulator.summary(), "elapsedMs") >= 180); // 10 pauses by coarse timers
}

void tst_DeviceSim::keepsItsConnectRate()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--connections 11 --connect-rate 50"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(number(simulator.summary(), "opened"), 11);
    QVERIFY(number(simulator.summary(), "elapsedMs") >= 200);
}

void tst_DeviceSim::limitsOpenConnections()
{
    // Half-closing devices are open until the receiver closes them, so it sees what is open.
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--connections 60 --parallel 3 --close half-close"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(number(simulator.summary(), "opened"), 60);
    QCOMPARE(receiver.peers.size(), 60);
    QVERIFY(receiver.mostOpen <= 3);
}

void tst_DeviceSim::stopsAtMessageEnd_data()
{
    QTest::addColumn<int>("signal");
    QTest::newRow("SIGINT") << SIGINT;
    QTest::newRow("SIGTERM") << SIGTERM;
}

void tst_DeviceSim::stopsAtMessageEnd()
{
    QFETCH(const int, signal);
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--messages 0 --segments byte --pause-ms 1 --size 20"));
    QTRY_COMPARE(receiver.peers.size(), 1);
    QTRY_VERIFY(receiver.peers.first()->bytes.size() > 30);
    simulator.signal(signal);
    QVERIFY(simulator.waitForEnd());

    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE(receiver.peers.first()->ended, Peer::Fin);
    QVERIFY(simulator.summary().value(text("interrupted")).toBool());
    const int messages = number(simulator.connection(), "messages");
    QVERIFY(messages >= 2);
    Options options;
    options.size = 20;
    QCOMPARE(receiver.peers.first()->bytes, stream(1, 1, static_cast<quint64>(messages), options));
}

void tst_DeviceSim::tellsItsProgress()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver,
                    words("--connections 3 --parallel 2 --messages 5 --size 9 --close stay"));
    QTRY_COMPARE(receiver.peers.size(), 2);
    for (const auto &peer : receiver.peers)
        QTRY_COMPARE(peer->bytes.size(), 50);
    simulator.signal(SIGUSR1);
    QByteArray errors;
    QTRY_VERIFY((errors += simulator.errors()).endsWith('\n'));
    QCOMPARE(errors, QByteArray("2 devices started, 2 active; 10 messages\n"));

    simulator.signal(SIGTERM);
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
}

void tst_DeviceSim::countsWhatTheKernelAccepted()
{
    Receiver receiver;
    receiver.reads = false;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    // A message larger than what kernels buffer: it cannot be finished.
    simulator.start(receiver, words("--messages 0 --size 60000000"));
    QTRY_COMPARE(receiver.peers.size(), 1);
    QTRY_VERIFY(receiver.peers.first()->bytesWait());
    simulator.signal(SIGTERM);
    simulator.signal(SIGINT); // or it would wait a while for a receiver that does not read
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);

    // What the kernel has accepted it delivers, though the program has ended.
    Peer *peer = receiver.peers.first();
    peer->startReading();
    QTRY_COMPARE(peer->ended, Peer::Fin);
    QCOMPARE(number(simulator.connection(), "bytes"), peer->bytes.size());
    QCOMPARE(simulator.connection().value(text("sha1")).toString().toLatin1(), sha1(peer->bytes));
    QVERIFY(!peer->bytes.isEmpty());
    QVERIFY(peer->bytes.size() < 60000000);
    QCOMPARE(number(simulator.connection(), "messages"), 0);
    QCOMPARE(end(simulator.connection()), text("abandoned"));
}

void tst_DeviceSim::nobodyListens()
{
    const DeafPort port;
    Simulator simulator;
    simulator.start(port.arguments() + words("--connections 3 --output json"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 1);
    QCOMPARE(number(simulator.summary(), "opened"), 0);
    QCOMPARE(number(simulator.summary(), "failed"), 3);
    QCOMPARE(end(simulator.connection()), text("failed"));
    QCOMPARE(simulator.connection().value(text("error")).toString(),
             QString::fromLocal8Bit(std::strerror(ECONNREFUSED)));
}

void tst_DeviceSim::peerEndsEarly_data()
{
    QTest::addColumn<bool>("resets");
    QTest::newRow("closes") << false;
    QTest::newRow("resets") << true;
}

void tst_DeviceSim::peerEndsEarly()
{
    QFETCH(const bool, resets);
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--messages 0 --rate 1")); // it has time to notice
    QTRY_COMPARE(receiver.peers.size(), 1);
    Peer *peer = receiver.peers.first();
    QTRY_VERIFY(!peer->bytes.isEmpty());
    if (resets)
        peer->reset();
    else
        peer->close();
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 1);
    QCOMPARE(number(simulator.summary(), "opened"), 1);
    QCOMPARE(number(simulator.summary(), "failed"), 1);
    QCOMPARE(end(simulator.connection()), text("failed"));
    QVERIFY(!simulator.connection().value(text("error")).toString().isEmpty());
}

void tst_DeviceSim::stopsReconnectingAfterFailure()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--messages 1000 --rate 100 --reconnect 1"));
    QTRY_COMPARE(receiver.peers.size(), 1);
    receiver.peers.first()->reset();
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 1);
    QCOMPARE(simulator.connections().size(), 1);
}

void tst_DeviceSim::wrongCommandLine()
{
    Simulator simulator;
    simulator.start(words("--close never"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 2);
    QCOMPARE(simulator.output, QByteArray());
    QCOMPARE(simulator.errors(),
             QByteArray("devicesim: --close: unknown value: never; it takes close, half-close, "
                        "abort, stay\n"));
}

void tst_DeviceSim::anyLocale_data()
{
    localeRows();
}

void tst_DeviceSim::anyLocale()
{
    QFETCH(const QStringList, environment);
    Simulator simulator;
    simulator.setEnvironment(environment);
    simulator.start(words("--help"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(simulator.errors(), QByteArray());
}

void tst_DeviceSim::reportsTexts()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--connections 2 --messages 3 --output text"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    const QRegularExpression expected(
            text("\\Adevice 1 connection 1: 3 messages, 195 bytes, \\d+ ms, closed, local port "
                 "\\d+, sha1 %1\ndevice 2 connection 1: 3 messages, 195 bytes, \\d+ ms, closed, "
                 "local port \\d+, sha1 %2\n2 connections opened, 0 failed; 6 messages, 390 bytes "
                 "in \\d+ ms\n\\z")
                    .arg(QString::fromLatin1(sha1(stream(1, 1, 3))),
                         QString::fromLatin1(sha1(stream(2, 1, 3)))));
    QVERIFY2(expected.match(QString::fromLatin1(simulator.output)).hasMatch(),
             simulator.output.constData());
}

void tst_DeviceSim::reportsSummaryOnly()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--connections 2 --quiet"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.document().keys(), QStringList(text("summary")));
    QCOMPARE(number(simulator.summary(), "opened"), 2);
}

void tst_DeviceSim::tls_data()
{
    QTest::addColumn<QByteArray>("commandLine");
    QTest::addColumn<QSsl::SslProtocol>("protocol");
    QTest::newRow("1.2") << QByteArray("--tls-version 1.2") << QSsl::TlsV1_2;
    QTest::newRow("1.3") << QByteArray("--tls-version 1.3") << QSsl::TlsV1_3;
    QTest::newRow("latest") << QByteArray() << QSsl::TlsV1_3;
    QTest::newRow("by name") << QByteArray("--server-name receiver.example") << QSsl::TlsV1_3;
    QTest::newRow("random cuts") << QByteArray("--segments random") << QSsl::TlsV1_3;
    QTest::newRow("half-close") << QByteArray("--close half-close") << QSsl::TlsV1_3;
}

void tst_DeviceSim::tls()
{
    QFETCH(const QByteArray, commandLine);
    QFETCH(const QSsl::SslProtocol, protocol);
    TlsReceiver receiver(serverConfiguration());
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver,
                    words("--tls --messages 50 --connections 3") + words(commandLine.constData())
                            + QStringList{text("--ca"), file("ca.pem")});
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(receiver.sockets.size(), 3);
    QCOMPARE(receiver.encrypted, 3);
    QTRY_COMPARE(receiver.disconnected, 3);
    for (qsizetype i = 0; i < 3; ++i) {
        const QByteArray received = receiver.bytes.value(receiver.sockets.at(i));
        const quint64 device = received.mid(1, 1).toULongLong();
        QCOMPARE(received, stream(device, 1, 50));
        QVERIFY(receiver.protocols.at(i) == protocol);
    }
    for (int i = 0; i < 3; ++i) {
        const QByteArray sent = stream(static_cast<quint64>(i) + 1, 1, 50);
        QCOMPARE(number(simulator.connection(i), "bytes"), sent.size());
        QCOMPARE(simulator.connection(i).value(text("sha1")).toString().toLatin1(), sha1(sent));
        QCOMPARE(end(simulator.connection(i)), text("closed"));
    }
}

// Session tickets may not make the kernel throw away what is on its way.
void tst_DeviceSim::tlsDeliversThenCloses()
{
    TlsReceiver receiver(serverConfiguration());
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver,
                    words("--tls --insecure --tls-version 1.3 --messages 20000 --size 200"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE(receiver.disconnected, 1);
    Options options;
    options.size = 200;
    QVERIFY(receiver.bytes.value(receiver.sockets.first()) == stream(1, 1, 20000, options));
}

void tst_DeviceSim::tlsReconnects()
{
    TlsReceiver receiver(serverConfiguration());
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--tls --insecure --messages 4 --reconnect 1"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(receiver.sockets.size(), 2);
    QTRY_COMPARE(receiver.disconnected, 2);
    QCOMPARE(receiver.bytes.value(receiver.sockets.at(0)), stream(1, 1, 2));
    QCOMPARE(receiver.bytes.value(receiver.sockets.at(1)), stream(1, 3, 4));
}

void tst_DeviceSim::tlsRefusals_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QString>("error");
    const QString distrust = text("the server's certificate is not trusted: ");
    QTest::newRow("other authority") << QStringList{text("--ca"), file("stranger.pem")} << distrust;
    QTest::newRow("system's authorities") << QStringList() << distrust;
    const char *const mismatch = X509_verify_cert_error_string(X509_V_ERR_HOSTNAME_MISMATCH);
    QTest::newRow("other name") << QStringList{text("--ca"), file("ca.pem"), text("--server-name"),
                                               text("other.example")}
                                << distrust + text(mismatch);
}

void tst_DeviceSim::tlsRefusals()
{
    QFETCH(const QStringList, arguments);
    QFETCH(const QString, error);
    TlsReceiver receiver(serverConfiguration());
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--tls") + arguments);
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 1);
    QCOMPARE(end(simulator.connection()), text("failed"));
    QCOMPARE(number(simulator.summary(), "opened"), 0);
    const QString reported = simulator.connection().value(text("error")).toString();
    QVERIFY2(reported.startsWith(error), qPrintable(reported));
    QCOMPARE(receiver.encrypted, 0);
}

void tst_DeviceSim::tlsServerRefusesDevice_data()
{
    QTest::addColumn<QString>("version");
    QTest::newRow("TLS 1.2") << text("1.2");
    QTest::newRow("TLS 1.3, after the device's handshake") << text("1.3");
}

void tst_DeviceSim::tlsServerRefusesDevice()
{
    QFETCH(const QString, version);
    QTcpServer listener;
    QVERIFY(listener.listen(testAddress()));
    Simulator simulator;
    simulator.start(listener, words("--tls --insecure --tls-version") + QStringList(version));
    QVERIFY(listener.waitForNewConnection(HangGuardMs));
    const std::unique_ptr<QTcpSocket> accepted(listener.nextPendingConnection());
    TlsPeer peer(accepted->socketDescriptor(), file("server.pem"), file("server.key"));
    peer.requireCertificate();
    QVERIFY(!peer.handshake());
    accepted->abort();

    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 1);
    QCOMPARE(end(simulator.connection()), text("failed"));
    QVERIFY(!simulator.connection().value(text("error")).toString().isEmpty());
}

// Qt's way to refuse is to close, so only a device that has more to say can notice.
void tst_DeviceSim::tlsQtServerRefusesDevice()
{
    QSslConfiguration configuration = serverConfiguration();
    configuration.setPeerVerifyMode(QSslSocket::VerifyPeer);
    TlsReceiver receiver(configuration);
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--tls --insecure --messages 0 --rate 100"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 1);
    QCOMPARE(end(simulator.connection()), text("failed"));
    QCOMPARE(receiver.encrypted, 0);
}

void tst_DeviceSim::tlsClientCertificate()
{
    QSslConfiguration configuration = serverConfiguration();
    configuration.setPeerVerifyMode(QSslSocket::VerifyPeer);
    TlsReceiver receiver(configuration);
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver,
                    words("--tls --messages 3")
                            + QStringList{text("--ca"), file("ca.pem"), text("--cert"),
                                          file("device.pem"), text("--key"), file("device.key")});
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(receiver.peerNames, QStringList(text("device")));
    QTRY_COMPARE(receiver.disconnected, 1);
    QCOMPARE(receiver.bytes.value(receiver.sockets.first()), stream(1, 1, 3));
}

void tst_DeviceSim::tlsUnusableFiles()
{
    const DeafPort port;
    const QList<QStringList> commandLines{
            {text("--ca"), file("none.pem")},
            {text("--cert"), file("none.pem"), text("--key"), file("device.key")},
            {text("--cert"), file("device.pem"), text("--key"), file("none.key")},
            {text("--cert"), file("device.pem"), text("--key"), file("server.key")}, // not its key
    };
    for (const QStringList &arguments : commandLines) {
        Simulator simulator;
        simulator.start(port.arguments() + words("--tls") + arguments);
        QVERIFY(simulator.waitForEnd());
        QCOMPARE(simulator.exitCode(), 2);
        QCOMPARE(simulator.output, QByteArray());
        QVERIFY(simulator.errors().startsWith("devicesim: " + certificates.path().toLocal8Bit()));
    }
}

void tst_DeviceSim::tlsHandshakeTimesOut()
{
    Receiver receiver; // says nothing
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--tls --connect-timeout-ms 200"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 1);
    QCOMPARE(simulator.connection().value(text("error")).toString(),
             text("not connected within 200 ms"));
    QVERIFY(number(simulator.summary(), "elapsedMs") >= 190);
}

void tst_DeviceSim::silent_data()
{
    QTest::addColumn<QByteArray>("commandLine");
    QTest::addColumn<bool>("peerCloses");
    QTest::newRow("until the peer closes") << QByteArray("--tls") << true;
    QTest::newRow("for a while") << QByteArray("--tls --linger-ms 100") << false;
    QTest::newRow("plain") << QByteArray("--linger-ms 100") << false;
}

void tst_DeviceSim::silent()
{
    QFETCH(const QByteArray, commandLine);
    QFETCH(const bool, peerCloses);
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--fault silent") + words(commandLine.constData()));
    QTRY_COMPARE(receiver.peers.size(), 1);
    if (peerCloses)
        receiver.peers.first()->close();
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_VERIFY(receiver.peers.first()->ended != Peer::Open);
    QCOMPARE(receiver.peers.first()->bytes, QByteArray());
    QCOMPARE(end(simulator.connection()), peerCloses ? text("peer-closed") : text("closed"));
    QCOMPARE(number(simulator.summary(), "opened"), 1);
    QCOMPARE(number(simulator.summary(), "messages"), 0);
}

void tst_DeviceSim::garbage()
{
    const QStringList arguments = words("--tls --fault garbage --messages 3 --size 100 --seed 9");
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, arguments);
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QTRY_COMPARE(receiver.peers.size(), 1);
    QTRY_COMPARE(receiver.peers.first()->ended, Peer::Fin);
    const Options options = parseOptions(QStringList(QString()) + arguments).options;
    QCOMPARE(receiver.peers.first()->bytes, stream(1, 1, 3, options));
}

void tst_DeviceSim::abortsHandshake()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--tls --fault abort-handshake"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(end(simulator.connection()), text("reset"));
    QTRY_COMPARE(receiver.peers.size(), 1);
    const Peer *peer = receiver.peers.first();
    QTRY_COMPARE(peer->ended, Peer::Reset);
    QVERIFY(peer->bytes.size() > 9);
    QCOMPARE(peer->bytes.left(2).toHex(), QByteArray("1603")); // a handshake record
    QCOMPARE(peer->bytes.at(5), '\x01'); // with a ClientHello
    QCOMPARE(number(simulator.connection(), "bytes"), 0);
}

void tst_DeviceSim::endsTlsOnly()
{
    TlsReceiver receiver(serverConfiguration());
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--tls --insecure --messages 5 --fault close-notify-only"));
    QTRY_COMPARE(receiver.closeNotified, 1);
    QSslSocket *socket = receiver.sockets.first();
    QCOMPARE(receiver.bytes.value(socket), stream(1, 1, 5));
    QCOMPARE(receiver.disconnected, 0);
    QVERIFY(!peerHasClosed(socket->socketDescriptor()));

    socket->abort();
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(end(simulator.connection()), text("peer-closed"));
}

void tst_DeviceSim::endsTlsOnlyWhateverThePeerAnswers()
{
    QTcpServer listener;
    QVERIFY(listener.listen(testAddress()));
    Simulator simulator;
    simulator.start(listener, words("--tls --insecure --fault close-notify-only --linger-ms 200"));
    QVERIFY(listener.waitForNewConnection(HangGuardMs));
    const std::unique_ptr<QTcpSocket> accepted(listener.nextPendingConnection());
    TlsPeer peer(accepted->socketDescriptor(), file("server.pem"), file("server.key"));
    QVERIFY(peer.handshake());
    QCOMPARE(peer.readToEnd(), stream(1, 1, 1));
    peer.endTls();

    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(end(simulator.connection()), text("closed")); // by itself, after the time it lingers
    QVERIFY(number(simulator.summary(), "elapsedMs") >= 190);
}

void tst_DeviceSim::closesWithoutReading_data()
{
    QTest::addColumn<QByteArray>("fault");
    QTest::addColumn<bool>("reset");
    QTest::newRow("faulty") << QByteArray("--fault close-without-reading") << true;
    QTest::newRow("as it should be") << QByteArray() << false;
}

void tst_DeviceSim::closesWithoutReading()
{
    QFETCH(const QByteArray, fault);
    QFETCH(const bool, reset);
    QTcpServer listener;
    QVERIFY(listener.listen(testAddress()));
    Simulator simulator;
    simulator.start(listener,
                    words("--tls --insecure --tls-version 1.3 --messages 5 --rate 20")
                            + words(fault.constData()));
    QVERIFY(listener.waitForNewConnection(HangGuardMs));
    const std::unique_ptr<QTcpSocket> accepted(listener.nextPendingConnection());

    // OpenSSL itself: QSslSocket does not tell a FIN from an RST.
    TlsPeer peer(accepted->socketDescriptor(), file("server.pem"), file("server.key"));
    QVERIFY(peer.handshake()); // sends session tickets
    QCOMPARE(peer.readToEnd().left(65), stream(1, 1, 1));
    QTRY_COMPARE(peer.wasReset(), reset);

    accepted->abort();
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QCOMPARE(end(simulator.connection()), text("closed"));
    QCOMPARE(number(simulator.connection(), "messages"), 5);
}

QTEST_GUILESS_MAIN(tst_DeviceSim)
#include "tst_devicesim.moc"
