// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/exitcodes.h"
#include "tests/host/inputhosttest.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/smallpipe.h"

#include <QtTest/QtTest>

#include <csignal>

#include <unistd.h>

using namespace host;
using namespace inputhosttest;

namespace {

QByteArray contentOf(const QString &name)
{
    QFile file(name);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

// Where the program's messages go, and what happens if that is slow.
class tst_InputHostOutput : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void file();
    void fileIsContinued();
    void fileIsRenamed();
    void fileThatCannotBeOpened();
    void stalledReaderStopsNoAccepting();
    void stalledReaderAtTheEnd();

private:
    QString pathOf(const char *name) const { return directory.filePath(QLatin1String(name)); }

    const QTemporaryDir directory;
};

void tst_InputHostOutput::file()
{
    Host host;
    host.start({QStringLiteral("--output"), QStringLiteral("json:") + pathOf("file")});
    Device device(host);
    device.send("hello\n");
    QTRY_VERIFY_WITH_TIMEOUT(
            contentOf(pathOf("file")).endsWith("\"bytes\":5,\"text\":\"hello\"}\n"), HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOk));
    QVERIFY(host.output().isEmpty());
}

void tst_InputHostOutput::fileIsContinued()
{
    const QString name = pathOf("continued");
    for (const char *message : {"a\n", "b\n"}) {
        Host host;
        host.start({QStringLiteral("--output"), QStringLiteral("raw:") + name});
        Device device(host);
        device.send(message);
        QTRY_VERIFY_WITH_TIMEOUT(contentOf(name).endsWith(message), HangGuardMs);
        QCOMPARE(host.stop(), int(ExitOk));
    }
    QCOMPARE(contentOf(name), QByteArray("a\nb\n"));
}

// No connection is touched.
void tst_InputHostOutput::fileIsRenamed()
{
    const QString name = pathOf("renamed");
    Host host;
    host.start({QStringLiteral("--output"), QStringLiteral("raw:") + name});
    Device device(host);
    device.send("a\n");
    QTRY_COMPARE_WITH_TIMEOUT(contentOf(name), QByteArray("a\n"), HangGuardMs);
    QVERIFY(QFile::rename(name, name + u'1'));
    host.signal(SIGUSR2);
    QTRY_VERIFY2_WITH_TIMEOUT(host.log().contains("opened again\n"), host.log().constData(),
                              HangGuardMs);
    device.send("b\n");
    QTRY_COMPARE_WITH_TIMEOUT(contentOf(name), QByteArray("b\n"), HangGuardMs);
    QCOMPARE(contentOf(name + u'1'), QByteArray("a\n"));
    QCOMPARE(host.stop(), int(ExitOk));
}

void tst_InputHostOutput::fileThatCannotBeOpened()
{
    const QString name = pathOf("missing/file");
    Host host;
    host.run(host.listenArguments()
             + QStringList{QStringLiteral("--output"), QStringLiteral("json:") + name});
    QCOMPARE(host.finish(), int(ExitOutputFailed));
    const QByteArray expected = "Cannot open " + name.toLocal8Bit() + ": " + noSuchFile() + '\n';
    QVERIFY2(host.log().contains(expected), host.log().constData());
    QVERIFY(!host.log().contains("Listening"));
}

// More is printed than the program keeps, and nobody reads it: devices have to wait. Others are
// accepted all the same, and nothing is lost.
void tst_InputHostOutput::stalledReaderStopsNoAccepting()
{
    constexpr qsizetype messages = 12 * 1024 * 1024;
    SmallPipe pipe;
    Host host;
    host.process.setChildProcessModifier([&pipe] { ::dup2(pipe.writer(), STDOUT_FILENO); });
    host.start(words("--output raw --log-level debug"));
    Device bad(host);
    bad.socket.write(QByteArray(messages, '\n'));
    QTRY_VERIFY2_WITH_TIMEOUT(host.log().contains("Nobody reads standard output"),
                              host.log().constData(), HangGuardMs);
    const qsizetype accepted = host.log().count("new client added");
    Device good(host);
    QTRY_COMPARE_WITH_TIMEOUT(host.log().count("new client added"), accepted + 1, HangGuardMs);
    good.send("good\n");
    pipe.enlarge();

    QByteArray received;
    const QDeadlineTimer guard(LoadHangGuardMs);
    while (received.size() < messages + 5 && !guard.hasExpired()) {
        received += pipe.read();
        QCoreApplication::processEvents(); // which send the rest
    }
    QCOMPARE(received.size(), messages + 5);
    QVERIFY(received.contains("good\n"));
    QCOMPARE(host.stop(), int(ExitOk));
}

void tst_InputHostOutput::stalledReaderAtTheEnd()
{
    SmallPipe pipe;
    Host host;
    host.process.setChildProcessModifier([&pipe] { ::dup2(pipe.writer(), STDOUT_FILENO); });
    host.start(words("--output raw --save-within 1"));
    Device device(host);
    device.send(QByteArray(5000, 'x') + "\nmore\n");
    QTRY_VERIFY_WITH_TIMEOUT(pipe.isFull(), HangGuardMs);
    QCOMPARE(host.stop(), int(ExitOutputFailed));
    QVERIFY2(host.log().contains("error: ")
                     && host.log().contains("2 messages are not safe after 1 s\n"),
             host.log().constData());
}

QTEST_GUILESS_MAIN(tst_InputHostOutput)
#include "tst_inputhostoutput.moc"
