// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "hostcheck/options.h"
#include "hostcheck/report.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QEventLoop>
#include <QtCore/QObject>
#include <QtCore/QProcess>
#include <QtCore/QStringList>

#include <memory>
#include <vector>

namespace hostcheck {

/*!
    Makes the checks of a library, each in a process of its own, some side by side: a check that
    crashes or hangs is a fault found and disturbs no other.

    Thread: the main thread, with an event loop.
    Owner:  the caller.
*/
class CheckRunner : public QObject
{
    Q_OBJECT

public:
    // timeLimitMs: how long something may take that must come. report: outlives this object.
    CheckRunner(const QString &libraryFile, int timeLimitMs, Report &reportTo)
        : file(libraryFile),
          guardMs(timeLimitMs),
          report(reportTo)
    {}
    ~CheckRunner() override;

    // Returns when all whose name matches are made.
    void run(const QRegularExpression &only);

    // The process of one check: makes it, and says on standard output what is wrong.
    static ExitStatus runSingle(const QString &libraryFile, int timeLimitMs, const QString &name);

private:
    //! The process of a check.
    struct Running
    {
        qsizetype number = 0; // in names
        QElapsedTimer clock;
        std::unique_ptr<QProcess> process;
        bool isKilled = false; // it hung
    };

    void startMore();
    // After so long a check is killed.
    int hangMs() const;
    void start(qsizetype number);
    void finish(Running &running);
    void describeFault(const Running &running, Verdict &verdict) const;
    void reportInOrder();

    QString file;
    int guardMs;
    Report &report;
    QEventLoop loop;
    QStringList names;
    std::vector<std::unique_ptr<Verdict>> verdicts; // null: not known yet
    std::vector<std::unique_ptr<Running>> processes;
    qsizetype next = 0;
    qsizetype finished = 0;
    qsizetype reported = 0;
};

} // namespace hostcheck
