// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/kit/hangguard.h"
#include "tests/kit/testaddress.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>
#include <QtNetwork/QTcpSocket>
#include <QtTest/QtTest>

#include <cerrno>
#include <csignal>

#include <unistd.h>

namespace inputhosttest {

// The system's text for a missing file, in the user's language.
inline QByteArray noSuchFile()
{
    return qt_error_string(ENOENT).toLocal8Bit();
}

inline QStringList words(const char *text)
{
    return QString::fromLatin1(text).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

//! The program inputhost. It listens on this test's address and port, unless told otherwise.
class Host
{
public:
    explicit Host(quint16 listenPort = freePort()) : port(listenPort) {}
    ~Host()
    {
        if (process.state() == QProcess::NotRunning)
            return;
        process.kill();
        process.waitForFinished(HangGuardMs);
    }
    Q_DISABLE_COPY_MOVE(Host)

    // Starts the program with --plugin and these arguments.
    void run(const QStringList &arguments)
    {
        QStringList all = {QStringLiteral("--plugin"), QStringLiteral(PLUGIN_FILE)};
        runPlain(all + arguments);
    }
    void runPlain(const QStringList &arguments)
    {
        process.setProgram(QStringLiteral(INPUTHOST_FILE));
        process.setArguments(arguments);
        process.start();
        QVERIFY2(process.waitForStarted(HangGuardMs), qPrintable(process.errorString()));
    }

    // Starts the program and returns when it listens.
    void start(const QStringList &arguments = {})
    {
        run(listenArguments() + arguments);
        QTRY_VERIFY2_WITH_TIMEOUT(log().contains("Listening on "), log().constData(), HangGuardMs);
    }
    QStringList listenArguments() const
    {
        return {QStringLiteral("--set"), QStringLiteral("ipAddr=") + testAddress().toString(),
                QStringLiteral("--set"), QStringLiteral("port=%1").arg(port)};
    }

    void signal(int number) const
    {
        if (isRunning()) // otherwise the process id is 0, which stands for this program
            ::kill(static_cast<pid_t>(process.processId()), number);
    }
    bool isRunning() const { return process.state() != QProcess::NotRunning; }

    // The exit code. -1 if the program crashed or was killed, -2 if it has not ended in time.
    int finish()
    {
        if (isRunning() && !process.waitForFinished(HangGuardMs))
            return -2;
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }
    int stop(int number = SIGTERM)
    {
        signal(number);
        return finish();
    }

    // The last counters line so far. Also asks the program for the next one.
    QByteArray counters()
    {
        signal(SIGUSR1);
        const qsizetype begin = log().lastIndexOf("\nmessages ") + 1;
        return err.mid(begin, err.indexOf('\n', begin) - begin);
    }

    // All output since the start.
    QByteArray output()
    {
        out += process.readAllStandardOutput();
        return out;
    }
    QByteArray log()
    {
        err += process.readAllStandardError();
        return err;
    }
    QByteArrayList lines()
    {
        QByteArrayList result = output().split('\n');
        result.removeLast();
        return result;
    }
    QJsonObject record(int n) { return QJsonDocument::fromJson(lines().value(n)).object(); }
    QStringList texts()
    {
        QStringList result;
        for (int n = 0; n < lines().size(); ++n)
            result += record(n).value(QStringLiteral("text")).toString();
        return result;
    }

    QProcess process;
    const quint16 port;

private:
    QByteArray out;
    QByteArray err;
};

class Device
{
public:
    explicit Device(const Host &host, const QHostAddress &address = testAddress())
        : Device(address, host.port)
    {}
    Device(const QHostAddress &address, quint16 port)
    {
        socket.connectToHost(address, port);
        QVERIFY2(socket.waitForConnected(HangGuardMs), qPrintable(socket.errorString()));
    }

    void send(const QByteArray &bytes)
    {
        socket.write(bytes);
        while (socket.bytesToWrite() > 0)
            QVERIFY2(socket.waitForBytesWritten(HangGuardMs), qPrintable(socket.errorString()));
    }
    void close()
    {
        socket.disconnectFromHost();
        if (socket.state() != QAbstractSocket::UnconnectedState)
            socket.waitForDisconnected(HangGuardMs);
    }

    QTcpSocket socket;
};

inline bool canConnect(quint16 port)
{
    QTcpSocket socket;
    socket.connectToHost(testAddress(), port);
    return socket.waitForConnected(HangGuardMs);
}

// Tests that run the program with their own configuration files.
class InputHostTest : public QObject
{
protected:
    // Writes a file of that name into the folder, and returns its path.
    QString file(const QString &name, const QByteArray &content) const;
    QString writeConfig(const QByteArray &content);
    QByteArray listenConfig(quint16 port, const QByteArray &more = {}) const;

    QTemporaryDir folder;
};

inline QString InputHostTest::file(const QString &name, const QByteArray &content) const
{
    QString path = folder.filePath(name);
    QFile written(path);
    if (!written.open(QIODevice::WriteOnly) || written.write(content) != content.size())
        qFatal("Cannot write a file");
    return path;
}

inline QString InputHostTest::writeConfig(const QByteArray &content)
{
    return file(QStringLiteral("config.json"), content);
}

inline QByteArray InputHostTest::listenConfig(quint16 port, const QByteArray &more) const
{
    return R"({"ipAddr": ")" + testAddress().toString().toLatin1() + R"(", "port": )"
            + QByteArray::number(port) + more + "}";
}

} // namespace inputhosttest
