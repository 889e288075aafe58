// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/hangguard.h"
#include "tests/simulator/simulatortest.h"

#include <QtTest/QTest>

#include <fcntl.h>
#include <pty.h>

using namespace simulatortest;

namespace {

const QByteArray Rewrite("\r\033[K");

/*!
    A terminal of so many columns; what programs write to it can be read.
*/
class Terminal
{
public:
    explicit Terminal(unsigned short columns)
    {
        const winsize size = {24, columns, 0, 0};
        if (::openpty(&ours, &theirs, nullptr, nullptr, &size) != 0)
            qFatal("no terminal");
        ::fcntl(ours, F_SETFL, O_NONBLOCK);
    }
    ~Terminal()
    {
        ::close(ours);
        ::close(theirs);
    }
    Q_DISABLE_COPY_MOVE(Terminal)

    int descriptor() const { return theirs; }

    QByteArray output()
    {
        char buffer[4096];
        for (;;) {
            const ssize_t size = ::read(ours, buffer, sizeof buffer);
            if (size <= 0)
                return read;
            read.append(buffer, size);
        }
    }

private:
    int ours = -1;
    int theirs = -1;
    QByteArray read;
};

} // namespace

// The program devicesim: how far it is.
class tst_DeviceSimProgress : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void showsOnATerminal();
    void fitsIntoTheLine();
    void showsTheTimeLeft();
    void isSilent_data();
    void isSilent();
    void writesLinesElsewhere();
};

void tst_DeviceSimProgress::showsOnATerminal()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Terminal terminal(200);
    Simulator simulator;
    simulator.writeErrorsTo(terminal.descriptor());
    simulator.start(receiver, words("--connections 3 --messages 0 --rate 100"));
    QTRY_VERIFY_WITH_TIMEOUT(terminal.output().count(Rewrite) >= 3, HangGuardMs);
    const QByteArray line = terminal.output().split('\r').at(2);
    QVERIFY2(line.startsWith("\033[K3 of 3 devices started, 3 active; "), line.constData());
    QVERIFY2(line.endsWith("/s; 0 failed"), line.constData()); // nobody knows how long it takes
    simulator.signal(SIGTERM);
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QVERIFY(terminal.output().endsWith(Rewrite));
    QVERIFY(!terminal.output().contains('\n'));
}

void tst_DeviceSimProgress::fitsIntoTheLine()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Terminal terminal(12);
    Simulator simulator;
    simulator.writeErrorsTo(terminal.descriptor());
    simulator.start(receiver, words("--close stay"));
    QTRY_VERIFY_WITH_TIMEOUT(terminal.output().contains(Rewrite + "1 of 1 devi" + Rewrite),
                             HangGuardMs);
}

void tst_DeviceSimProgress::showsTheTimeLeft()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Terminal terminal(200);
    Simulator simulator;
    simulator.writeErrorsTo(terminal.descriptor());
    simulator.start(receiver, words("--messages 1000 --rate 1"));
    QTRY_VERIFY_WITH_TIMEOUT(terminal.output().contains(" left"), HangGuardMs);
    static const QRegularExpression form(QStringLiteral("; [0-9]+:[0-9]{2} left"));
    QVERIFY(form.match(QString::fromLatin1(terminal.output())).hasMatch());
}

void tst_DeviceSimProgress::isSilent_data()
{
    QTest::addColumn<bool>("onTerminal");
    QTest::addColumn<QByteArray>("option");
    QTest::newRow("no terminal") << false << QByteArray();
    QTest::newRow("not wanted") << true << QByteArray("--no-progress");
}

void tst_DeviceSimProgress::isSilent()
{
    QFETCH(const bool, onTerminal);
    QFETCH(const QByteArray, option);
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Terminal terminal(200);
    Simulator simulator;
    if (onTerminal)
        simulator.writeErrorsTo(terminal.descriptor());
    simulator.start(receiver, words("--messages 2 --rate 1") + words(option.constData()));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    QVERIFY(number(simulator.summary(), "elapsedMs") >= 950); // time enough to show something
    QCOMPARE(terminal.output(), QByteArray());
    QCOMPARE(simulator.errors(), QByteArray());
}

void tst_DeviceSimProgress::writesLinesElsewhere()
{
    Receiver receiver;
    QVERIFY(receiver.listen(testAddress()));
    Simulator simulator;
    simulator.start(receiver, words("--messages 4 --rate 1 --progress"));
    QVERIFY(simulator.waitForEnd());
    QCOMPARE(simulator.exitCode(), 0);
    const QByteArray errors = simulator.errors();
    QVERIFY2(errors.startsWith("1 of 1 devices started, 1 active; "), errors.constData());
    QVERIFY(errors.endsWith('\n'));
    QVERIFY(!errors.contains('\r'));
}

QTEST_GUILESS_MAIN(tst_DeviceSimProgress)
#include "tst_devicesimprogress.moc"
