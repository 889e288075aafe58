// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/exitcodes.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/locales.h"
#include "tests/kit/testaddress.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QLibraryInfo>
#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>
#include <QtTest/QtTest>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace host;

namespace {

// Reasons are the system's, in the user's language.
QByteArray noSuchFile()
{
    return qt_error_string(ENOENT).toLocal8Bit();
}

QByteArray cannotWrite(int error)
{
    return QByteArray("Cannot write to standard output: ") + std::strerror(error);
}

QStringList words(const char *text)
{
    return QString::fromLatin1(text).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

//! The program, with the address and port of this test, unless it is given others.
class Host
{
public:
    explicit Host(quint16 listenPort = freePort()) : port(listenPort) {}
    ~Host()
    {
        if (process.state() == QProcess::NotRunning)
            return;
        process.kill();
        process.waitForFinished(HangGuardMs);
    }
    Q_DISABLE_COPY_MOVE(Host)

    // With the plugin and nothing else.
    void run(const QStringList &arguments)
    {
        QStringList all = {QStringLiteral("--plugin"), QStringLiteral(PLUGIN_FILE)};
        runPlain(all + arguments);
    }
    void runPlain(const QStringList &arguments)
    {
        process.setProgram(QStringLiteral(INPUTHOST_FILE));
        process.setArguments(arguments);
        process.start();
        QVERIFY2(process.waitForStarted(HangGuardMs), qPrintable(process.errorString()));
    }

    // Until it listens.
    void start(const QStringList &arguments = {})
    {
        run(listenArguments() + arguments);
        QTRY_VERIFY2_WITH_TIMEOUT(log().contains("Listening on "), log().constData(), HangGuardMs);
    }
    QStringList listenArguments() const
    {
        return {QStringLiteral("--set"), QStringLiteral("ipAddr=") + testAddress().toString(),
                QStringLiteral("--set"), QStringLiteral("port=%1").arg(port)};
    }

    void signal(int number) const
    {
        if (isRunning()) // otherwise the process id is 0, which stands for this program
            ::kill(static_cast<pid_t>(process.processId()), number);
    }
    bool isRunning() const { return process.state() != QProcess::NotRunning; }

    // Its exit code; -1 if it crashed or was killed.
    int finish()
    {
        if (isRunning() && !process.waitForFinished(HangGuardMs))
            return -2;
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }
    int stop(int number = SIGTERM)
    {
        signal(number);
        return finish();
    }

    // The last counters line. Asks for the next one.
    QByteArray counters()
    {
        signal(SIGUSR1);
        const qsizetype begin = log().lastIndexOf("\nmessages ") + 1;
        return err.mid(begin, err.indexOf('\n', begin) - begin);
    }

    // All since the start.
    QByteArray output()
    {
        out += process.readAllStandardOutput();
        return out;
    }
    QByteArray log()
    {
        err += process.readAllStandardError();
        return err;
    }
    QByteArrayList lines()
    {
        QByteArrayList result = output().split('\n');
        result.removeLast();
        return result;
    }
    QJsonObject record(int n) { return QJsonDocument::fromJson(lines().value(n)).object(); }
    QStringList texts()
    {
        QStringList result;
        for (int n = 0; n < lines().size(); ++n)
            result += record(n).value(QStringLiteral("text")).toString();
        return result;
    }

    QProcess process;
    const quint16 port;

private:
    QByteArray out;
    QByteArray err;
};

class Device
{
public:
    explicit Device(const Host &host, const QHostAddress &address = testAddress())
        : Device(address, host.port)
    {}
    Device(const QHostAddress &address, quint16 port)
    {
        socket.connectToHost(address, port);
        QVERIFY2(socket.waitForConnected(HangGuardMs), qPrintable(socket.errorString()));
    }

    void send(const QByteArray &bytes)
    {
        socket.write(bytes);
        while (socket.bytesToWrite() > 0)
            QVERIFY2(socket.waitForBytesWritten(HangGuardMs), qPrintable(socket.errorString()));
    }
    void close()
    {
        socket.disconnectFromHost();
        if (socket.state() != QAbstractSocket::UnconnectedState)
            socket.waitForDisconnected(HangGuardMs);
    }

    QTcpSocket socket;
};

bool canConnect(quint16 port)
{
    QTcpSocket socket;
    socket.connectToHost(testAddress(), port);
    return socket.waitForConnected(HangGuardMs);
}

QByteArray counted(const QByteArray &message)
{
    return QByteArray(3, '\0') + static_cast<char>(message.size()) + message;
}

} // namespace

class tst_InputHost : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void help();
    void version();
    void anyLocale_data();
    void anyLocale();
    void badArguments();
    void missingLibrary_data();
    void missingLibrary();
    void findsTheLibrary();
    void badConfiguration_data();
    void badConfiguration();
    void refusesToStart();
    void portInUse();
    void portTakenMeanwhile_data();
    void portTakenMeanwhile();

    void jsonRecord_data();
    void jsonRecord();
    void ipv6();
    void configuration_data();
    void configuration();
    void framing_data();
    void framing();
    void rawOutput();
    void countOutput();
    void noOutput();
    void messagesComeAtOnce();
    void messageInTwoPieces_data();
    void messageInTwoPieces();
    void sendAndCloseAtOnce();
    void netcat();
    void maxMessage();
    void exitAfter();

    void stopPrintsWhatIsStillComing_data();
    void stopPrintsWhatIsStillComing();
    void stopWithManyDevices();
    void partialAtStop();
    void partialOfAClosedConnection();
    void secondSignalEndsABlockedProgram();
    void status();
    void statusEvery();
    void logLevels();
    void answersTheLogLevelQuery();
    void raisesTheDescriptorLimit();

    void reload();
    void reloadPrintsWhatIsStillComing();
    void reloadWithBadConfiguration_data();
    void reloadWithBadConfiguration();
    void reloadThatDoesNotListen();
    void reloadThatDoesNotStart();
    void reloadWithNothingToGoBackTo();
    void standardInputIsReadOnce();

    void closedPipe();
    void closedOutput();
    void fullOutput();

private:
    QString writeConfig(const QByteArray &content);
    QByteArray listenConfig(quint16 port, const QByteArray &more = {}) const;

    QTemporaryDir folder;
};

QString tst_InputHost::writeConfig(const QByteArray &content)
{
    QFile file(folder.filePath(QStringLiteral("config.json")));
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        qFatal("Cannot write the configuration");
    return file.fileName();
}

QByteArray tst_InputHost::listenConfig(quint16 port, const QByteArray &more) const
{
    return R"({"ipAddr": ")" + testAddress().toString().toLatin1() + R"(", "port": )"
            + QByteArray::number(port) + more + "}";
}

void tst_InputHost::help()
{
    Host host;
    host.runPlain(words("--help"));
    QCOMPARE(host.finish(), int(ExitOk));
    QVERIFY(host.output().contains("--max-message"));
    QVERIFY(host.output().contains("Exit codes"));
    QCOMPARE(host.log(), QByteArray());
}

void tst_InputHost::version()
{
    Host host;
    host.runPlain(words("--version"));
    QCOMPARE(host.finish(), int(ExitOk));
    QVERIFY(QRegularExpression(QStringLiteral("^inputhost \\d+\\.\\d+\\.\\d+\n$"))
                    .match(QString::fromLatin1(host.output()))
                    .hasMatch());
}

void tst_InputHost::anyLocale_data()
{
    localeRows();
}

void tst_InputHost::anyLocale()
{
    QFETCH(QStringList, environment);
    Host host;
    host.process.setEnvironment(environment);
    host.runPlain(words("--help"));
    QCOMPARE(host.finish(), int(ExitOk));
    QCOMPARE(host.log(), QByteArray());
}

void tst_InputHost::badArguments()
{
    Host host;
    host.runPlain(words("--framing words"));
    QCOMPARE(host.finish(), int(ExitBadArguments));
    QCOMPARE(host.output(), QByteArray());
    QVERIFY(host.log().contains("Invalid value for --framing: 'words'."));
}

void tst_InputHost::missingLibrary_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QString>("entry");

    const QString other =
            QLibraryInfo::path(QLibraryInfo::LibrariesPath) + QStringLiteral("/libQt6Core.so.6");
    for (const char *entry : {"create", "registerPlugin"}) {
        const QString name = QString::fromLatin1(entry);
        QTest::addRow("no file, %s", entry) << folder.filePath(QStringLiteral("none.so")) << name;
        QTest::addRow("no library, %s", entry) << QStringLiteral("/dev/null") << name;
        QTest::addRow("no entry points, %s", entry) << other << name;
    }
}

void tst_InputHost::missingLibrary()
{
    QFETCH(QString, file);
    QFETCH(QString, entry);
    Host host;
    host.runPlain({QStringLiteral("--plugin"), file, QStringLiteral("--entry"), entry});
    QCOMPARE(host.finish(), int(ExitNoLibrary));
    QCOMPARE(host.output(), QByteArray());
    QVERIFY2(host.log().startsWith("error: "), host.log().constData());
}

void tst_InputHost::findsTheLibrary()
{
    Host host;
    host.runPlain(host.listenArguments());
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Listening on "), HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
}

void tst_InputHost::badConfiguration_data()
{
    QTest::addColumn<QString>("file");
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<QByteArray>("complaint");

    QTest::newRow("missing") << "/nonexistent" << QByteArray()
                             << "Cannot read /nonexistent: " + noSuchFile();
    QTest::newRow("not JSON") << "-" << QByteArray("port=1")
                              << QByteArray("standard input is not JSON: ");
    QTest::newRow("empty") << "-" << QByteArray() << QByteArray("standard input is not JSON: ");
    QTest::newRow("no object") << "-" << QByteArray("[1]")
                               << QByteArray("standard input is not a JSON object");
}

void tst_InputHost::badConfiguration()
{
    QFETCH(QString, file);
    QFETCH(QByteArray, input);
    QFETCH(QByteArray, complaint);
    Host host;
    host.run({QStringLiteral("--config"), file});
    host.process.write(input);
    host.process.closeWriteChannel();
    QCOMPARE(host.finish(), int(ExitBadConfiguration));
    QCOMPARE(host.output(), QByteArray());
    QVERIFY2(host.log().contains(complaint), host.log().constData());
}

void tst_InputHost::refusesToStart()
{
    Host host;
    host.run(host.listenArguments() + words("--set ssl={\"CAFile\":\"/nonexistent\"}"));
    QCOMPARE(host.finish(), int(ExitStartFailed));
    QVERIFY2(host.log().contains("The plugin refused to start"), host.log().constData());
}

void tst_InputHost::portInUse()
{
    QTcpServer other;
    QVERIFY(other.listen(testAddress()));
    Host host(other.serverPort());
    host.run(host.listenArguments());
    QCOMPARE(host.finish(), int(ExitNotListening));
    QVERIFY2(host.log().contains("The plugin does not listen"), host.log().constData());
}

void tst_InputHost::portTakenMeanwhile_data()
{
    QTest::addColumn<QString>("tls");
    QTest::newRow("tcp") << QString();
    QTest::newRow("tls") << QStringLiteral("ssl={}");
}

// By another instance that was started at the same moment: both could bind the port, and the other
// one listened first. The kernel plays it here, by a filter that the program inherits.
void tst_InputHost::portTakenMeanwhile()
{
    QFETCH(QString, tls);
    Host host;
    host.process.setChildProcessModifier([] {
        sock_filter filter[] = {
                BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_listen, 0, 1),
                BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EADDRINUSE),
                BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        };
        const sock_fprog program{sizeof filter / sizeof filter[0], filter};
        if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0
            || ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
            ::_exit(EXIT_FAILURE);
    });
    QStringList arguments = host.listenArguments();
    if (!tls.isEmpty())
        arguments += {QStringLiteral("--set"), tls};
    host.run(arguments);
    QCOMPARE(host.finish(), int(ExitNotListening));
    QVERIFY2(host.log().contains("The plugin does not listen"), host.log().constData());
}

void tst_InputHost::jsonRecord_data()
{
    QTest::addColumn<QString>("entry");
    QTest::newRow("create") << "create";
    QTest::newRow("registerPlugin") << "registerPlugin";
}

void tst_InputHost::jsonRecord()
{
    QFETCH(QString, entry);
    Host host;
    host.start({QStringLiteral("--entry"), entry, QStringLiteral("--id"), QStringLiteral("my id")});
    const QDateTime before = QDateTime::currentDateTimeUtc().addSecs(-1);
    Device device(host);
    device.send("hello\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);

    const QString address = testAddress().toString();
    const QString peer = device.socket.localAddress().toString();
    const int peerPort = device.socket.localPort();
    const QString client =
            QStringLiteral("tcp2:%1:%2-%3:%4").arg(address).arg(host.port).arg(peer).arg(peerPort);
    QJsonObject record = host.record(0);
    const QDateTime time =
            QDateTime::fromString(record.take(QStringLiteral("time")).toString(), Qt::ISODate);
    QVERIFY(time >= before && time <= QDateTime::currentDateTimeUtc());
    QCOMPARE(record,
             QJsonObject({{QStringLiteral("plugin"), QStringLiteral("my id")},
                          {QStringLiteral("source"), QString(QStringLiteral("TCP:") + client)},
                          {QStringLiteral("peer"), peer},
                          {QStringLiteral("port"), peerPort},
                          {QStringLiteral("client"), client},
                          {QStringLiteral("task"), 0},
                          {QStringLiteral("bytes"), 5},
                          {QStringLiteral("text"), QStringLiteral("hello")}}));
    QCOMPARE(host.stop(), int(ExitOk));
    QCOMPARE(host.lines().size(), 1);
}

void tst_InputHost::ipv6()
{
    QTcpServer probe;
    if (!probe.listen(QHostAddress::LocalHostIPv6)) {
        QTest::qSkip("No IPv6 here", __FILE__, __LINE__);
        return;
    }
    const quint16 port = probe.serverPort();
    probe.close();

    Host host(port);
    host.start(words("--set ipAddr=::1"));
    QVERIFY2(host.log().contains("Listening on ::1 port "), host.log().constData());
    Device device(QHostAddress(QHostAddress::LocalHostIPv6), port);
    device.send("hello\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    QCOMPARE(host.record(0).value(QStringLiteral("peer")).toString(), QStringLiteral("::1"));
}

void tst_InputHost::configuration_data()
{
    QTest::addColumn<bool>("input");
    QTest::newRow("file") << false;
    QTest::newRow("standard input") << true;
}

// The port of the file is overridden by the one that is set.
void tst_InputHost::configuration()
{
    QFETCH(bool, input);
    const QByteArray config = listenConfig(1, R"(, "timeout": 77, "threadpoolSize": 3)");
    const QString file = input ? QStringLiteral("-") : writeConfig(config);
    Host host;
    host.run({QStringLiteral("--config"), file, QStringLiteral("--set"),
              QStringLiteral("port=%1").arg(host.port)});
    if (input)
        host.process.write(config);
    host.process.closeWriteChannel();
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Listening on "), HangGuardMs);
    host.signal(SIGUSR1);
    const QByteArray expected = "Listen: " + testAddress().toString().toLatin1() + ':'
            + QByteArray::number(host.port) + ", timeout: 77s, pool size: 3\n";
    QTRY_VERIFY2_WITH_TIMEOUT(host.log().contains(expected), host.log().constData(), HangGuardMs);
}

void tst_InputHost::framing_data()
{
    QTest::addColumn<QString>("framing");
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QStringList>("texts");

    QTest::newRow("lines") << "lines" << QByteArray("a\r\n\nb\xc3\xa4\n")
                           << QStringList{QStringLiteral("a"), QString(),
                                          QStringLiteral("b\u00e4")};
    QTest::newRow("length") << "length" << counted("a\n") + counted("") + counted("b")
                            << QStringList{QStringLiteral("a\n"), QString(), QStringLiteral("b")};
    QTest::newRow("none") << "none" << QByteArray("a\nb") << QStringList{QStringLiteral("a\nb")};
}

void tst_InputHost::framing()
{
    QFETCH(QString, framing);
    QFETCH(QByteArray, bytes);
    QFETCH(QStringList, texts);
    Host host;
    host.start({QStringLiteral("--framing"), framing});
    Device device(host);
    device.send(bytes);
    QTRY_COMPARE_WITH_TIMEOUT(host.texts(), texts, HangGuardMs);
}

void tst_InputHost::rawOutput()
{
    Host host;
    host.start(words("--output raw"));
    Device device(host);
    device.send("a\r\n\xff\nhalf");
    QTRY_COMPARE_WITH_TIMEOUT(host.output(), QByteArray("a\n\xff\n"), HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
    QCOMPARE(host.output(), QByteArray("a\n\xff\n"));
    QVERIFY(host.log().contains("\nmessages 2 bytes 2 connections 1 partial 1 "));
}

void tst_InputHost::countOutput()
{
    Host host;
    host.start(words("--output count"));
    Device first(host);
    first.send("a\nbcd\n");
    Device second(host);
    second.send("\nhalf");
    QTRY_VERIFY_WITH_TIMEOUT(host.counters().startsWith("messages 3 bytes 4 connections 2 "),
                             HangGuardMs);
    QCOMPARE(host.output(), QByteArray());
    QCOMPARE(host.stop(), int(ExitOk));
    QCOMPARE(host.output(), QByteArray("messages 3 bytes 4 connections 2\n"));
}

void tst_InputHost::noOutput()
{
    Host host;
    host.start(words("--output none --exit-after 1"));
    Device device(host);
    device.send("a\n");
    QCOMPARE(host.finish(), int(ExitOk));
    QCOMPARE(host.output(), QByteArray());
    QVERIFY(host.log().contains("messages 1 bytes 1 connections 1"));
}

// Each message is there before the next one is sent.
void tst_InputHost::messagesComeAtOnce()
{
    Host host;
    host.start();
    for (int n = 0; n < 5; ++n) {
        Device device(host);
        device.send(QByteArray::number(n) + '\n');
        QTRY_COMPARE_WITH_TIMEOUT(host.texts().value(n), QString::number(n), HangGuardMs);
    }
}

void tst_InputHost::messageInTwoPieces_data()
{
    QTest::addColumn<int>("first");
    QTest::addColumn<int>("offers"); // of the first piece, before the second one is sent
    QTest::addColumn<int>("second");
    QTest::newRow("a few bytes first") << 5 << 1 << 40;
    QTest::newRow("most of it first") << 40 << 1 << 10;
    QTest::newRow("asked for several times") << 40 << 5 << 10;
}

// The device stays connected and silent: nothing else makes the plugin offer the second piece.
void tst_InputHost::messageInTwoPieces()
{
    QFETCH(int, first);
    QFETCH(int, offers);
    QFETCH(int, second);
    Host host;
    host.start();
    Device device(host);
    const auto offersSoFar = [&] {
        const QByteArray line = host.counters();
        return line.mid(line.lastIndexOf(' ') + 1).toInt();
    };

    device.send(QByteArray(first, 'x'));
    QTRY_VERIFY_WITH_TIMEOUT(offersSoFar() >= offers, HangGuardMs);
    device.send(QByteArray(second, 'y') + '\n');

    QTRY_VERIFY_WITH_TIMEOUT(!host.lines().isEmpty(), HangGuardMs);
    QCOMPARE(host.texts(),
             QStringList(QString(first, QLatin1Char('x')) + QString(second, QLatin1Char('y'))));
    QCOMPARE(device.socket.state(), QAbstractSocket::ConnectedState);
    QCOMPARE(host.stop(), int(ExitOk));
}

// Offered when it is read, and once more when the connection ends.
void tst_InputHost::sendAndCloseAtOnce()
{
    constexpr int devices = 200;
    Host host;
    host.start();
    QStringList expected;
    for (int n = 0; n < devices; ++n) {
        const QByteArray text = "device " + QByteArray::number(n);
        Device device(host);
        device.send(text + '\n');
        device.close();
        expected += QString::fromLatin1(text);
    }
    QTRY_VERIFY_WITH_TIMEOUT(host.lines().size() >= devices, HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
    QStringList texts = host.texts();
    texts.sort();
    expected.sort();
    QCOMPARE(texts, expected);
}

// The simplest device there is: one line each, and not one more.
void tst_InputHost::netcat()
{
    constexpr int devices = 50;
    Host host;
    host.start();
    for (int n = 0; n < devices; ++n) {
        QProcess device;
        device.start(QStringLiteral("nc"),
                     {QStringLiteral("-q0"), testAddress().toString(), QString::number(host.port)});
        device.write("hello\n");
        device.closeWriteChannel();
        QVERIFY2(device.waitForFinished(HangGuardMs), qPrintable(device.errorString()));
        QCOMPARE(device.exitCode(), 0);
    }
    QTRY_VERIFY_WITH_TIMEOUT(host.lines().size() >= devices, HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
    QCOMPARE(host.texts(), QStringList(devices, QStringLiteral("hello")));
}

void tst_InputHost::maxMessage()
{
    Host host;
    host.start(words("--max-message 10"));
    Device device(host);
    device.send("much too long");
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Message of more than 10 bytes skipped"),
                             HangGuardMs);
    device.send(QByteArray(100000, 'x') + "\n0123456789\n01234567890\nend\n");
    // Less than the plugin offers again by itself may be left in it: the last offer brings it.
    device.close();
    QTRY_COMPARE_WITH_TIMEOUT(host.texts().value(1), QStringLiteral("end"), HangGuardMs);
    QCOMPARE(host.texts(), QStringList({QStringLiteral("0123456789"), QStringLiteral("end")}));
    QCOMPARE(host.stop(), int(ExitOk));
    QCOMPARE(host.log().count("warning: "), 2);
    QCOMPARE(host.log().count("Message of more than 10 bytes skipped"), 2);
}

void tst_InputHost::exitAfter()
{
    Host host;
    host.start(words("--exit-after 2"));
    Device device(host);
    device.send("a\nb\nc\nhalf");
    QCOMPARE(host.finish(), int(ExitOk));
    QCOMPARE(host.texts(), QStringList({QStringLiteral("a"), QStringLiteral("b")}));
}

void tst_InputHost::stopPrintsWhatIsStillComing_data()
{
    QTest::addColumn<int>("signal");
    QTest::newRow("SIGINT") << SIGINT;
    QTest::newRow("SIGTERM") << SIGTERM;
}

void tst_InputHost::stopPrintsWhatIsStillComing()
{
    QFETCH(int, signal);
    Host host;
    host.start();
    Device device(host);
    device.send("a\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    // As a rule too early to be offered before the stop.
    device.send("b\n");
    QCOMPARE(host.stop(signal), int(ExitOk));
    QCOMPARE(host.texts(), QStringList({QStringLiteral("a"), QStringLiteral("b")}));
    QVERIFY2(host.log().contains("\nmessages 2 bytes 2 connections 1 "), host.log().constData());
}

// Each of them has sent something that was not offered yet.
void tst_InputHost::stopWithManyDevices()
{
    constexpr int devices = 300;
    Host host;
    host.start();
    std::vector<std::unique_ptr<Device>> all;
    QStringList expected;
    for (int n = 0; n < devices; ++n) {
        all.push_back(std::make_unique<Device>(host));
        all.back()->send("a\n");
        expected += QStringLiteral("a");
    }
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), devices, HangGuardMs);
    for (int n = 0; n < devices; ++n) {
        const QByteArray text = QByteArray::number(n);
        all.at(static_cast<size_t>(n))->send(text + '\n');
        expected += QString::fromLatin1(text);
    }
    QCOMPARE(host.stop(), int(ExitOk));
    QStringList texts = host.texts();
    texts.sort();
    expected.sort();
    QCOMPARE(texts, expected);
}

void tst_InputHost::partialAtStop()
{
    Host host;
    host.start();
    Device device(host);
    device.send("a\nhalf");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
    QCOMPARE(host.texts(), QStringList({QStringLiteral("a"), QStringLiteral("half")}));
    QVERIFY(!host.record(0).contains(QStringLiteral("partial")));
    QCOMPARE(host.record(1).value(QStringLiteral("partial")), QJsonValue(true));
    QCOMPARE(host.record(1).value(QStringLiteral("bytes")), QJsonValue(4));
}

void tst_InputHost::partialOfAClosedConnection()
{
    Host host;
    host.start(words("--set timeout=1"));
    {
        Device device(host);
        device.send("half");
        device.close();
    }
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    QCOMPARE(host.record(0).value(QStringLiteral("text")).toString(), QStringLiteral("half"));
    QCOMPARE(host.record(0).value(QStringLiteral("partial")), QJsonValue(true));
    QCOMPARE(host.stop(), int(ExitOk));
    QCOMPARE(host.lines().size(), 1);
}

// Nobody reads what it writes, so it cannot stop as it should.
void tst_InputHost::secondSignalEndsABlockedProgram()
{
    int ends[2] = {-1, -1};
    QCOMPARE(::pipe2(ends, O_CLOEXEC), 0);
    const auto closing = qScopeGuard([&ends] {
        ::close(ends[0]);
        ::close(ends[1]);
    });
    const int capacity = ::fcntl(ends[1], F_SETPIPE_SZ, 4096);
    QVERIFY(capacity > 0);

    Host host;
    host.process.setChildProcessModifier([&ends] { ::dup2(ends[1], STDOUT_FILENO); });
    host.start(words("--output raw --framing none"));
    Device device(host);
    device.send(QByteArray(2 * capacity, 'x'));
    const auto isFull = [&ends] {
        pollfd request = {ends[1], POLLOUT, 0};
        return ::poll(&request, 1, 0) == 0;
    };
    QTRY_VERIFY_WITH_TIMEOUT(isFull(), HangGuardMs);
    // Signals of one kind merge while one waits, so send until it works.
    const auto isGone = [&host] {
        host.signal(SIGTERM);
        return !host.isRunning();
    };
    QTRY_VERIFY_WITH_TIMEOUT(isGone(), HangGuardMs);
    QCOMPARE(host.finish(), -1);
}

void tst_InputHost::status()
{
    Host host;
    host.start(words("--set timeout=99 --set threadpoolSize=2 --max-message 3"));
    Device device(host);
    device.send("a\nlong\nhal");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    host.signal(SIGUSR1);
    const QByteArray address = testAddress().toString().toLatin1();
    const QByteArray port = QByteArray::number(host.port);
    const QByteArray peer = device.socket.localAddress().toString().toLatin1() + ':'
            + QByteArray::number(device.socket.localPort());
    // Made of lines that end as everywhere else on standard error.
    const QByteArray expected = "messages 1 bytes 1 connections 1 partial 0 too-long 1 offers 1\n"
                                "Listen: "
            + address + ':' + port + ", timeout: 99s, pool size: 2\n   tcp2:" + address + ':' + port
            + '-' + peer + "\n      (empty 0)\n";
    QTRY_VERIFY2_WITH_TIMEOUT(host.log().contains(expected), host.log().constData(), HangGuardMs);
    const int exitCode = host.stop();
    QVERIFY2(exitCode == ExitOk, host.log().constData());
    QVERIFY(host.log().endsWith(
            "messages 1 bytes 1 connections 1 partial 1 too-long 1 offers 2\n"));
}

void tst_InputHost::statusEvery()
{
    Host host;
    host.start(words("--status-every 1"));
    const QByteArray text = "messages 0 bytes 0 connections 0 partial 0 too-long 0 offers 0\n"
                            "Listen: ";
    QTRY_VERIFY_WITH_TIMEOUT(host.log().count(text) >= 2, HangGuardMs);
}

void tst_InputHost::logLevels()
{
    for (const char *level : {"debug", "info", "warning"}) {
        Host host;
        host.run(host.listenArguments() + words("--exit-after 1 --max-message 5 --log-level")
                 + words(level));
        QTRY_VERIFY_WITH_TIMEOUT(canConnect(host.port), HangGuardMs);
        Device device(host);
        device.send("too long\na\n");
        QCOMPARE(host.finish(), int(ExitOk));
        const QByteArray log = host.log();
        const bool isDebug = qstrcmp(level, "debug") == 0;
        const bool isWarning = qstrcmp(level, "warning") == 0;
        QCOMPARE(log.contains("debug: "), isDebug);
        QCOMPARE(log.contains("info: "), !isWarning);
        // The end can come before a worker takes the connection that asked whether there is a
        // server.
        const auto droppedAtStop = log.count("Creating receiving socket failed");
        QVERIFY2(log.count("warning: ") - droppedAtStop == 1, log.constData());
        QCOMPARE(host.lines().size(), 1);
    }
}

// The plugin asks every ten seconds, and reports its threads to a host that wants debug lines.
void tst_InputHost::answersTheLogLevelQuery()
{
    Host quiet;
    quiet.start();
    Host talkative;
    talkative.start(words("--log-level debug"));
    QTRY_VERIFY_WITH_TIMEOUT(talkative.log().contains("#threads = 0, #tasks = 0"), HangGuardMs);
    QVERIFY(!quiet.log().contains("#threads"));
}

void tst_InputHost::raisesTheDescriptorLimit()
{
    Host host;
    host.process.setChildProcessModifier([] {
        rlimit limit = {100, 200};
        ::setrlimit(RLIMIT_NOFILE, &limit);
    });
    host.start();
    QFile limits(QStringLiteral("/proc/%1/limits").arg(host.process.processId()));
    QVERIFY(limits.open(QIODevice::ReadOnly));
    const QString text = QString::fromLatin1(limits.readAll());
    QVERIFY2(text.contains(QRegularExpression(QStringLiteral("Max open files +200 +200"))),
             qPrintable(text));
}

// From one port to another and back.
void tst_InputHost::reload()
{
    Host host;
    const quint16 ports[] = {host.port, freePort()};
    const QString file = writeConfig(listenConfig(ports[0]));
    host.run({QStringLiteral("--config"), file});
    QTRY_COMPARE_WITH_TIMEOUT(host.log().count("Listening on "), 1, HangGuardMs);

    for (int n = 1; n < 4; ++n) {
        const quint16 port = ports[n % 2];
        writeConfig(listenConfig(port));
        host.signal(SIGHUP);
        QTRY_COMPARE_WITH_TIMEOUT(host.log().count("Listening on "), n + 1, HangGuardMs);
        QVERIFY(!canConnect(ports[(n + 1) % 2]));
        Device device(testAddress(), port);
        device.send("a\n");
        QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), n, HangGuardMs);
    }
    QCOMPARE(host.stop(), int(ExitOk));
    QCOMPARE(host.lines().size(), 3);
    QVERIFY(host.log().contains("\nmessages 3 bytes 3 connections 3 "));
    // A plugin that is started twice hands over each connection twice, and warns.
    QVERIFY2(!host.log().contains("warning: "), host.log().constData());
}

void tst_InputHost::reloadPrintsWhatIsStillComing()
{
    Host host;
    host.start();
    Device device(host);
    device.send("a\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    device.send("b\nhalf");
    host.signal(SIGHUP);
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 3, HangGuardMs);
    QCOMPARE(host.texts(),
             QStringList({QStringLiteral("a"), QStringLiteral("b"), QStringLiteral("half")}));
    QCOMPARE(host.record(2).value(QStringLiteral("partial")), QJsonValue(true));
    QTRY_COMPARE_WITH_TIMEOUT(host.log().count("Listening on "), 2, HangGuardMs);
}

void tst_InputHost::reloadWithBadConfiguration_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QByteArray>("complaint");

    QTest::newRow("not JSON") << QByteArray("{") << QByteArray(" is not JSON: ");
    QTest::newRow("no object") << QByteArray("[]") << QByteArray(" is not a JSON object");
    QTest::newRow("missing") << QByteArray() << ": " + noSuchFile();
}

// The plugin goes on, with its connections.
void tst_InputHost::reloadWithBadConfiguration()
{
    QFETCH(QByteArray, content);
    QFETCH(QByteArray, complaint);
    Host host;
    const QString file = writeConfig(listenConfig(host.port));
    host.run({QStringLiteral("--config"), file});
    QTRY_VERIFY_WITH_TIMEOUT(canConnect(host.port), HangGuardMs);
    Device device(host);

    writeConfig(content);
    if (content.isEmpty())
        QVERIFY(QFile::remove(file));
    host.signal(SIGHUP);
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Configuration not changed"), HangGuardMs);
    QVERIFY2(host.log().contains(complaint), host.log().constData());
    QVERIFY2(host.log().contains("error: "), host.log().constData());
    device.send("a\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    QCOMPARE(host.log().count("Listening on "), 1);
    QCOMPARE(host.stop(), int(ExitOk));
}

void tst_InputHost::reloadThatDoesNotListen()
{
    QTcpServer other;
    QVERIFY(other.listen(testAddress()));
    Host host;
    const QString file = writeConfig(listenConfig(host.port));
    host.run({QStringLiteral("--config"), file});
    QTRY_VERIFY_WITH_TIMEOUT(canConnect(host.port), HangGuardMs);

    writeConfig(listenConfig(other.serverPort()));
    host.signal(SIGHUP);
    QTRY_COMPARE_WITH_TIMEOUT(host.log().count("Listening on "), 2, HangGuardMs);
    QVERIFY(host.log().contains("error: "));
    QVERIFY(host.log().contains("The plugin does not listen"));
    Device device(host);
    device.send("a\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
}

void tst_InputHost::reloadThatDoesNotStart()
{
    Host host;
    const QString file = writeConfig(listenConfig(host.port));
    host.run({QStringLiteral("--config"), file});
    QTRY_VERIFY_WITH_TIMEOUT(canConnect(host.port), HangGuardMs);

    writeConfig(listenConfig(host.port, R"(, "ssl": {"CAFile": "/nonexistent"})"));
    host.signal(SIGHUP);
    QTRY_COMPARE_WITH_TIMEOUT(host.log().count("Listening on "), 2, HangGuardMs);
    QVERIFY(host.log().contains("The plugin refused to start"));
    Device device(host);
    device.send("a\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
}

// The old configuration is no good any more, either.
void tst_InputHost::reloadWithNothingToGoBackTo()
{
    const QString certificates = folder.filePath(QStringLiteral("ca.pem"));
    QFile file(certificates);
    QVERIFY(file.open(QIODevice::WriteOnly));
    const QByteArray ssl = R"(, "ssl": {"CAFile": ")" + certificates.toUtf8();
    Host host;
    host.run({QStringLiteral("--config"), writeConfig(listenConfig(host.port, ssl + "\"}"))});
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Listening on "), HangGuardMs);

    QVERIFY(file.remove());
    writeConfig(listenConfig(host.port, ssl + ".missing\"}"));
    host.signal(SIGHUP);
    QCOMPARE(host.finish(), int(ExitStartFailed));
    QCOMPARE(host.log().count("The plugin refused to start"), 2);
    QVERIFY(host.log().contains("\nmessages 0 "));
}

void tst_InputHost::standardInputIsReadOnce()
{
    Host host;
    host.run({QStringLiteral("--config"), QStringLiteral("-")});
    host.process.write(listenConfig(host.port));
    host.process.closeWriteChannel();
    QTRY_VERIFY_WITH_TIMEOUT(canConnect(host.port), HangGuardMs);
    Device device(host);
    host.signal(SIGHUP);
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Standard input can be read once only"),
                             HangGuardMs);
    device.send("a\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.lines().size(), 1, HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
}

void tst_InputHost::closedPipe()
{
    int ends[2] = {-1, -1};
    QCOMPARE(::pipe2(ends, O_CLOEXEC), 0);
    Host host;
    host.process.setChildProcessModifier([&ends] { ::dup2(ends[1], STDOUT_FILENO); });
    host.start();
    ::close(ends[0]);
    ::close(ends[1]);
    Device device(host);
    device.send("a\n");
    QCOMPARE(host.finish(), int(ExitOutputFailed));
    QVERIFY2(host.log().contains("error: "), host.log().constData());
    QVERIFY2(host.log().contains(cannotWrite(EPIPE)), host.log().constData());
}

// Its number must not come to stand for a socket.
void tst_InputHost::closedOutput()
{
    Host host;
    host.process.setChildProcessModifier([] { ::close(STDOUT_FILENO); });
    host.start();
    Device device(host);
    device.send("a\n");
    QCOMPARE(host.finish(), int(ExitOutputFailed));
    QVERIFY2(host.log().contains(cannotWrite(EBADF)), host.log().constData());
}

void tst_InputHost::fullOutput()
{
    Host host;
    host.process.setStandardOutputFile(QStringLiteral("/dev/full"));
    host.start(words("--output count"));
    QCOMPARE(host.stop(), int(ExitOutputFailed));
    QVERIFY2(host.log().contains(cannotWrite(ENOSPC)), host.log().constData());
}

QTEST_GUILESS_MAIN(tst_InputHost)
#include "tst_inputhost.moc"
