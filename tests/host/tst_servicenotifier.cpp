// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/exitcodes.h"
#include "tests/host/inputhosttest.h"
#include "tests/kit/hangguard.h"

#include <QtTest/QtTest>

#include <csignal>
#include <cstddef>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace host;
using namespace inputhosttest;

namespace {

//! The service manager's end.
class Manager
{
public:
    // name: as in NOTIFY_SOCKET.
    explicit Manager(const QByteArray &name)
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name.constData(), std::size_t(name.size()));
        if (name.startsWith('@'))
            address.sun_path[0] = '\0';
        fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        const auto size = socklen_t(offsetof(sockaddr_un, sun_path) + std::size_t(name.size()));
        if (::bind(fd, reinterpret_cast<sockaddr *>(&address), size) != 0)
            qFatal("Cannot bind the manager's socket");
    }
    ~Manager() { ::close(fd); }
    Q_DISABLE_COPY_MOVE(Manager)

    // All messages so far, in order.
    const QByteArrayList &messages()
    {
        char buffer[1024];
        for (ssize_t size = 0; (size = ::recv(fd, buffer, sizeof(buffer), 0)) >= 0;)
            all += QByteArray(buffer, size);
        return all;
    }
    // Where one begins like this, from that index on; -1: nowhere.
    qsizetype find(const char *begin, qsizetype from = 0)
    {
        for (qsizetype n = from; n < messages().size(); ++n) {
            if (all.at(n).startsWith(begin))
                return n;
        }
        return -1;
    }

private:
    int fd = -1;
    QByteArrayList all;
};

} // namespace

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
    Manager manager(socket);
    Host host;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("NOTIFY_SOCKET"), QString::fromLocal8Bit(socket));
    environment.insert(QStringLiteral("WATCHDOG_USEC"), QStringLiteral("3000000"));
    host.process.setProcessEnvironment(environment);
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
    Manager manager(folder.filePath(QStringLiteral("other")).toLocal8Bit());
    Host host;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("NOTIFY_SOCKET"), folder.filePath(QStringLiteral("other")));
    environment.insert(QStringLiteral("WATCHDOG_USEC"), QStringLiteral("30000"));
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
