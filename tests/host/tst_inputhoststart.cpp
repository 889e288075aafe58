// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/exitcodes.h"
#include "tests/host/inputhosttest.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/locales.h"
#include "tests/kit/privatenetwork.h"
#include "tests/kit/testaddress.h"

#include <QtCore/QLibraryInfo>
#include <QtNetwork/QTcpServer>
#include <QtTest/QtTest>

#include <cerrno>
#include <cstddef>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace host;
using namespace inputhosttest;

// The start of the program, and the errors that prevent it.
class tst_InputHostStart : public InputHostTest
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
    void olderLibrary();
    void findsTheLibrary();
    void badConfiguration_data();
    void badConfiguration();
    void refusesUnknownKeys();
    void warnsOfPlainTcp();
    void refusesToStart();
    void portInUse();
    void portTakenMeanwhile_data();
    void portTakenMeanwhile();
};

void tst_InputHostStart::help()
{
    Host host;
    host.runPlain(words("--help"));
    QCOMPARE(host.finish(), int(ExitOk));
    QVERIFY(host.output().contains("--max-message"));
    QVERIFY(host.output().contains("Exit codes"));
    QCOMPARE(host.log(), QByteArray());
}

void tst_InputHostStart::version()
{
    Host host;
    host.runPlain(words("--version"));
    QCOMPARE(host.finish(), int(ExitOk));
    QVERIFY(QRegularExpression(QStringLiteral("^inputhost \\d+\\.\\d+\\.\\d+\n$"))
                    .match(QString::fromLatin1(host.output()))
                    .hasMatch());
}

void tst_InputHostStart::anyLocale_data()
{
    localeRows();
}

void tst_InputHostStart::anyLocale()
{
    QFETCH(QStringList, environment);
    Host host;
    host.process.setEnvironment(environment);
    host.runPlain(words("--help"));
    QCOMPARE(host.finish(), int(ExitOk));
    QCOMPARE(host.log(), QByteArray());
}

void tst_InputHostStart::badArguments()
{
    Host host;
    host.runPlain(words("--framing words"));
    QCOMPARE(host.finish(), int(ExitBadArguments));
    QCOMPARE(host.output(), QByteArray());
    QVERIFY(host.log().contains("Invalid value for --framing: 'words'."));
}

void tst_InputHostStart::missingLibrary_data()
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

void tst_InputHostStart::missingLibrary()
{
    QFETCH(QString, file);
    QFETCH(QString, entry);
    Host host;
    host.runPlain({QStringLiteral("--plugin"), file, QStringLiteral("--entry"), entry});
    QCOMPARE(host.finish(), int(ExitNoLibrary));
    QCOMPARE(host.output(), QByteArray());
    QVERIFY2(host.log().split('\n').value(1).startsWith("error: "), host.log().constData());
}

void tst_InputHostStart::olderLibrary()
{
    Host host;
    host.runPlain(host.listenArguments()
                  + QStringList{QStringLiteral("--plugin"), QStringLiteral(OLD_PLUGIN_FILE)});
    QCOMPARE(host.finish(), int(ExitNoLibrary));
    QVERIFY2(host.log().contains("is older than these headers"), host.log().constData());
}

void tst_InputHostStart::findsTheLibrary()
{
    Host host;
    host.runPlain(host.listenArguments());
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Listening on "), HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
}

void tst_InputHostStart::badConfiguration_data()
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

void tst_InputHostStart::badConfiguration()
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

void tst_InputHostStart::refusesUnknownKeys()
{
    Host host;
    host.run(host.listenArguments() + words("--set Port=1"));
    QCOMPARE(host.finish(), int(ExitStartFailed));
    QVERIFY2(host.log().contains("Unknown key Port. Did you mean port?"), host.log().constData());

    Host lenient;
    lenient.start(words("--set Port=1 --set timeout=0 --set strict=false"));
    QCOMPARE(lenient.stop(), int(ExitOk));
    QCOMPARE(lenient.log().count("Ignored in the configuration: unknown key Port, accepted: "), 1);
    QCOMPARE(lenient.log().count("Ignored in the configuration: timeout is 0, accepted: "), 1);
}

void tst_InputHostStart::warnsOfPlainTcp()
{
    const QByteArray warning = ": whoever is on the way can read and change what devices send.";
    Host here;
    here.start();
    QCOMPARE(here.stop(), int(ExitOk));
    QVERIFY(!here.log().contains(warning));
    Host everywhere; // a port that is free on one address may be another test's on another
    everywhere.process.setChildProcessModifier([] { PrivateNetwork::enter(); });
    everywhere.start(words("--set ipAddr=0.0.0.0"));
    QCOMPARE(everywhere.stop(), int(ExitOk));
    QCOMPARE(everywhere.log().count("Plain TCP on 0.0.0.0" + warning), 1);
}

void tst_InputHostStart::refusesToStart()
{
    Host host;
    host.run(host.listenArguments() + words("--set ssl={\"CAFile\":\"/nonexistent\"}"));
    QCOMPARE(host.finish(), int(ExitStartFailed));
    QVERIFY2(host.log().contains("The plugin refused to start"), host.log().constData());
}

void tst_InputHostStart::portInUse()
{
    QTcpServer other;
    QVERIFY(other.listen(testAddress()));
    Host host(other.serverPort());
    host.run(host.listenArguments());
    QCOMPARE(host.finish(), int(ExitNotListening));
    QVERIFY2(host.log().contains("The plugin does not listen"), host.log().constData());
}

void tst_InputHostStart::portTakenMeanwhile_data()
{
    QTest::addColumn<QString>("tls");
    QTest::newRow("tcp") << QString();
    QTest::newRow("tls") << QStringLiteral("ssl={\"verifyPeer\":false}");
}

// Two instances start at the same moment. Both bind the port, and the other one listens first. Here
// a system call filter, which the program inherits, makes its listen() fail.
void tst_InputHostStart::portTakenMeanwhile()
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

QTEST_GUILESS_MAIN(tst_InputHostStart)
#include "tst_inputhoststart.moc"
