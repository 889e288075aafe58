// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "hostcheck/program/programchecks.h"

#include "hostcheck/parser/shrink.h"
#include "hostcheck/program/hostrun.h"

#include <QtCore/QElapsedTimer>

#include <algorithm>

namespace hostcheck {
namespace {

// Of so many bytes each is a piece of its own, once.
constexpr qsizetype BytesOneByOne = 40;
// Of longer traffic fewer split points are played, at even distances: so many plays and bytes.
constexpr qsizetype MostPlays = 20000;
constexpr qsizetype MostBytes = qsizetype(1) << 29;
// A shorter one that shows the fault is searched for so often, each time among so many at once.
constexpr int MostRounds = 5;
constexpr size_t MostSmaller = 400;
constexpr qsizetype LongestShown = 60;
// While a shorter input is searched for, the fault is known, and a wrong guess only makes it
// longer.
constexpr int ShrinkPatienceMs = 500;

QString listOf(const QByteArrayList &messages)
{
    QStringList texts;
    for (const QByteArray &message : messages) {
        QString text;
        for (const char c : message.left(LongestShown))
            text += c >= ' ' && c <= '~'
                    ? QString(QLatin1Char(c))
                    : QStringLiteral("\\x%1").arg(static_cast<uchar>(c), 2, 16, QLatin1Char('0'));
        texts += QLatin1Char('"') + text + QLatin1Char('"')
                + (message.size() > LongestShown ? QStringLiteral("...") : QString());
    }
    return texts.isEmpty() ? QStringLiteral("nothing") : texts.join(QLatin1Char(' '));
}

// What is in the first list and not in the second, as often as it is there more.
QByteArrayList without(QByteArrayList messages, const QByteArrayList &others)
{
    for (const QByteArray &other : others)
        messages.removeOne(other);
    return messages;
}

} // namespace

ProgramChecks::ProgramChecks(const QString &hostCommand, int timeLimitMs,
                             const Traffic &deviceTraffic)
    : command(hostCommand),
      patienceMs(timeLimitMs),
      traffic(deviceTraffic)
{}

QString ProgramChecks::nameOf(Fault fault)
{
    switch (fault) {
    case Fault::None:
        return QStringLiteral("none");
    case Fault::Lost:
        return QStringLiteral("lost");
    case Fault::Doubled:
        return QStringLiteral("doubled");
    case Fault::CutOff:
        return QStringLiteral("cut-off");
    case Fault::Foreign:
        return QStringLiteral("foreign");
    case Fault::Order:
        return QStringLiteral("order");
    case Fault::Stall:
        return QStringLiteral("stall");
    }
    return {};
}

QList<Verdict> ProgramChecks::run(const QRegularExpression &only)
{
    static constexpr Fault Faults[] = {Fault::Lost,    Fault::Doubled, Fault::CutOff,
                                       Fault::Foreign, Fault::Order,   Fault::Stall};
    const auto fullName = [&](const QString &name) {
        return traffic.name + QStringLiteral(": ") + name;
    };
    const auto isWanted = [&](const QString &name) {
        return only.match(fullName(name)).hasMatch();
    };
    const QString runs = QStringLiteral("runs");
    const bool isAnyWanted = std::any_of(std::begin(Faults), std::end(Faults),
                                         [&](Fault fault) { return isWanted(nameOf(fault)); });
    if (!isAnyWanted && !isWanted(runs))
        return {};

    QElapsedTimer clock;
    clock.start();
    planAll();
    HostRun hostRun(command, *traffic.framing, patienceMs);
    const std::vector<PlayResult> results = hostRun.run(plan);
    const Verdict run = verdictOnRun(results, hostRun.error());
    std::map<Fault, Finding> findings;
    note(findings, plan, results);

    QList<Verdict> verdicts;
    const auto add = [&](const QString &name, Verdict verdict) {
        verdict.name = fullName(name);
        verdict.seconds = static_cast<double>(clock.restart()) / 1000;
        verdicts += verdict;
    };
    if (isWanted(runs))
        add(runs, run);
    for (const Fault fault : Faults) {
        if (!isWanted(nameOf(fault)))
            continue;
        Verdict verdict;
        if (const auto found = findings.find(fault); found != findings.end()) {
            verdict.result = Verdict::Failed;
            verdict.detail = QStringLiteral("%1 connections").arg(found->second.count);
            verdict.more = describe(smallest(fault, found->second));
        } else if (run.result == Verdict::Failed) {
            verdict.result = Verdict::Skipped;
            verdict.detail = QStringLiteral("not all was played");
        }
        add(nameOf(fault), verdict);
    }
    return verdicts;
}

Verdict ProgramChecks::verdictOnRun(const std::vector<PlayResult> &results,
                                    const QString &error) const
{
    const auto notPlayed =
            std::count_if(results.begin(), results.end(),
                          [](const PlayResult &result) { return !result.wasPlayed; });
    Verdict verdict;
    verdict.result = error.isEmpty() && notPlayed == 0 ? Verdict::Ok : Verdict::Failed;
    verdict.detail =
            QStringLiteral("%1 messages, %2 connections").arg(traffic.ends.size()).arg(plan.size());
    if (leftOut > 0)
        verdict.detail += QStringLiteral("; %1 left out").arg(leftOut);
    if (notPlayed > 0)
        verdict.detail = QStringLiteral("%1 of %2 connections were not played: the host does not "
                                        "accept them, or had others wait too often")
                                 .arg(notPlayed)
                                 .arg(plan.size());
    if (!error.isEmpty())
        verdict.detail = error;
    return verdict;
}

void ProgramChecks::planAll()
{
    plan.push_back({traffic.bytes, {}, false});
    plan.push_back({traffic.bytes + traffic.bytes, {traffic.bytes.size()}, false});
    Play slow{traffic.bytes.left(BytesOneByOne), {}, false};
    for (qsizetype at = 1; at < slow.bytes.size(); ++at)
        slow.cuts += at;
    plan.push_back(slow);
    qsizetype bytes = 0;
    for (size_t i = 0; i < traffic.ends.size(); ++i) {
        const Window window = windowOf(i);
        bytes += 2 * (window.end - window.begin) * (window.last - window.first);
    }
    const qsizetype plays = 2 * (traffic.ends.empty() ? 0 : traffic.ends.back());
    const qsizetype step = std::max(plays / MostPlays, bytes / MostBytes) + 1;
    qsizetype number = 0; // of split points so far
    for (size_t i = 0; i < traffic.ends.size(); ++i)
        planMessage(windowOf(i), step, number);
}

ProgramChecks::Window ProgramChecks::windowOf(size_t number) const
{
    const auto startOf = [&](size_t i) { return i == 0 ? 0 : traffic.ends[i - 1]; };
    return {startOf(number == 0 ? 0 : number - 1), startOf(number), traffic.ends[number],
            traffic.ends[std::min(number + 1, traffic.ends.size() - 1)]};
}

// Split points of the message, and early ends, with the messages beside it.
void ProgramChecks::planMessage(const Window &window, qsizetype step, qsizetype &number)
{
    const QByteArray bytes = traffic.bytes.mid(window.first, window.last - window.first);
    for (qsizetype at = window.begin + 1; at <= window.end; ++at) {
        if (number++ % step != 0) {
            leftOut += at < window.last ? 2 : 1;
            continue;
        }
        if (at < window.last)
            plan.push_back({bytes, {at - window.first}, false});
        plan.push_back({bytes.left(at - window.first), {}, true});
    }
}

ProgramChecks::Fault ProgramChecks::faultOf(const Play &play, const PlayResult &result) const
{
    if (!result.wasPlayed)
        return Fault::None;
    const QByteArrayList due = traffic.framing->contents(play.bytes);
    const QByteArrayList missing = without(due, result.messages);
    const QByteArrayList surplus = without(result.messages, due);
    if (missing.isEmpty() && surplus.isEmpty()) {
        if (result.hasStalled)
            return Fault::Stall;
        return result.messages == due ? Fault::None : Fault::Order;
    }
    const auto isPart = [&](const QByteArray &message) {
        return std::any_of(due.begin(), due.end(),
                           [&](const QByteArray &whole) { return whole.contains(message); });
    };
    const auto isOneOf = [&](const QByteArray &message) { return due.contains(message); };
    if (surplus.isEmpty())
        return result.hasStalled && result.messages.isEmpty() ? Fault::Stall : Fault::Lost;
    if (std::all_of(surplus.begin(), surplus.end(), isOneOf))
        return missing.isEmpty() ? Fault::Doubled : Fault::Lost;
    return std::all_of(surplus.begin(), surplus.end(), isPart) ? Fault::CutOff : Fault::Foreign;
}

void ProgramChecks::note(std::map<Fault, Finding> &findings, const std::vector<Play> &plays,
                         const std::vector<PlayResult> &results) const
{
    for (size_t i = 0; i < plays.size(); ++i) {
        const Fault fault = faultOf(plays[i], results[i]);
        if (fault == Fault::None)
            continue;
        const auto [entry, isNew] =
                findings.try_emplace(fault, Finding{plays[i], results[i].messages, 0});
        ++entry->second.count;
        if (!isNew && plays[i].bytes.size() < entry->second.play.bytes.size()) {
            entry->second.play = plays[i];
            entry->second.printed = results[i].messages;
        }
    }
}

// In rounds: each plays all smaller forms of the smallest one so far on a fresh host.
ProgramChecks::Finding ProgramChecks::smallest(Fault fault, Finding finding) const
{
    for (int round = 0; round < MostRounds && fault != Fault::Stall; ++round) {
        const std::vector<Play> smaller = smallerThan(finding.play);
        HostRun hostRun(command, *traffic.framing, std::min(patienceMs, ShrinkPatienceMs));
        std::map<Fault, Finding> findings;
        note(findings, smaller, hostRun.run(smaller));
        const auto found = findings.find(fault);
        if (found == findings.end())
            break;
        finding = found->second;
    }
    return finding;
}

std::vector<Play> ProgramChecks::smallerThan(const Play &play) const
{
    std::vector<Play> smaller;
    for (qsizetype piece = play.bytes.size() / 2; piece > 0; piece /= 2) {
        for (qsizetype at = 0; at + piece <= play.bytes.size(); at += piece) {
            if (smaller.size() == MostSmaller)
                return smaller;
            Play less = play;
            less.bytes.remove(at, piece);
            less.cuts.clear();
            for (qsizetype cut : play.cuts) {
                cut -= std::clamp<qsizetype>(cut - at, 0, piece);
                const qsizetype previous = less.cuts.isEmpty() ? 0 : less.cuts.last();
                if (cut > previous && cut < less.bytes.size())
                    less.cuts += cut;
            }
            smaller.push_back(less);
        }
    }
    return smaller;
}

QString ProgramChecks::describe(const Finding &finding) const
{
    QStringList cuts;
    for (const qsizetype cut : finding.play.cuts)
        cuts += QString::number(cut);
    const QString pauses = cuts.isEmpty()
            ? QStringLiteral("in one piece")
            : QStringLiteral("with a pause behind byte ") + cuts.join(QLatin1String(", "));
    const QString close =
            finding.play.closesAtOnce ? QStringLiteral(", then closed at once") : QString();
    return QStringLiteral("    sent %1 bytes %2%3:\n%4\n    due:     %5\n    printed: %6")
            .arg(finding.play.bytes.size())
            .arg(pauses, close, hexDump(finding.play.bytes),
                 listOf(traffic.framing->contents(finding.play.bytes)), listOf(finding.printed));
}

} // namespace hostcheck
