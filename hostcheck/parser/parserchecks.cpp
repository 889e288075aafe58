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
// All bytes of a call are copied for it. Of very long messages fewer beginnings are given, so that
// there are about so many bytes.
constexpr qsizetype MostBytesOfMessage = qsizetype(1) << 30;
// Of very long streams fewer messages are checked, at even distances. That gives about so many
// calls and bytes, before all are given again.
constexpr qsizetype MostCalls = 500000;
constexpr qsizetype MostBytes = qsizetype(1) << 34;
constexpr qsizetype MostBytesGivenAll = qsizetype(1) << 32;
// In a longer stream, all that follows is given along with so many messages, not with each.
constexpr qsizetype SmallStream = 65536;
constexpr qsizetype MostGivenAll = 256;
constexpr int MostTries = 400;
constexpr int MostEndlessTries = 20;
constexpr int EndlessTryMs = 50;
// A try that takes longer stands still until it is killed. Then nothing smaller is searched for.
constexpr int LongestTryMs = 5000;
// Up to this size, what only many beginnings show is searched for in smaller inputs.
constexpr qsizetype LongestOfBeginnings = 16384;

constexpr QLatin1String Messages("messages"); // the check of no single fault

bool isKnownOnlyByEnds(Fault fault)
{
    return fault == Fault::CutOff || fault == Fault::Lost;
}

// The distance of the beginnings that are given, in a message with its neighbours of so many bytes.
qsizetype stepOf(qsizetype window)
{
    const qsizetype steps = MostBytesOfMessage / std::max<qsizetype>(window / 2, 1);
    return std::max<qsizetype>(window / std::clamp<qsizetype>(steps, 1, EverySizeUpTo), 1);
}

} // namespace

QList<Verdict> ParserChecks::run(const QRegularExpression &only)
{
    const auto isWanted = [&](const QString &name) {
        return only.match(fullName(name)).hasMatch();
    };
    bool isAnyWanted = isWanted(Messages);
    for (const Fault fault : AllFaults)
        isAnyWanted = isAnyWanted || isWanted(nameOf(fault));
    if (!isAnyWanted)
        return {};

    QElapsedTimer clock;
    clock.start();
    findEnds();
    planMessages();
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
        if (!isWanted(name))
            return;
        verdicts += makeVerdict();
        verdicts.last().name = fullName(name);
        verdicts.last().seconds = static_cast<double>(clock.restart()) / 1000;
    };
    add(Messages, [&] { return summary(); });
    for (const Fault fault : AllFaults)
        add(nameOf(fault), [&] { return verdictOn(fault); });
    return verdicts;
}

QString ParserChecks::fullName(const QString &check) const
{
    return traffic.name + QStringLiteral(": ") + check;
}

void ParserChecks::findEnds()
{
    ends = traffic.areEndsKnown ? traffic.ends : parser.messageEnds(traffic.bytes);
}

qsizetype ParserChecks::beginOf(size_t number) const
{
    return number == 0 ? 0 : ends[number - 1];
}

qsizetype ParserChecks::windowOf(size_t number) const
{
    const size_t last = number + Neighbours;
    return (last < ends.size() ? ends[last] : traffic.bytes.size()) - beginOf(number);
}

// All messages, or some if there are too many, and what is behind the last one.
void ParserChecks::planMessages()
{
    qsizetype calls = 0;
    qsizetype bytes = 0;
    for (size_t i = 0; i < ends.size(); ++i) {
        const qsizetype window = windowOf(i);
        calls += window / stepOf(window) + 1;
        bytes += window / stepOf(window) * window / 2;
    }
    const auto step = static_cast<size_t>(std::max(calls / MostCalls, bytes / MostBytes)) + 1;
    const size_t checked = (ends.size() + step - 1) / step;
    messagesLeftOut = ends.size() - checked;
    const qsizetype size = std::max<qsizetype>(traffic.bytes.size(), 1);
    const qsizetype given = std::clamp<qsizetype>(MostBytesGivenAll / size, 1, MostGivenAll);
    const size_t givenStep = size <= SmallStream ? 1 : checked / static_cast<size_t>(given) + 1;
    for (size_t i = 0; i < checked; ++i)
        planMessage(i * step, i % givenStep == 0);
    planMessage(ends.size(), true);
}

// Every beginning of the message, then with the bytes of the next ones, then with all that follows.
void ParserChecks::planMessage(size_t number, bool isGivenAll)
{
    const qsizetype begin = beginOf(number);
    const qsizetype all = traffic.bytes.size() - begin;
    const bool isTail = number >= ends.size();
    const qsizetype length = isTail ? 0 : ends[number] - begin;
    const qsizetype window = windowOf(number);
    const qsizetype step = stepOf(window);
    const qsizetype nearEnd =
            std::clamp<qsizetype>(MostBytesOfMessage / (8 * window + 1), 1, NearEnd);
    const auto isNearEnd = [&](qsizetype size) {
        for (size_t i = number; i < std::min(number + Neighbours + 1, ends.size()); ++i) {
            if (std::abs(ends[i] - begin - size) <= nearEnd)
                return true;
        }
        return size <= nearEnd || window - size <= nearEnd;
    };
    const auto add = [&](qsizetype size) {
        const qsizetype due = size >= length ? length : 0;
        plan.push_back({{begin, size, Fence::Behind}, due, isTail, plan.size()});
    };
    for (qsizetype size = 0; size <= window; ++size) {
        if (step == 1 || size % step == 0 || isNearEnd(size))
            add(size);
        else
            ++beginningsLeftOut;
    }
    if (all > window && isGivenAll)
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
    Verdict verdict;
    if (!parser.error().isEmpty()) {
        verdict.result = Verdict::Skipped;
        verdict.detail = parser.error();
        return verdict;
    }
    const qsizetype left = traffic.bytes.size() - (ends.empty() ? 0 : ends.back());
    const auto made = std::count_if(outcomes.begin(), outcomes.end(), [](const Outcome &outcome) {
        return outcome.kind != Outcome::NotRun;
    });
    verdict.detail = QStringLiteral("%1 messages, %2 bytes left at the end; %3 calls")
                             .arg(ends.size())
                             .arg(left)
                             .arg(made);
    if (messagesLeftOut > 0)
        verdict.detail += QStringLiteral("; %1 messages left out").arg(messagesLeftOut);
    if (beginningsLeftOut > 0)
        verdict.detail += QStringLiteral("; %1 beginnings left out").arg(beginningsLeftOut);
    const bool isAnyConsumed =
            std::any_of(outcomes.begin(), outcomes.end(), [](const Outcome &outcome) {
                return outcome.kind == Outcome::Returned && outcome.value > 0;
            });
    if (ends.empty() && traffic.areEndsKnown) {
        verdict.result = Verdict::Skipped;
        verdict.detail = QStringLiteral("no whole message is in the stream");
    } else if (!isAnyConsumed && !traffic.bytes.isEmpty()) {
        verdict.result = Verdict::Failed;
    }
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
        verdict.detail = parser.error().isEmpty()
                ? QStringLiteral("too many calls did not return: the others were not made")
                : parser.error();
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

// Whether it shows only when the parser's answers to several beginnings are compared.
bool ParserChecks::needsBeginnings(Fault fault) const
{
    return fault == Fault::Unsteady || fault == Fault::Split
            || (fault == Fault::Stall && !traffic.areEndsKnown);
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
    if (needsBeginnings(fault) && input.size() > LongestOfBeginnings)
        return text("input that shows it", input);
    QElapsedTimer clock;
    clock.start();
    if (!shows(input))
        return text("input that shows it after other calls", input);
    if (clock.elapsed() > LongestTryMs)
        return text("input that shows it", input);
    const int tries = isSlow ? MostEndlessTries : MostTries;
    const QByteArray fewer =
            traffic.framing ? shrinkMessages(input, *traffic.framing, shows, tries) : input;
    return text("smallest input that shows it", shrink(fewer, shows, tries));
}

Fault ParserChecks::faultOfInput(const QByteArray &input, Fence fence, Fault wanted)
{
    if (wanted == Fault::Unsteady)
        return isSteady(input) ? Fault::None : Fault::Unsteady;
    if (needsBeginnings(wanted))
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
