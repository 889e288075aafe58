// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/kit/hangguard.h"

#include <QtCore/QDir>
#include <QtCore/QFileInfo>
#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

#include <csignal>

#include <sys/stat.h>
#include <unistd.h>

/*!
    A PostgreSQL server of the test's own, in a temporary folder. It listens on a socket in that
    folder and on no port. It knows the user "inputhost", who needs no password.

    Thread: the test's.
*/
class PostgresServer
{
public:
    ~PostgresServer() { kill(); }

    // Debian's folder of programs; empty if the package is not installed.
    static QString programs()
    {
        const QDir versions(QStringLiteral("/usr/lib/postgresql"));
        const QStringList found = versions.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
        for (const QString &version : found) {
            QString folder = versions.filePath(version + QStringLiteral("/bin"));
            if (QFileInfo::exists(folder + QStringLiteral("/initdb")))
                return folder;
        }
        return {};
    }

    // Makes the database.
    void make()
    {
        QVERIFY(folder.isValid());
        if (::getuid() == 0)
            QCOMPARE(::chown(QFile::encodeName(folder.path()).constData(), Nobody, Nobody), 0);
        QProcess initdb;
        setUp(initdb, QStringLiteral("initdb"),
              {QStringLiteral("-D"), data(), QStringLiteral("-U"), QStringLiteral("inputhost"),
               QStringLiteral("-A"), QStringLiteral("trust"), QStringLiteral("-E"),
               QStringLiteral("UTF8"), QStringLiteral("--no-sync"), QStringLiteral("--locale=C")});
        initdb.start();
        QVERIFY2(initdb.waitForFinished(HangGuardMs) && initdb.exitCode() == 0,
                 initdb.readAll().constData());
    }

    // Returns when it takes connections.
    void start()
    {
        setUp(server, QStringLiteral("postgres"),
              {QStringLiteral("-D"), data(), QStringLiteral("-k"), folder.path(),
               QStringLiteral("-c"), QStringLiteral("listen_addresses=")});
        server.start();
        QVERIFY2(server.waitForStarted(HangGuardMs), qPrintable(server.errorString()));
        QTRY_VERIFY2_WITH_TIMEOUT(isReady(), log().constData(), HangGuardMs);
    }

    bool isRunning() const { return server.state() != QProcess::NotRunning; }

    // As a crash: it has no time to write anything.
    void kill()
    {
        if (!isRunning())
            return;
        signal(SIGQUIT);
        server.waitForFinished(HangGuardMs);
    }
    QString address() const
    {
        return QStringLiteral("host=%1 user=inputhost dbname=postgres").arg(folder.path());
    }

    // What psql prints for the statement: a line for each row, with | between the columns.
    QString ask(const QString &statement)
    {
        QProcess psql;
        setUp(psql, QStringLiteral("psql"),
              {QStringLiteral("-XAtq"), QStringLiteral("-v"), QStringLiteral("ON_ERROR_STOP=1"),
               QStringLiteral("-c"), statement, address()});
        psql.start();
        if (!psql.waitForFinished(HangGuardMs) || psql.exitCode() != 0)
            return QStringLiteral("failed: ") + QString::fromUtf8(psql.readAll());
        return QString::fromUtf8(psql.readAll()).trimmed();
    }
    QString ask(const char *statement) { return ask(QString::fromUtf8(statement)); }

    QByteArray log()
    {
        output += server.readAll();
        return output;
    }

private:
    static constexpr uid_t Nobody = 65534;

    QString data() const { return folder.filePath(QStringLiteral("data")); }

    // The server refuses to run as root.
    static void setUp(QProcess &process, const QString &program, const QStringList &arguments)
    {
        process.setProgram(programs() + QLatin1Char('/') + program);
        process.setArguments(arguments);
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.setWorkingDirectory(QStringLiteral("/"));
        process.setChildProcessModifier([] {
            if (::getuid() != 0)
                return;
            if (::setgid(Nobody) != 0 || ::setuid(Nobody) != 0)
                ::_exit(1);
        });
    }

    bool isReady() { return ask("select 1") == QLatin1String("1"); }

    void signal(int number) { ::kill(static_cast<pid_t>(server.processId()), number); }

    QTemporaryDir folder;
    QProcess server;
    QByteArray output;
};
