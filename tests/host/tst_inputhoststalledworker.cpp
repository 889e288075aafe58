// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/exitcodes.h"
#include "tests/host/inputhosttest.h"
#include "tests/host/servicemanager.h"
#include "tests/host/webtest.h"
#include "tests/kit/hangguard.h"

#include <QtTest/QtTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace host;
using namespace inputhosttest;
using namespace webtest;
using namespace Qt::StringLiterals;

// One worker thread stands still, and all else goes on: who is told of it.
class tst_InputHostStalledWorker : public InputHostTest
{
    Q_OBJECT

private Q_SLOTS:
    void isNotAlive();
};

void tst_InputHostStalledWorker::isNotAlive()
{
    const QByteArray pipe = folder.filePath(u"pipe"_s).toLocal8Bit();
    QCOMPARE(::mkfifo(pipe.constData(), 0600), 0);
    const QByteArray socket = folder.filePath(u"notify"_s).toLocal8Bit();
    ServiceManager manager(socket);
    QProcessEnvironment environment = watchedBy(socket, 300000); // fed each tenth of a second
    environment.insert(u"LD_PRELOAD"_s, QStringLiteral(STANDSTILL_FILE));
    environment.insert(u"TCPINPUT_STANDSTILL"_s, QString::fromLocal8Bit(pipe));
    Host host;
    host.process.setProcessEnvironment(environment);
    host.start(words("--http 0 --set threadpoolSize=2"));
    static const QRegularExpression line(u"Status at http://127\\.0\\.0\\.1:(\\d+)/"_s);
    const quint16 port = line.match(QString::fromLatin1(host.log())).captured(1).toUShort();
    QCOMPARE(codeOf(get(port, "/live")), 200);

    Device standing(host);
    standing.send("stand still\n");
    static const QRegularExpression reason(u"^worker \\d+: in one turn for (\\d+) ms\n$"_s);
    const auto answer = [&] { return QString::fromLatin1(bodyOf(get(port, "/live"))); };
    QTRY_VERIFY2_WITH_TIMEOUT(reason.match(answer()).hasMatch(), qPrintable(answer()), HangGuardMs);
    QCOMPARE(codeOf(get(port, "/live")), 503);
    const qsizetype before = manager.messages().size();

    // The other worker and the main thread go on, but the watchdog is not fed.
    Device good(host);
    good.send("good\n");
    QTRY_COMPARE_WITH_TIMEOUT(host.texts(), QStringList(u"good"_s), HangGuardMs);
    QCOMPARE(codeOf(get(port, "/ready")), 200);
    QTRY_VERIFY_WITH_TIMEOUT(reason.match(answer()).captured(1).toInt() > 2500, HangGuardMs);
    QCOMPARE(manager.find("WATCHDOG=1", before), -1);

    const int writer = ::open(pipe.constData(), O_WRONLY | O_CLOEXEC);
    QVERIFY(writer >= 0);
    ::close(writer);
    QTRY_COMPARE_WITH_TIMEOUT(codeOf(get(port, "/live")), 200, HangGuardMs);
    QTRY_VERIFY_WITH_TIMEOUT(manager.find("WATCHDOG=1", before) >= 0, HangGuardMs);
    QTRY_COMPARE_WITH_TIMEOUT(host.texts(), QStringList({u"good"_s, u"stand still"_s}),
                              HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
}

QTEST_GUILESS_MAIN(tst_InputHostStalledWorker)
#include "tst_inputhoststalledworker.moc"
