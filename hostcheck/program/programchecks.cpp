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
constexpr size_t MostPlays = 20000;
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
    QElapsedTimer clock;
    clock.start();
    plan.push_back({traffic.bytes, {}, false});
    plan.push_back({traffic.bytes + traffic.bytes, {traffic.bytes.size()}, false});
    Play slow{traffic.bytes.left(BytesOneByOne), {}, false};
    for (qsizetype at = 1; at < slow.bytes.size(); ++at)
        slow.cuts += at;
    plan.push_back(slow);
    for (size_t i = 0; i < traffic.ends.size(); ++i)
        planMessage(i);
    if (const size_t step = plan.size() / MostPlays + 1; step > 1) {
        std::vector<Play> some;
        for (size_t i = 0; i < plan.size(); i += step)
            some.push_back(plan[i]);
        plan = some;
    }

    HostRun hostRun(command, *traffic.framing, patienceMs);
    const std::vector<PlayResult> results = hostRun.run(plan);
    std::map<Fault, Finding> findings;
    note(findings, plan, results);

    QList<Verdict> verdicts;
    const auto add = [&](const QString &name, Verdict verdict) {
        verdict.name = traffic.name + QStringLiteral(": ") + name;
        verdict.seconds = static_cast<double>(clock.restart()) / 1000;
        verdicts += verdict;
    };
    const auto isWanted = [&](const QString &name) {
        return only.match(traffic.name + QStringLiteral(": ") + name).hasMatch();
    };
    if (isWanted(QStringLiteral("runs"))) {
        Verdict verdict;
        verdict.result = hostRun.error().isEmpty() ? Verdict::Ok : Verdict::Failed;
        verdict.detail = hostRun.error().isEmpty() ? QStringLiteral("%1 messages, %2 connections")
                                                             .arg(traffic.ends.size())
                                                             .arg(plan.size())
                                                   : hostRun.error();
        add(QStringLiteral("runs"), verdict);
    }
    for (const Fault fault :
         {Fault::Lost, Fault::Doubled, Fault::CutOff, Fault::Foreign, Fault::Order, Fault::Stall}) {
        if (!isWanted(nameOf(fault)))
            continue;
        Verdict verdict;
        if (const auto found = findings.find(fault); found != findings.end()) {
            verdict.result = Verdict::Failed;
            verdict.detail = QStringLiteral("%1 connections").arg(found->second.count);
            verdict.more = describe(smallest(fault, found->second));
        } else if (!hostRun.error().isEmpty()) {
            verdict.result = Verdict::Skipped;
            verdict.detail = QStringLiteral("the host did not run to the end");
        }
        add(nameOf(fault), verdict);
    }
    return verdicts;
}

// Every split point of the message, and every early end, with the messages beside it.
void ProgramChecks::planMessage(size_t number)
{
    const auto startOf = [&](size_t i) { return i == 0 ? 0 : traffic.ends[i - 1]; };
    const qsizetype first = startOf(number == 0 ? 0 : number - 1);
    const qsizetype begin = startOf(number);
    const qsizetype end = traffic.ends[number];
    const qsizetype last = traffic.ends[std::min(number + 1, traffic.ends.size() - 1)];
    const QByteArray window = traffic.bytes.mid(first, last - first);
    for (qsizetype at = begin + 1; at <= end; ++at) {
        if (at < last)
            plan.push_back({window, {at - first}, false});
        plan.push_back({window.left(at - first), {}, true});
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
