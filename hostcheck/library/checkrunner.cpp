// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "hostcheck/library/checkrunner.h"

#include "hostcheck/library/checks.h"
#include "hostcheck/library/subject.h"
#include "hostcheck/progress.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QThread>
#include <QtCore/QTimer>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace hostcheck {
namespace {

// Most checks wait most of the time.
constexpr int ProcessesACore = 4;
// A check waits a few times at most, and fails when one of them has taken its whole time limit. So
// it hangs if it takes that many limits, within these bounds: some checks pause for seconds.
constexpr int LimitsOfHang = 20;
constexpr int ShortestHangMs = 10000;
constexpr int LongestHangMs = 60000;
// So many log lines are shown with a fault.
constexpr qsizetype MostLines = 25;

} // namespace

CheckRunner::~CheckRunner()
{
    for (const auto &running : processes) {
        running->process->disconnect(this);
        running->process->kill();
        running->process->waitForFinished();
    }
}

void CheckRunner::run(const QRegularExpression &only)
{
    for (const Check &check : allChecks()) {
        if (only.match(QLatin1String(check.name)).hasMatch())
            names += QLatin1String(check.name);
    }
    verdicts.resize(static_cast<size_t>(names.size()));
    if (names.isEmpty())
        return;
    startMore();
    loop.exec();
}

void CheckRunner::startMore()
{
    const auto most =
            static_cast<size_t>(ProcessesACore * std::max(QThread::idealThreadCount(), 1));
    while (processes.size() < most && next < names.size())
        start(next++);
    Progress::show(QStringLiteral("checks"), finished, names.size());
    if (finished == names.size())
        loop.quit();
}

int CheckRunner::hangMs() const
{
    return std::clamp(LimitsOfHang * guardMs, ShortestHangMs, LongestHangMs) + guardMs;
}

void CheckRunner::start(qsizetype number)
{
    auto running = std::make_unique<Running>();
    running->number = number;
    running->clock.start();
    running->process = std::make_unique<QProcess>();
    QProcess *process = running->process.get();
    Running *started = running.get();
    processes.push_back(std::move(running));
    // Queued: a process that cannot be started says so before start() has returned.
    connect(process, &QProcess::stateChanged, this, [this, started](QProcess::ProcessState state) {
        if (state == QProcess::NotRunning)
            QTimer::singleShot(0, this, [this, started] { finish(*started); });
    });
    QTimer::singleShot(hangMs(), process, [started] {
        started->isKilled = true;
        started->process->kill();
    });
    process->start(QCoreApplication::applicationFilePath(),
                   {QStringLiteral("plugin"), file, QStringLiteral("--single"), names.at(number),
                    QStringLiteral("--time-limit"), QString::number(guardMs)});
}

void CheckRunner::finish(Running &running)
{
    QProcess &process = *running.process;
    auto verdict = std::make_unique<Verdict>();
    verdict->name = names.at(running.number);
    verdict->seconds = static_cast<double>(running.clock.elapsed()) / 1000;
    verdict->detail = QString::fromUtf8(process.readAllStandardOutput()).trimmed();
    const bool isNormal = process.exitStatus() == QProcess::NormalExit;
    if (isNormal && process.exitCode() == ExitSkipped)
        verdict->result = Verdict::Skipped;
    else if (!isNormal || process.exitCode() != ExitOk)
        describeFault(running, *verdict);
    verdicts[static_cast<size_t>(running.number)] = std::move(verdict);
    ++finished;
    const auto same = [&](const auto &other) { return other.get() == &running; };
    processes.erase(std::find_if(processes.begin(), processes.end(), same));
    reportInOrder();
    startMore();
}

void CheckRunner::describeFault(const Running &running, Verdict &verdict) const
{
    QProcess &process = *running.process;
    verdict.result = Verdict::Failed;
    verdict.more = QString::fromUtf8(process.readAllStandardError());
    verdict.more.chop(verdict.more.endsWith(QLatin1Char('\n')) ? 1 : 0);
    if (process.error() == QProcess::FailedToStart)
        verdict.detail = process.errorString();
    else if (running.isKilled)
        verdict.detail = QStringLiteral("hangs: killed after %1 s").arg(hangMs() / 1000);
    else if (process.exitStatus() == QProcess::CrashExit)
        verdict.detail =
                QStringLiteral("crashed: ") + QString::fromLocal8Bit(strsignal(process.exitCode()));
    else if (verdict.detail.isEmpty())
        verdict.detail = QStringLiteral("ended with status %1").arg(process.exitCode());
}

void CheckRunner::reportInOrder()
{
    while (reported < names.size() && verdicts[static_cast<size_t>(reported)])
        report.add(*verdicts[static_cast<size_t>(reported++)]);
}

ExitStatus CheckRunner::runSingle(const QString &libraryFile, int timeLimitMs, const QString &name)
{
    const std::vector<Check> all = allChecks();
    const auto check = std::find_if(all.begin(), all.end(), [&](const Check &candidate) {
        return name == QLatin1String(candidate.name);
    });
    if (check == all.end())
        return ExitUsage;
    std::unique_ptr<Subject> subject;
    try {
        subject = std::make_unique<Subject>(libraryFile, timeLimitMs);
        check->function(*subject);
        return ExitOk;
    } catch (const Skip &skip) {
        std::printf("%s\n", qPrintable(skip.text));
        return ExitSkipped;
    } catch (const Failure &failure) {
        std::printf("%s\n", qPrintable(failure.text));
    }
    const QStringList lines = subject ? subject->log().texts() : QStringList();
    for (const QString &line : lines.mid(std::max<qsizetype>(lines.size() - MostLines, 0)))
        std::fprintf(stderr, "    log: %s\n", qPrintable(line));
    return ExitFaults;
}

} // namespace hostcheck
