// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/tcpinputplugin2.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/loglines.h"
#include "tests/kit/nativesocket.h"
#include "tests/kit/nofreedescriptors.h"
#include "tests/tcpinput/plugintest.h"

#include <QtCore/QRegularExpression>
#include <QtCore/QThread>
#include <QtTest/QTest>

#include <sys/resource.h>
#include <vector>

using namespace Qt::StringLiterals;
using namespace plugintest;

namespace {

const QString NoThreadLine = u"W: TcpInputPlugin2(p): Not creating task, no thread found"_s;

// The process's address space, as RLIMIT_AS counts it.
rlim_t addressSpace()
{
    QFile file(u"/proc/self/statm"_s);
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    return file.readAll().split(' ').first().toULongLong()
            * static_cast<rlim_t>(::sysconf(_SC_PAGESIZE));
}

//! Leaves the process no memory for more than the given number of bytes while it lives.
class LittleMemory
{
public:
    explicit LittleMemory(rlim_t bytes)
    {
        ::getrlimit(RLIMIT_AS, &before);
        rlimit lowered = before;
        lowered.rlim_cur = addressSpace() + bytes;
        ::setrlimit(RLIMIT_AS, &lowered);
    }
    ~LittleMemory() { ::setrlimit(RLIMIT_AS, &before); }
    Q_DISABLE_COPY_MOVE(LittleMemory)

private:
    rlimit before{};
};

} // namespace

// The process lacks memory or descriptors for a thread or a connection.
class tst_PluginShortage : public PluginTest
{
    Q_OBJECT

private Q_SLOTS:
    void init() { begin(); }
    void cleanup() { end(); }

    void noThreadWithoutMemory();

    // These come last: UndefinedBehaviorSanitizer needs descriptors when it first looks at a class.
    void noThreadWithoutDescriptors();
    void pendingUntilThreadCanBeHad();
    void stoppedWhileNoThreadCanBeHad();
    void pausedWithoutDescriptors_data();
    void pausedWithoutDescriptors();
};

// The system refuses another thread.
void tst_PluginShortage::noThreadWithoutMemory()
{
    Plugin plugin;
    constexpr rlim_t Gigabyte = 1U << 30U;
    plugin.getThread(0)->setStackSize(3U << 30U);
    takeLog();
    {
        const LittleMemory memory(Gigabyte);
        QCOMPARE(plugin.getTask(), nullptr);
    }
    const QStringList lines = takeLog();
    QCOMPARE(lines.size(), 2);
    QVERIFY2(lines[0].contains(u"QThread::start: "_s), qPrintable(lines[0])); // Qt's own line
    QCOMPARE(lines[1], NoThreadLine);
    QVERIFY(plugin.workers().allTasks().isEmpty());
    QVERIFY(plugin.workers().allThreads().isEmpty());

    QVERIFY(plugin.getTask());
    QCOMPARE(takeLog(), QStringList({ThreadLine, TaskLine}));
}

void tst_PluginShortage::noThreadWithoutDescriptors()
{
    Plugin plugin;
    {
        const NoFreeDescriptors none;
        QCOMPARE(plugin.getThread(0), nullptr);
        QCOMPARE(takeLog(), QStringList{ThreadLine});
        QCOMPARE(plugin.getTask(), nullptr);
        QCOMPARE(takeLog(), QStringList({ThreadLine, NoThreadLine}));
        QVERIFY(plugin.workers().allTasks().isEmpty());
        QVERIFY(plugin.workers().allThreads().isEmpty());
    }
    QVERIFY(plugin.getTask());
    takeLog();
}

void tst_PluginShortage::pendingUntilThreadCanBeHad()
{
    Plugin plugin;
    QVERIFY(plugin.start());
    const NativeSocket device = plugin.connectDevice();
    QVERIFY(device.send("here"));
    takeLog();
    {
        NoFreeDescriptors descriptors;
        descriptors.giveBack(1); // for the connection
        QTRY_VERIFY_WITH_TIMEOUT(plugin.findChild<TcpServer *>()->hasPendingConnections(),
                                 HangGuardMs);
        QCOMPARE(takeLog(), QStringList({ThreadLine, NoThreadLine}));
        QCOMPARE(plugin.workers().turn(), 0);
        // The first retry comes before the fence, and logs nothing as long as there are no
        // descriptors.
        QTimer fence;
        fence.setSingleShot(true);
        fence.start(600);
        QTRY_VERIFY_WITH_TIMEOUT(!fence.isActive(), HangGuardMs);
        QCOMPARE(takeLog(), QStringList());
    }
    QCOMPARE(plugin.taskOf("here"), u"0"_s);
    QCOMPARE(plugin.workers().turn(), 1);
    takeLog();
}

// After stop(), accepting is no longer held for want of a thread. It pauses and resumes as ever.
void tst_PluginShortage::stoppedWhileNoThreadCanBeHad()
{
    Plugin plugin;
    QVERIFY(plugin.start());
    const NativeSocket early = plugin.connectDevice();
    {
        NoFreeDescriptors descriptors;
        descriptors.giveBack(1); // for the connection
        QTRY_VERIFY_WITH_TIMEOUT(plugin.findChild<TcpServer *>()->hasPendingConnections(),
                                 HangGuardMs);
        QVERIFY(plugin.stop());
    }
    takeLog();
    QVERIFY(plugin.start()); // from here on the early connection may have its turn
    NativeSocket device = NativeSocket::unconnected(plugin.address);
    QStringList log;
    {
        const NoFreeDescriptors none;
        QVERIFY(device.connect(plugin.address, plugin.port));
        QTRY_VERIFY_WITH_TIMEOUT(!(log += takeLog()).filter(u"Out of file descriptors"_s).isEmpty(),
                                 HangGuardMs);
    }
    QVERIFY(device.send("here"));
    QCOMPARE(plugin.taskOf("here"), u"0"_s);
    // The early connection has its turn, too, in another thread. stop() has closed it.
    QTRY_VERIFY_WITH_TIMEOUT(
            !(log += takeLog()).filter(u"Creating receiving socket failed"_s).isEmpty(),
            HangGuardMs);
}

void tst_PluginShortage::pausedWithoutDescriptors_data()
{
    QTest::addColumn<QJsonObject>("settings");

    QTest::newRow("TCP") << QJsonObject();
    QTest::newRow("TLS") << withTls({});
}

// One line when a pause begins and one when it is over, each time.
void tst_PluginShortage::pausedWithoutDescriptors()
{
    QFETCH(QJsonObject, settings);

    Plugin plugin(settings);
    QVERIFY(plugin.start());
    takeLog();
    const QStringList lines{u"W: TcpInputPlugin2(p): Out of file descriptors, accepting paused"_s,
                            u"I: TcpInputPlugin2(p): Accepting resumed"_s};
    auto episodes = [log = QStringList()]() mutable {
        return log += takeLog().filter(QRegularExpression(u"ccepting"_s));
    };

    std::vector<NativeSocket> devices;
    for (int n = 0; n < 2; ++n)
        devices.push_back(NativeSocket::unconnected(plugin.address));
    QStringList expected;
    for (NativeSocket &device : devices) {
        {
            const NoFreeDescriptors none;
            QVERIFY(device.connect(plugin.address, plugin.port));
            expected += lines.first();
            QTRY_COMPARE_WITH_TIMEOUT(episodes(), expected, HangGuardMs);
        }
        expected += lines.last();
        QTRY_COMPARE_WITH_TIMEOUT(episodes(), expected, HangGuardMs);
    }
}

QTEST_GUILESS_MAIN(tst_PluginShortage)
#include "tst_pluginshortage.moc"
