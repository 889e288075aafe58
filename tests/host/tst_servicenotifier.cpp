// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/exitcodes.h"
#include "tests/host/inputhosttest.h"
#include "tests/host/servicemanager.h"
#include "tests/kit/hangguard.h"

#include <QtTest/QtTest>

#include <csignal>

using namespace host;
using namespace inputhosttest;

// What the program tells systemd.
class tst_ServiceNotifier : public InputHostTest
{
    Q_OBJECT

private Q_SLOTS:
    void tells_data();
    void tells();
    void noWatchdogForOthers();
    void managerThatIsAway();
};

void tst_ServiceNotifier::tells_data()
{
    QTest::addColumn<QByteArray>("socket");
    QTest::newRow("file") << QByteArray(folder.filePath(QStringLiteral("notify")).toLocal8Bit());
    QTest::newRow("abstract") << '@' + QUuid::createUuid().toByteArray();
}

void tst_ServiceNotifier::tells()
{
    QFETCH(const QByteArray, socket);
    ServiceManager manager(socket);
    Host host;
    host.process.setProcessEnvironment(watchedBy(socket, 3000000));
    const QString file = writeConfig(listenConfig(host.port));
    host.run({QStringLiteral("--config"), file});

    QTRY_VERIFY_WITH_TIMEOUT(manager.find("READY=1") >= 0, HangGuardMs);
    QTRY_VERIFY_WITH_TIMEOUT(host.log().contains("Listening on "), HangGuardMs);
    QTRY_VERIFY_WITH_TIMEOUT(manager.find("STATUS=0 connections, 0 messages") >= 0, HangGuardMs);
    const qsizetype fed = manager.find("WATCHDOG=1");
    QTRY_VERIFY_WITH_TIMEOUT(manager.find("WATCHDOG=1", fed + 1) >= 0, HangGuardMs);

    const qsizetype before = manager.messages().size();
    host.signal(SIGHUP);
    QTRY_VERIFY_WITH_TIMEOUT(manager.find("READY=1", before) >= 0, HangGuardMs);
    const qsizetype reloading = manager.find("RELOADING=1\nMONOTONIC_USEC=", before);
    QVERIFY(reloading >= 0 && reloading < manager.find("READY=1", before));
    const QByteArray time = manager.messages().at(reloading).split('=').last();
    QVERIFY2(time.toLongLong() > 0, time.constData());

    QCOMPARE(host.stop(), int(ExitOk));
    QVERIFY(manager.find("STOPPING=1\nWATCHDOG_USEC=") >= 0);
}

void tst_ServiceNotifier::noWatchdogForOthers()
{
    const QByteArray socket = folder.filePath(QStringLiteral("other")).toLocal8Bit();
    ServiceManager manager(socket);
    Host host;
    QProcessEnvironment environment = watchedBy(socket, 30000);
    environment.insert(QStringLiteral("WATCHDOG_PID"), QStringLiteral("1"));
    host.process.setProcessEnvironment(environment);
    host.start();
    QTRY_VERIFY_WITH_TIMEOUT(manager.find("STATUS=") >= 0, HangGuardMs); // behind many turns
    QCOMPARE(host.stop(), int(ExitOk));
    QCOMPARE(manager.find("WATCHDOG"), -1);
    QCOMPARE(manager.find("STOPPING=1"), manager.messages().size() - 1);
}

void tst_ServiceNotifier::managerThatIsAway()
{
    Host host;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("NOTIFY_SOCKET"), folder.filePath(QStringLiteral("nobody")));
    host.process.setProcessEnvironment(environment);
    host.start();
    QCOMPARE(host.stop(), int(ExitOk));
}

QTEST_GUILESS_MAIN(tst_ServiceNotifier)
#include "tst_servicenotifier.moc"
