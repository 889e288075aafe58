// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "judge.h"

#include "scriptwriter.h"

#include <QtCore/QRegularExpression>

#include <algorithm>

namespace {

double msBetween(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration<double, std::milli>(to - from).count();
}

// Some lines name no connection. Where connections share threads, such lines cannot be assigned.
bool isAnonymous(const QString &line)
{
    return !line.contains(QLatin1String(":device"))
            && !line.startsWith(QLatin1String("D: TcpInput2("));
}

CourseTimes timesOf(const Script &script, const Trace &trace)
{
    CourseTimes times;
    times.created = msBetween(trace.zero, trace.created);
    for (const Clock::time_point at : trace.messages)
        times.messages.append(msBetween(trace.zero, at));
    times.end = msBetween(trace.zero, trace.end);
    for (auto entry = trace.discards.cbegin(); entry != trace.discards.cend(); ++entry) {
        if (script.answerTo(entry.key()).lateMs > 0)
            times.answers.insert(entry.key(), msBetween(trace.zero, *entry));
    }
    return times;
}

// By how much the machine, or the host's other thread, was late.
double longestDelay(const Script &script, const Trace &trace)
{
    auto longest = static_cast<double>(trace.heldUp.count());
    for (auto entry = trace.discards.cbegin(); entry != trace.discards.cend(); ++entry) {
        if (script.answerTo(entry.key()).lateMs == 0)
            longest = std::max(longest, msBetween(trace.offers.at(entry.key()).at, *entry));
    }
    return longest;
}

QStringList textsOf(const QList<TracedOffer> &offers)
{
    QStringList texts;
    for (const TracedOffer &offer : offers)
        texts += Course::offerText(offer.begin, offer.length);
    return texts;
}

QStringList textsOf(const QList<Course::Offer> &offers)
{
    QStringList texts;
    for (const Course::Offer &offer : offers)
        texts += offer.text;
    return texts;
}

QStringList visible(const QStringList &lines, bool ownThread)
{
    QStringList result;
    for (const QString &line : lines) {
        if (ownThread || !isAnonymous(line))
            result += line;
    }
    return result;
}

QStringList textsOf(const QList<TracedLine> &lines)
{
    QStringList texts;
    for (const TracedLine &line : lines)
        texts += line.text;
    return texts;
}

void compareWithCourse(const Course &course, const Trace &trace, bool ownThread,
                       QStringList &differences)
{
    const QString lines =
            Judge::firstDifference(visible(course.lines, ownThread), textsOf(trace.lines));
    if (!lines.isEmpty())
        differences += QStringLiteral("lines: ") + lines;
    const QString offers = Judge::firstDifference(textsOf(course.offers), textsOf(trace.offers));
    if (!offers.isEmpty())
        differences += QStringLiteral("offers: ") + offers;
    if (!differences.isEmpty())
        return;
    for (qsizetype i = 0; i < trace.offers.size(); ++i) {
        const QStringList before = course.lines.first(course.offers[i].lines);
        const qsizetype count = visible(before, ownThread).size();
        if (count > 0 && trace.lines[count - 1].order > trace.offers[i].order)
            differences += QStringLiteral("offer %1 is with the host before this line: %2")
                                   .arg(i)
                                   .arg(trace.lines[count - 1].text);
    }
}

void checkPunctuality(const Course &course, const Trace &trace, double delay,
                      QStringList &differences)
{
    for (qsizetype i = 0; i < trace.offers.size(); ++i) {
        const Course::Offer &offer = course.offers[i];
        const double late = msBetween(trace.zero, trace.offers[i].at) - offer.at - offer.inexact;
        if (late > ScriptWriter::PlayedSlackMs + 2 * delay)
            differences += QStringLiteral("offer %1 is %2 ms late").arg(i).arg(late);
    }
}

// What holds for every connection, in whatever order things happen.
void checkOffers(const Script &script, const CourseNames &names, const Trace &trace,
                 QStringList &differences)
{
    const QString record = Course::recordText(names);
    qsizetype end = 0;
    for (const TracedOffer &offer : trace.offers) {
        const QString text = Course::offerText(offer.begin, offer.length);
        if (!offer.intact)
            differences += QStringLiteral("no part of the stream: ") + text;
        if (offer.record != record)
            differences += QStringLiteral("the record says \"%1\"").arg(offer.record);
        if (offer.length == 0)
            differences += QStringLiteral("an empty offer");
        if (offer.begin > (script.spaced ? trace.discarded : std::min(end, trace.discarded)))
            differences += QStringLiteral("bytes were left out before ") + text;
        end = std::max(end, offer.begin + offer.length);
    }
    if (!trace.ended || trace.overdue)
        differences += QStringLiteral("it did not end");
    if (!script.spaced && end != trace.received) // a spaced host may cut bytes that it never saw
        differences += QStringLiteral("%1 bytes received, %2 offered").arg(trace.received).arg(end);
    const bool gently = script.ending == Ending::Close || script.ending == Ending::HalfClose
            || script.ending == Ending::IdleTimeout;
    if (trace.received > trace.sent || (gently && trace.received < trace.sent))
        differences +=
                QStringLiteral("%1 bytes sent, %2 received").arg(trace.sent).arg(trace.received);
}

// Checks the order of the lines. Each kind of line is one letter of a word.
void checkLines(const EpisodePlan &plan, const Trace &trace, QStringList &differences)
{
    static const QList<std::pair<QLatin1Char, QRegularExpression>> kinds{
            {QLatin1Char('h'), QRegularExpression(QStringLiteral("^D: TcpTask2: Handling "))},
            {QLatin1Char('n'), QRegularExpression(QStringLiteral("^D: TcpTask2: new conn"))},
            {QLatin1Char('i'), QRegularExpression(QStringLiteral("^D: TcpClient: id = "))},
            {QLatin1Char('a'), QRegularExpression(QStringLiteral("new client added"))},
            {QLatin1Char('z'), QRegularExpression(QStringLiteral("#clients = "))},
            {QLatin1Char('r'), QRegularExpression(QStringLiteral("^D: TCP READ: "))},
            {QLatin1Char('m'), QRegularExpression(QStringLiteral("^I: .* msgsize = \\d{4,}$"))},
            {QLatin1Char('t'), QRegularExpression(QStringLiteral("^D: .* still .* triggering$"))},
            {QLatin1Char('k'), QRegularExpression(QStringLiteral("^I: .* stopped, kicking$"))},
            {QLatin1Char('w'), QRegularExpression(QStringLiteral("^w: of Qt's own$"))},
            {QLatin1Char('o'), QRegularExpression(QStringLiteral("^D: TcpClient: timeout$"))},
            {QLatin1Char('c'), QRegularExpression(QStringLiteral("^D: TcpClient: closing "))},
            {QLatin1Char('d'), QRegularExpression(QStringLiteral("non-existing"))}};
    static const QRegularExpression owned(QStringLiteral("^hnia?z?(r([mt]|wk)*)?o?cd*$"));
    static const QRegularExpression shared(QStringLiteral("^ni(rm*)?cd*$"));
    QString word;
    for (const TracedLine &line : trace.lines) {
        const auto kind = std::find_if(kinds.begin(), kinds.end(), [&](const auto &candidate) {
            return candidate.second.match(line.text).hasMatch();
        });
        word += kind == kinds.end() ? QLatin1Char('?') : kind->first;
    }
    // After stop() discards find no task, even before their connection is closed.
    if (plan.ending == Ending::Stop)
        word.remove(QLatin1Char('d'));
    if (!(plan.ownThreads ? owned : shared).match(word).hasMatch())
        differences += QStringLiteral("lines in the order ") + word;
}

} // namespace

QString Judge::firstDifference(const QStringList &expected, const QStringList &actual)
{
    qsizetype same = 0;
    while (same < std::min(expected.size(), actual.size()) && expected[same] == actual[same])
        ++same;
    if (same == expected.size() && same == actual.size())
        return {};
    return QStringLiteral("number %1: expected \"%2\", came \"%3\"")
            .arg(same)
            .arg(expected.value(same), actual.value(same));
}

Judge::Verdict Judge::judge(const EpisodePlan &plan, int connection, const Trace &trace, bool timed)
{
    Verdict verdict;
    const Script &script = plan.scripts.at(connection);
    checkOffers(script, plan.names(connection), trace, verdict.differences);
    checkLines(plan, trace, verdict.differences);
    if (!script.spaced || !verdict.differences.isEmpty())
        return verdict;
    const Course course(script, plan.names(connection), timesOf(script, trace));
    const double delay = longestDelay(script, trace);
    verdict.decided = course.slack >= std::max(ScriptWriter::PlayedSlackMs, delay);
    if (!verdict.decided)
        return verdict;
    verdict.course = visible(course.lines, plan.ownThreads).join(QLatin1Char('\n'))
            + QStringLiteral("\noffers: ") + textsOf(course.offers).join(QStringLiteral(", "));
    compareWithCourse(course, trace, plan.ownThreads, verdict.differences);
    if (timed && verdict.differences.isEmpty())
        checkPunctuality(course, trace, delay, verdict.differences);
    return verdict;
}

QString Judge::describe(const Trace &trace)
{
    QList<std::pair<qint64, QString>> events;
    const auto note = [&](qint64 order, Clock::time_point at, const QString &text) {
        events.append(
                {order,
                 QStringLiteral("%1 ms  %2").arg(msBetween(trace.zero, at), 9, 'f', 3).arg(text)});
    };
    for (const TracedLine &line : trace.lines)
        note(line.order, line.at, line.text);
    for (qsizetype i = 0; i < trace.offers.size(); ++i) {
        const TracedOffer &offer = trace.offers[i];
        note(offer.order, offer.at,
             QStringLiteral("offer %1: %2")
                     .arg(i)
                     .arg(Course::offerText(offer.begin, offer.length)));
    }
    std::sort(events.begin(), events.end());
    QStringList texts;
    for (const auto &event : std::as_const(events))
        texts += event.second;
    QString sent;
    for (const Clock::time_point at : trace.messages)
        sent += QStringLiteral(" %1").arg(msBetween(trace.zero, at), 0, 'f', 3);
    QString answered;
    for (auto entry = trace.discards.cbegin(); entry != trace.discards.cend(); ++entry)
        answered += QStringLiteral(" %1 at %2")
                            .arg(entry.key())
                            .arg(msBetween(trace.zero, *entry), 0, 'f', 3);
    return QStringLiteral("    sent at%1, end at %2; answers:%3\n      ")
                   .arg(sent)
                   .arg(msBetween(trace.zero, trace.end), 0, 'f', 3)
                   .arg(answered)
            + texts.join(QStringLiteral("\n      "));
}
