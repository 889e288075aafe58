// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/hostcheck/hostchecktest.h"
#include "tests/kit/privatenetwork.h"

#include <QtCore/QXmlStreamReader>
#include <QtNetwork/QTcpServer>

#include <cstdlib>
#include <map>

#include <fcntl.h>
#include <unistd.h>

using namespace hostchecktest;

namespace {

//! A fault of tests/stock/ (see its planted.h), and the check that finds it.
struct Planted
{
    const char *fault;
    const char *check;
};

constexpr Planted PlantedFaults[] = {
        {"interval-100", "holds-within-200-ms"},
        {"kick-soon", "kick"},
        {"kick-79", "kick"},
        {"reoffer-19", "keeps-20"},
        {"idle-not-renewed", "idle-time-out-renewed"},
        {"no-last-offer", "last-offer"},
        {"cuts-one-more", "whole-buffer"},
        {"source", "record"},
        {"port-65535", "defaults"},
        {"bad-address", "bad-address"},
        {"stop-level", "stop"},
        {"rotation", "rotation"},
        {"status-ms", "status-before-start"},
        {"no-plugin-id", "record"},
        {"null-deref", "discard-one-connection"},
        {"report-always", "thread-report"},
        {"keeps-creator", "register-replaces"},
        {"virtual-order", "virtual-order"},
};

QStringList arguments(const char *file, const QString &only = QString())
{
    QStringList result = {QStringLiteral("plugin"), QLatin1String(file)};
    if (!only.isEmpty())
        result += {QStringLiteral("--only"), only};
    return result;
}

QString exactly(const QString &check)
{
    return QStringLiteral("^(%1)$").arg(check);
}

} // namespace

//! hostcheck against the library, and against libraries that are wrong in one point.
class tst_HostcheckLibraries : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void findsNothingInLibrary();
    void findsNothingWithoutFault();
    void findsPlantedFault_data();
    void findsPlantedFault();
    void findsMissingOptions();
    void findsHang();
    void saysWhatCannotBeChecked();
    void showsProgressOnTerminal();
    void skipsWhatNeedsPortInUse();

private:
    // All are started at once: most of them wait.
    std::map<QByteArray, std::unique_ptr<Run>> planted;
    std::unique_ptr<Run> library;
    std::unique_ptr<Run> sound;
    std::unique_ptr<Run> hung;
    Files files;
    bool isAlone = false; // in a network of its own
};

void tst_HostcheckLibraries::initTestCase()
{
    isAlone = PrivateNetwork::enter();
    library = std::make_unique<Run>(
            arguments(PLUGIN_FILE)
            + QStringList{QStringLiteral("--junit"), files.path(QStringLiteral("junit.xml"))});
    // What a faulty library leaves out need not be waited for long.
    const QStringList shortLimit = {QStringLiteral("--time-limit"), QStringLiteral("3000")};
    QStringList checks;
    for (const Planted &fault : PlantedFaults) {
        const QString check = QString::fromLatin1(fault.check);
        checks += check;
        planted[fault.fault] = std::make_unique<Run>(
                arguments(STOCK_PLUGIN_FILE, exactly(check)) + shortLimit,
                QStringList{QStringLiteral("STOCK_FAULT=") + QLatin1String(fault.fault)});
    }
    hung = std::make_unique<Run>(
            arguments(STOCK_PLUGIN_FILE, exactly(QStringLiteral("create")))
                    + QStringList{QStringLiteral("--time-limit"), QStringLiteral("1")},
            QStringList{QStringLiteral("STOCK_FAULT=create-pauses")});
    checks.removeDuplicates();
    sound = std::make_unique<Run>(
            arguments(STOCK_PLUGIN_FILE, exactly(checks.join(QLatin1Char('|')))));
}

void tst_HostcheckLibraries::findsNothingInLibrary()
{
    const int status = library->status();
    QVERIFY2(status == 0, library->output().constData());
    Run list({QStringLiteral("plugin"), QStringLiteral("--list")});
    QCOMPARE(list.status(), 0);
    const auto checks = list.output().count('\n');
    QVERIFY2(library->output().contains(QByteArray::number(checks) + " ok, 0 failed, 0 skipped\n"),
             library->output().constData());

    QFile file(files.path(QStringLiteral("junit.xml")));
    QVERIFY(file.open(QIODevice::ReadOnly));
    QXmlStreamReader xml(&file);
    QVERIFY(xml.readNextStartElement());
    QCOMPARE(xml.attributes().value(QLatin1String("failures")).toString(), QStringLiteral("0"));
    const int tests = xml.attributes().value(QLatin1String("tests")).toInt();
    QCOMPARE(tests, checks);
}

// Otherwise a planted fault proves nothing.
void tst_HostcheckLibraries::findsNothingWithoutFault()
{
    const int status = sound->status();
    QVERIFY2(status == 0, sound->output().constData());
}

void tst_HostcheckLibraries::findsPlantedFault_data()
{
    QTest::addColumn<QByteArray>("fault");
    QTest::addColumn<QByteArray>("check");
    for (const Planted &fault : PlantedFaults)
        QTest::newRow(fault.fault) << QByteArray(fault.fault) << QByteArray(fault.check);
}

void tst_HostcheckLibraries::findsPlantedFault()
{
    QFETCH(QByteArray, fault);
    QFETCH(QByteArray, check);
    Run &run = *planted[fault];
    QCOMPARE(run.status(), 1);
    QCOMPARE(run.failed(), QByteArrayList{check});
}

// The plain form has no options of its own, no counters and another class name.
void tst_HostcheckLibraries::findsMissingOptions()
{
    Run run(arguments(
            STOCK_PLUGIN_FILE,
            exactly(QStringLiteral(
                    "class-names|counters|drain|shared-port|offsets|strict|bad-options"))));
    QCOMPARE(run.status(), 1);
    QCOMPARE(run.failed(),
             QByteArrayList({"class-names", "counters", "drain", "shared-port", "offsets", "strict",
                             "bad-options"}));
}

void tst_HostcheckLibraries::findsHang()
{
    QCOMPARE(hung->status(), 1);
    QVERIFY2(hung->output().contains("FAILED  create: hangs: killed after "),
             hung->output().constData());
}

void tst_HostcheckLibraries::saysWhatCannotBeChecked()
{
    Run missing(arguments("/nowhere/plugin.so"));
    QCOMPARE(missing.status(), 2);
    QVERIFY2(missing.errors().contains("/nowhere/plugin.so"), missing.errors().constData());
    Run noLibrary(arguments(HOSTCHECK_FILE, exactly(QStringLiteral("create"))));
    QCOMPARE(noLibrary.status(), 1);
    QCOMPARE(noLibrary.failed(), QByteArrayList{"create"});
    Run unknown(arguments(PLUGIN_FILE, QStringLiteral("no-such-check")));
    QCOMPARE(unknown.status(), 2);
    QVERIFY2(unknown.errors().contains("no check of this name"), unknown.errors().constData());
}

// On a terminal alone: the other runs have left standard error empty.
void tst_HostcheckLibraries::showsProgressOnTerminal()
{
    const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    QVERIFY(terminal >= 0);
    const auto close = qScopeGuard([terminal] { ::close(terminal); });
    QVERIFY(grantpt(terminal) == 0 && unlockpt(terminal) == 0);
    QProcess process;
    process.setStandardErrorFile(QString::fromLocal8Bit(ptsname(terminal)));
    process.start(QStringLiteral(HOSTCHECK_FILE),
                  arguments(PLUGIN_FILE, exactly(QStringLiteral("create|creator"))));
    QVERIFY(process.waitForFinished(HangGuardMs));
    QByteArray shown(4096, '\0');
    shown.truncate(std::max<ssize_t>(read(terminal, shown.data(), 4096), 0));
    QVERIFY2(shown.contains("checks: 0 of 2 (0 %)"), shown.constData());
    QCOMPARE(library->errors(), QByteArray());
}

// The default port, on all addresses: an inputhost that somebody tries out beside it.
void tst_HostcheckLibraries::skipsWhatNeedsPortInUse()
{
    if (!isAlone)
        QSKIP("no network of its own", );
    QTcpServer server;
    QVERIFY2(server.listen(QHostAddress::Any, 7446), qPrintable(server.errorString()));
    Run run(arguments(PLUGIN_FILE, exactly(QStringLiteral("defaults"))));
    QCOMPARE(run.status(), 0);
    QCOMPARE(run.output(),
             QByteArray("skipped defaults: port 7446 is in use\n0 ok, 0 failed, 1 skipped\n"));
}

QTEST_GUILESS_MAIN(tst_HostcheckLibraries)
#include "tst_hostchecklibraries.moc"
