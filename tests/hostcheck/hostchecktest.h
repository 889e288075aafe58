// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/kit/hangguard.h"

#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

#include <memory>

namespace hostchecktest {

//! A run of hostcheck, beside others.
class Run
{
public:
    explicit Run(const QStringList &arguments, const QStringList &environment = {})
    {
        // A planted fault may crash it, as it should: that is nothing for ThreadSanitizer to
        // report.
        QProcessEnvironment variables = QProcessEnvironment::systemEnvironment();
        const QString options = QStringLiteral("TSAN_OPTIONS");
        if (variables.contains(options))
            variables.insert(options, variables.value(options) + QStringLiteral(":handle_segv=0"));
        process.setEnvironment(variables.toStringList() + environment);
        process.start(QStringLiteral(HOSTCHECK_FILE), arguments);
    }

    // The exit status; -1 without one. Waits for it.
    int status()
    {
        if (process.state() != QProcess::NotRunning)
            process.waitForFinished(LoadHangGuardMs);
        out += process.readAllStandardOutput();
        err += process.readAllStandardError();
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }
    // The first two after status().
    QByteArray output() const { return out; }
    QByteArray errors() const { return err; }
    // The names of the checks that have failed.
    QByteArrayList failed() const
    {
        QByteArrayList names;
        for (const QByteArray &line : out.split('\n')) {
            if (line.startsWith("FAILED  "))
                names += line.mid(8).split(':').value(hasStreams(line) ? 1 : 0).trimmed();
        }
        return names;
    }

private:
    // "FAILED  STREAM: CHECK: ..." or "FAILED  CHECK: ..."
    static bool hasStreams(const QByteArray &line) { return line.contains(".stream: "); }

    QProcess process;
    QByteArray out;
    QByteArray err;
};

//! Files for a test, gone with it.
class Files
{
public:
    // name: should end with ".stream" if it is traffic, see Run::failed().
    QString write(const QString &name, const QByteArray &bytes) const
    {
        QFile file(folder.filePath(name));
        const bool isOpen = file.open(QIODevice::WriteOnly);
        return isOpen && file.write(bytes) == bytes.size() ? file.fileName() : QString();
    }
    QString path(const QString &name) const { return folder.filePath(name); }

private:
    QTemporaryDir folder;
};

} // namespace hostchecktest
