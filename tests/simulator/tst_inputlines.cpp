// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/inputlines.h"

#include <QtTest/QTest>

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

using namespace simulator;

namespace {

constexpr qsizetype MostLines = 10000;
constexpr qsizetype MostBytes = 16 * 1024 * 1024;
constexpr qsizetype ReadBytes = 64 * 1024; // at once
constexpr qsizetype TooManyBytes = 4 * MostBytes;

/*!
    A pipe; its writing end does not block.
*/
class Pipe
{
public:
    Pipe()
    {
        int ends[2] = {};
        if (::pipe2(ends, O_CLOEXEC) != 0)
            qFatal("no pipe");
        from = ends[0];
        to = ends[1];
        ::fcntl(to, F_SETFL, O_NONBLOCK);
    }
    ~Pipe()
    {
        ::close(from);
        ::close(to);
    }
    Q_DISABLE_COPY_MOVE(Pipe)

    int reader() const { return from; }
    qsizetype capacity() const { return ::fcntl(to, F_GETPIPE_SZ); }

    // Writes lines until the pipe is full, and returns how many bytes that took.
    qsizetype fill(const QByteArray &line)
    {
        qsizetype written = 0;
        for (;;) {
            if (rest.isEmpty())
                rest = line;
            const ssize_t size = ::write(to, rest.constData(), static_cast<size_t>(rest.size()));
            if (size < 0)
                return errno == EAGAIN ? written : -1;
            rest.remove(0, size);
            written += size;
        }
    }

private:
    int from = -1;
    int to = -1;
    QByteArray rest; // of a line
};

// Writes as long as the lines are read. A full pipe is readable: if a turn of the event loop reads
// nothing from it, nothing will be read.
qsizetype writeUntilFull(Pipe &pipe, const QByteArray &line)
{
    qsizetype written = 0;
    while (written < TooManyBytes) {
        QCoreApplication::processEvents();
        const qsizetype size = pipe.fill(line);
        if (size <= 0)
            break;
        written += size;
    }
    return written;
}

} // namespace

// Lines of a pipe that wait for devices.
class tst_InputLines : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void waitsForSlowDevices_data();
    void waitsForSlowDevices();
};

void tst_InputLines::waitsForSlowDevices_data()
{
    QTest::addColumn<qsizetype>("lineBytes");
    QTest::addColumn<qsizetype>("most"); // bytes that may be taken
    QTest::newRow("many lines") << qsizetype(100) << 100 * MostLines;
    QTest::newRow("long lines") << qsizetype(100'000) << MostBytes;
}

void tst_InputLines::waitsForSlowDevices()
{
    QFETCH(const qsizetype, lineBytes);
    QFETCH(const qsizetype, most);
    Options options;
    options.connections = 2;
    Pipe pipe;
    InputLines lines(pipe.reader(), options);
    lines.start();
    const QByteArray line = QByteArray(lineBytes - 1, 'a') + '\n';

    const qsizetype written = writeUntilFull(pipe, line);
    QVERIFY2(written >= most, QByteArray::number(written).constData());
    QVERIFY2(written <= most + ReadBytes + lineBytes + pipe.capacity(),
             QByteArray::number(written).constData());

    // One device goes on, but the other one still wants the lines.
    const quint64 count = lines.count();
    lines.passed(1, count);
    QCOMPARE(writeUntilFull(pipe, line), 0);
    QCOMPARE(lines.count(), count);
    QCOMPARE(lines.line(1).size(), lineBytes - 1);

    lines.passed(2, count);
    QVERIFY(writeUntilFull(pipe, line) > 0);
    QVERIFY(lines.count() > count);
    QCOMPARE(lines.line(1), QByteArray());
}

QTEST_GUILESS_MAIN(tst_InputLines)
#include "tst_inputlines.moc"
