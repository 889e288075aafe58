// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "hostcheck/parser/parserchecks.h"

#include "hostcheck/parser/shrink.h"
#include "hostcheck/progress.h"

#include <QtCore/QElapsedTimer>

#include <algorithm>

namespace hostcheck {
namespace {

// So many messages behind one are given along with it.
constexpr size_t Neighbours = 2;
// Up to this size every beginning is given; of longer ones, those near the ends of messages and so
// many others.
constexpr qsizetype EverySizeUpTo = 16384;
constexpr qsizetype NearEnd = 64;
// In a longer stream, all that follows is given along with so many messages, not with each.
constexpr qsizetype SmallStream = 65536;
constexpr size_t MostGivenAll = 256;
constexpr int MostTries = 400;
constexpr int MostEndlessTries = 20;
constexpr int EndlessTryMs = 50;

bool isKnownOnlyByEnds(Fault fault)
{
    return fault == Fault::CutOff || fault == Fault::Lost;
}

} // namespace

QList<Verdict> ParserChecks::run(const QRegularExpression &only)
{
    QElapsedTimer clock;
    clock.start();
    findEnds();
    qsizetype begin = 0;
    for (size_t i = 0; i <= ends.size(); ++i) {
        planMessage(begin, i);
        begin = i < ends.size() ? ends[i] : 0;
    }
    firstCalls = plan.size();
    planAgain();

    std::vector<Call> calls;
    calls.reserve(plan.size());
    for (const Planned &planned : plan)
        calls.push_back(planned.call);
    outcomes = parser.run(traffic.bytes, calls, [&](size_t done) {
        Progress::show(traffic.name, static_cast<qint64>(done), static_cast<qint64>(calls.size()));
    });
    judge();

    QList<Verdict> verdicts;
    const auto add = [&](const QString &name, const std::function<Verdict()> &makeVerdict) {
        const QString fullName = traffic.name + QStringLiteral(": ") + name;
        if (!only.match(fullName).hasMatch())
            return;
        verdicts += makeVerdict();
        verdicts.last().name = fullName;
        verdicts.last().seconds = static_cast<double>(clock.restart()) / 1000;
    };
    add(QStringLiteral("messages"), [&] { return summary(); });
    for (const Fault fault : AllFaults)
        add(nameOf(fault), [&] { return verdictOn(fault); });
    return verdicts;
}

void ParserChecks::findEnds()
{
    if (traffic.areEndsKnown) {
        ends = traffic.ends;
        return;
    }
    qsizetype position = 0;
    for (const Outcome &outcome : parser.consumeAll(traffic.bytes)) {
        const bool isMessage = outcome.kind == Outcome::Returned && outcome.value > 0
                && outcome.value <= traffic.bytes.size() - position;
        if (!isMessage)
            return;
        position += outcome.value;
        ends.push_back(position);
    }
}

// Every beginning of the message, then with the bytes of the next ones, then with all that follows.
void ParserChecks::planMessage(qsizetype begin, size_t number)
{
    const qsizetype all = traffic.bytes.size() - begin;
    const bool isTail = number >= ends.size();
    const qsizetype length = isTail ? 0 : ends[number] - begin;
    const size_t last = number + Neighbours;
    const qsizetype window = last < ends.size() ? ends[last] - begin : all;
    const qsizetype step = std::max<qsizetype>(window / EverySizeUpTo, 1);
    const auto isNearEnd = [&](qsizetype size) {
        for (size_t i = number; i < std::min(last + 1, ends.size()); ++i) {
            if (std::abs(ends[i] - begin - size) <= NearEnd)
                return true;
        }
        return size <= NearEnd || window - size <= NearEnd;
    };
    const auto add = [&](qsizetype size) {
        const qsizetype due = size >= length ? length : 0;
        plan.push_back({{begin, size, Fence::Behind}, due, isTail, plan.size()});
    };
    for (qsizetype size = 0; size <= window; ++size) {
        if (step == 1 || size % step == 0 || isNearEnd(size))
            add(size);
    }
    const size_t everyNth = ends.size() / MostGivenAll + 1;
    if (all > window && (isTail || all <= SmallStream || number % everyNth == 0))
        add(all);
}

// The same calls again: backwards, with the fence on the other side; and as a host makes them that
// gets bytes one by one, sees each offer twice, and answers one message late.
void ParserChecks::planAgain()
{
    for (size_t i = firstCalls; i-- > 0;) {
        plan.push_back(plan[i]);
        plan.back().call.fence = Fence::Before;
    }
    std::vector<size_t> whole; // for each message, the call that consumes it
    for (size_t i = 0; i < firstCalls; ++i) {
        const Planned planned = plan[i];
        const bool isBeginning = planned.due == 0 || planned.call.size == planned.due;
        if (planned.isTail || !isBeginning)
            continue;
        plan.push_back(planned);
        if (planned.due == 0)
            continue;
        plan.push_back(planned);
        if (!whole.empty())
            plan.push_back(plan[whole.back()]);
        whole.push_back(i);
    }
}

void ParserChecks::judge()
{
    for (size_t i = 0; i < plan.size(); ++i) {
        const size_t same = plan[i].same;
        const bool isAgain = i >= firstCalls;
        const Fault obvious = obviousFault(outcomes[i], plan[i].call.size);
        if (!isAgain)
            note(faultOf(i), i);
        else if (obvious != Fault::None)
            note(obvious, i);
        else if (outcomes[i].kind == Outcome::Returned && outcomes[same].kind == Outcome::Returned
                 && outcomes[i].value != outcomes[same].value)
            note(Fault::Unsteady, i);
    }
}

Fault ParserChecks::faultOf(size_t index) const
{
    const Planned &planned = plan[index];
    if (traffic.areEndsKnown)
        return faultAgainst(outcomes[index], planned.call.size, planned.due);
    return faultAgainstItself(outcomes[index], planned.call.size, planned.due, !planned.isTail);
}

void ParserChecks::note(Fault fault, size_t index)
{
    if (fault == Fault::None)
        return;
    const auto [entry, isNew] = findings.try_emplace(fault, Finding{index, 0});
    ++entry->second.count;
    if (!isNew && plan[index].call.size < plan[entry->second.index].call.size)
        entry->second.index = index;
}

Verdict ParserChecks::summary() const
{
    const qsizetype left = traffic.bytes.size() - (ends.empty() ? 0 : ends.back());
    const auto made = std::count_if(outcomes.begin(), outcomes.end(), [](const Outcome &outcome) {
        return outcome.kind != Outcome::NotRun;
    });
    Verdict verdict;
    verdict.detail = QStringLiteral("%1 messages, %2 bytes left at the end; %3 calls")
                             .arg(ends.size())
                             .arg(left)
                             .arg(made);
    const bool hasNone = ends.empty() && !traffic.bytes.isEmpty();
    verdict.result = hasNone ? Verdict::Failed : Verdict::Ok;
    return verdict;
}

Verdict ParserChecks::verdictOn(Fault fault)
{
    Verdict verdict;
    const auto found = findings.find(fault);
    if (found != findings.end()) {
        const Planned &planned = plan[found->second.index];
        verdict.result = Verdict::Failed;
        verdict.detail = QStringLiteral("%1: %2, %3 due; %4 such calls")
                                 .arg(place(planned),
                                      describe(outcomes[found->second.index], planned.call.size))
                                 .arg(planned.due)
                                 .arg(found->second.count);
        verdict.more = smallest(fault, planned);
        return verdict;
    }
    if (outcomes.back().kind == Outcome::NotRun) {
        verdict.result = Verdict::Skipped;
        verdict.detail = QStringLiteral("too many calls did not return: the others were not made");
        return verdict;
    }
    if (traffic.areEndsKnown ? fault == Fault::Split : isKnownOnlyByEnds(fault)) {
        verdict.result = Verdict::Skipped;
        verdict.detail = traffic.areEndsKnown
                ? QStringLiteral("shows as cut-off, lost or stall: the ends of messages are known")
                : QStringLiteral("the ends of messages are not known: --framing or --messages");
    }
    return verdict;
}

QString ParserChecks::place(const Planned &planned) const
{
    const auto number = std::upper_bound(ends.begin(), ends.end(), planned.call.begin);
    return QStringLiteral("message %1 at byte %2")
            .arg(number - ends.begin() + 1)
            .arg(planned.call.begin);
}

// All bytes that are needed to see the fault.
QByteArray ParserChecks::inputOf(Fault fault, const Planned &planned) const
{
    qsizetype size = planned.call.size;
    if (fault == Fault::Split || (fault == Fault::Stall && planned.isTail))
        size = traffic.bytes.size() - planned.call.begin;
    return traffic.bytes.mid(planned.call.begin, size);
}

QString ParserChecks::smallest(Fault fault, const Planned &planned)
{
    const auto text = [](const char *what, const QByteArray &bytes) {
        return QStringLiteral("    %1, %2 bytes:\n").arg(QLatin1String(what)).arg(bytes.size())
                + hexDump(bytes);
    };
    const QByteArray input = inputOf(fault, planned);
    const bool needsEnds = isKnownOnlyByEnds(fault) || fault == Fault::Stall;
    if (needsEnds && traffic.areEndsKnown && !traffic.framing) // unknown for any other bytes
        return text("smallest input of the stream that shows it", input);
    const bool isSlow = fault == Fault::Endless;
    if (isSlow)
        parser.setTimeLimitMs(EndlessTryMs);
    const auto shows = [&](const QByteArray &bytes) {
        Progress::show(QStringLiteral("smallest input for ") + nameOf(fault), bytes.size(),
                       input.size());
        return faultOfInput(bytes, planned.call.fence, fault) == fault;
    };
    if (!shows(input))
        return text("input that shows it after other calls", input);
    const int tries = isSlow ? MostEndlessTries : MostTries;
    const QByteArray fewer =
            traffic.framing ? shrinkMessages(input, *traffic.framing, shows, tries) : input;
    return text("smallest input that shows it", shrink(fewer, shows, tries));
}

Fault ParserChecks::faultOfInput(const QByteArray &input, Fence fence, Fault wanted)
{
    if (wanted == Fault::Unsteady)
        return isSteady(input) ? Fault::None : Fault::Unsteady;
    if (wanted == Fault::Split || (wanted == Fault::Stall && !traffic.areEndsKnown))
        return faultOfBeginnings(input);
    const Outcome outcome = parser.run(input, {{0, input.size(), fence}}).front();
    if (!traffic.framing)
        return obviousFault(outcome, input.size());
    return faultAgainst(outcome, input.size(), traffic.framing->next(input));
}

// The fault that the parser's own answers to the beginnings of the input show.
Fault ParserChecks::faultOfBeginnings(const QByteArray &input)
{
    std::vector<Call> calls;
    for (qsizetype size = 0; size <= input.size(); ++size)
        calls.push_back({0, size, Fence::Behind});
    qsizetype first = 0;
    for (const Outcome &outcome : parser.run(input, calls)) {
        if (outcome.kind != Outcome::Returned)
            return Fault::None;
        if (first > 0 && outcome.value != first)
            return outcome.value == 0 ? Fault::Stall : Fault::Split;
        first = outcome.value;
    }
    return Fault::None;
}

bool ParserChecks::isSteady(const QByteArray &input)
{
    std::vector<Call> calls;
    for (qsizetype size = 0; size <= input.size(); ++size)
        calls.push_back({0, size, Fence::Behind});
    for (qsizetype size = input.size(); size >= 0; --size)
        calls.push_back({0, size, Fence::Before});
    const std::vector<Outcome> answers = parser.run(input, calls);
    for (size_t i = 0; i < answers.size() / 2; ++i) {
        if (answers[i].value != answers[answers.size() - 1 - i].value)
            return false;
    }
    return true;
}

} // namespace hostcheck
