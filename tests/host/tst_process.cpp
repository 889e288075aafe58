// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/process.h"

#include "tests/kit/messagecapture.h"

#include <QtCore/QScopeGuard>
#include <QtTest/QtTest>

#include <ctime>
#include <malloc.h>
#include <sys/resource.h>

using namespace host;

// The settings that inputhost requests from the system.
class tst_Process : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanup();

    void timeZone_data();
    void timeZone();
    void timeZoneStaysTheSystems();
    void descriptorLimit();
    void largeBlocksGoBack();

private:
    bool wasSet = false;
    QByteArray original;
};

void tst_Process::initTestCase()
{
    wasSet = qEnvironmentVariableIsSet("TZ");
    original = qgetenv("TZ");
}

void tst_Process::cleanup()
{
    wasSet ? qputenv("TZ", original) : qunsetenv("TZ");
    ::tzset();
}

void tst_Process::timeZone_data()
{
    QTest::addColumn<QByteArray>("given");
    QTest::newRow("a name") << QByteArray("Asia/Kolkata");
    QTest::newRow("a rule") << QByteArray("QQQ-13:17");
    QTest::newRow("a file") << QByteArray(":/usr/share/zoneinfo/UTC");
    QTest::newRow("empty, which is UTC") << QByteArray("");
}

void tst_Process::timeZone()
{
    QFETCH(QByteArray, given);
    qputenv("TZ", given);
    settleTimeZone();
    QVERIFY(qEnvironmentVariableIsSet("TZ"));
    QCOMPARE(qgetenv("TZ"), given);
}

void tst_Process::timeZoneStaysTheSystems()
{
    const auto offset = [] {
        ::tzset();
        const std::time_t someTime = 1'600'000'000;
        std::tm local{};
        ::localtime_r(&someTime, &local);
        return local.tm_gmtoff;
    };
    qunsetenv("TZ");
    const auto before = offset();

    settleTimeZone();

    QVERIFY(!qEnvironmentVariableIsEmpty("TZ"));
    QCOMPARE(offset(), before);
}

void tst_Process::descriptorLimit()
{
    rlimit given{};
    QCOMPARE(::getrlimit(RLIMIT_NOFILE, &given), 0);
    const auto restore = qScopeGuard([&] { ::setrlimit(RLIMIT_NOFILE, &given); });
    const rlimit lower{given.rlim_max - 1, given.rlim_max};
    QCOMPARE(::setrlimit(RLIMIT_NOFILE, &lower), 0);

    const MessageCapture capture;
    raiseDescriptorLimit();
    rlimit raised{};
    QCOMPARE(::getrlimit(RLIMIT_NOFILE, &raised), 0);
    QCOMPARE(raised.rlim_cur, given.rlim_max);
    const auto lines = MessageCapture::take();
    QCOMPARE(lines.size(), 1);
    QVERIFY2(lines.first().text.endsWith(QStringLiteral("Limit of descriptors raised from %1 to %2")
                                                 .arg(lower.rlim_cur)
                                                 .arg(raised.rlim_cur)),
             qPrintable(lines.first().text));

    raiseDescriptorLimit(); // already raised: no line
    QCOMPARE(MessageCapture::take().size(), 0);
}

// Also after a larger block was freed. By default, the C library would then keep large blocks.
void tst_Process::largeBlocksGoBack()
{
#ifdef TCPINPUT_SANITIZED
    QSKIP("A sanitizer's allocator");
#endif
    constexpr qsizetype large = 1024 * 1024;
    settleMemory();
    QByteArray(8 * large, 'x').clear();
    const size_t before = ::mallinfo2().hblks;
    const QByteArray block(large, 'x');
    QCOMPARE(::mallinfo2().hblks, before + 1);
}

QTEST_GUILESS_MAIN(tst_Process)
#include "tst_process.moc"
