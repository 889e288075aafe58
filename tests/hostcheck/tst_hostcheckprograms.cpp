// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/hostcheck/hostchecktest.h"

using namespace hostchecktest;

namespace {

// The reference host, as it is, or with options that make it lose something.
QString inputhost(const char *options = "")
{
    return QStringLiteral(INPUTHOST_FILE " --plugin " PLUGIN_FILE
                                         " --set ipAddr=127.0.0.1 --set port={port} ")
            + QLatin1String(options);
}

} // namespace

//! hostcheck against host programs.
class tst_HostcheckPrograms : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void findsNothingInInputhost_data();
    void findsNothingInInputhost();
    void findsFault_data();
    void findsFault();
    void skipsWhatWasNotPlayed();

private:
    Files files;
};

void tst_HostcheckPrograms::findsNothingInInputhost_data()
{
    QTest::addColumn<QByteArray>("description");
    QTest::addColumn<QString>("host");
    QTest::newRow("lines") << QByteArray("framing lines\ntext hello\ntext\nmessages 10 0-30\n")
                           << inputhost();
    QTest::newRow("length") << QByteArray("framing length 4 big\ntext hello\nmessages 10 0-30\n")
                            << inputhost("--framing length");
}

void tst_HostcheckPrograms::findsNothingInInputhost()
{
    QFETCH(QByteArray, description);
    QFETCH(QString, host);
    Run run({QStringLiteral("parser"), QStringLiteral("--host"), host, QStringLiteral("--traffic"),
             files.write(QStringLiteral("a.stream"), description)});
    QVERIFY2(run.status() == 0, (run.output() + run.errors()).constData());
    QVERIFY2(run.output().endsWith("\n7 ok, 0 failed, 0 skipped\n"), run.output().constData());
}

void tst_HostcheckPrograms::findsFault_data()
{
    QTest::addColumn<QString>("host");
    QTest::addColumn<QByteArrayList>("failed");
    QTest::addColumn<QByteArray>("text");
    // A line of 12 bytes is too long for it.
    QTest::newRow("long messages lost") << inputhost("--max-message 11") << QByteArrayList{"lost"}
                                        << QByteArray("printed: \"\"\n");
    QTest::newRow("no framing of its own")
            << inputhost("--framing none") << QByteArrayList{"foreign"} << QByteArray("printed: ");
    QTest::newRow("ends at once") << QStringLiteral("sh -c \"echo gone >&2; exit 3\"")
                                  << QByteArrayList{"runs"}
                                  << QByteArray("ended with status 3: gone");
    QTest::newRow("no such program") << QStringLiteral("/nowhere/host") << QByteArrayList{"runs"}
                                     << QByteArray("/nowhere/host: ");
}

void tst_HostcheckPrograms::findsFault()
{
    QFETCH(QString, host);
    QFETCH(QByteArrayList, failed);
    QFETCH(QByteArray, text);
    Run run({QStringLiteral("parser"), QStringLiteral("--host"), host,
             QStringLiteral("--time-limit"), QStringLiteral("500"), QStringLiteral("--only"),
             QLatin1String(failed.first()), QStringLiteral("--traffic"),
             files.write(QStringLiteral("a.stream"),
                         "framing lines\ntext one\ntext two and more\n")});
    QCOMPARE(run.status(), 1);
    for (const QByteArray &check : failed)
        QVERIFY2(run.failed().contains(check), run.output().constData());
    QVERIFY2(run.output().contains(text), run.output().constData());
}

// A host that listens, and never accepts.
void tst_HostcheckPrograms::skipsWhatWasNotPlayed()
{
    const QString host = files.write(QStringLiteral("host.py"),
                                     "import signal, socket, sys\n"
                                     "server = socket.socket()\n"
                                     "server.bind(('127.0.0.1', int(sys.argv[1])))\n"
                                     "server.listen(0)\n"
                                     "signal.pause()\n");
    Run run({QStringLiteral("parser"), QStringLiteral("--host"),
             QStringLiteral("/usr/bin/python3 %1 {port}").arg(host), QStringLiteral("--time-limit"),
             QStringLiteral("500"), QStringLiteral("--traffic"),
             files.write(QStringLiteral("a.stream"), "framing lines\ntext one\n")});
    QCOMPARE(run.status(), 1);
    QVERIFY2(run.failed().contains("runs"), run.output().constData());
    QVERIFY2(run.output().contains(" connections were not played: "), run.output().constData());
    QVERIFY2(run.output().contains("\nskipped a.stream: doubled: not all was played\n"),
             run.output().constData());
}

QTEST_GUILESS_MAIN(tst_HostcheckPrograms)
#include "tst_hostcheckprograms.moc"
