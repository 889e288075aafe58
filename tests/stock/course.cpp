// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "course.h"

#include <algorithm>
#include <utility>

namespace {

constexpr double OfferIntervalMs = 200;
constexpr double CheckIntervalMs = 2000;
constexpr double TimerErrorShare = 0.05; // of a coarse timer
// Qt moves a coarse repeating timer by up to this much at each step, and the errors add up.
constexpr double CheckErrorMs = 105;
constexpr qsizetype KickAboveBytes = 80;
constexpr qsizetype ReofferAboveBytes = 20;
constexpr qsizetype LogReadAboveBytes = 1000;
constexpr double UsPerMs = 1000;
constexpr double Never = 1e9;
constexpr double LongestMs = 60000; // ends the play of a connection that never ends

} // namespace

Course::Course(const Script &played, const CourseNames &givenNames, const CourseTimes &givenTimes)
    : script(played),
      names(givenNames),
      times(givenTimes),
      nextCheckAt(givenTimes.created),
      lastDelivery(givenTimes.created)
{
    lines += QStringLiteral("D: TcpTask2: Handling %1 connection, T")
                     .arg(QLatin1String(names.tls ? "SSL" : "TCP"));
    lines += QStringLiteral("D: TcpTask2: new connection ") + id();
    lines += QStringLiteral("D: TcpClient: id = '%1', local = '%2:port'").arg(id(), names.local);
    lines += QStringLiteral("D: TcpTask2 (%1): new client added, size = 1").arg(names.task);
    lines += QStringLiteral("D:   TcpTask2: id = t, #clients = 1, id = T"); // when all is set up
    play();
}

CourseTimes Course::plannedTimes(const Script &script)
{
    CourseTimes planned;
    planned.created = -script.startMs;
    double at = 0;
    for (const Message &message : script.messages) {
        at += static_cast<double>(message.pauseUs) / UsPerMs;
        planned.messages.append(at);
    }
    planned.end = at + static_cast<double>(script.endPauseUs) / UsPerMs;
    return planned;
}

QString Course::offerText(qsizetype begin, qsizetype length)
{
    return QStringLiteral("%1 + %2").arg(begin).arg(length);
}

QString Course::recordText(const CourseNames &names)
{
    const QString id = QStringLiteral("tcp2:%1:port-%1:device").arg(names.local);
    return QStringLiteral("plugin t, TCP:%1, %2:device, client %1, task %3")
            .arg(id, names.local)
            .arg(names.task);
}

void Course::play()
{
    for (qsizetype i = 0; i < script.messages.size(); ++i)
        plan(times.messages.value(i, Never), [this, i] { read(script.messages.at(i).bytes); });
    if (script.ending != Ending::IdleTimeout)
        plan(times.end, [this] { end(); });
    planCheck();
    while (!inputs.empty() && now < LongestMs) {
        const double expiry = lastDelivery + names.timeoutMs;
        const auto next = inputs.begin();
        if (open && expiry < next->first) {
            idle(expiry);
            continue;
        }
        now = next->first;
        const auto what = std::move(next->second);
        inputs.erase(next);
        what();
        settle();
    }
}

void Course::planCheck()
{
    nextCheckAt += CheckIntervalMs;
    checkError += CheckErrorMs;
    plan(nextCheckAt, [this] { check(); });
}

// To be called for each input. Keeps the distance to what could have come first: the input before,
// or a timer that is due soon.
void Course::begin()
{
    keepDistance(now - before);
    before = now;
    if (!open)
        return;
    keepDistance(idleFrom() - now);
    if (buffered() > KickAboveBytes) {
        const double toCheck = nextCheckAt - checkError - now;
        const double toKick = CheckIntervalMs - (now - lastOfferAt) - uncertainty;
        keepDistance(std::max(toCheck, toKick));
    }
}

// The earliest time at which the idle time-out may end the connection.
double Course::idleFrom() const
{
    return lastDelivery + names.timeoutMs * (1 - TimerErrorShare);
}

void Course::read(qsizetype bytes)
{
    begin();
    if (!open) {
        keepDistance(0); // not planned, so undecided
        return;
    }
    if (!std::exchange(known, true))
        lines += QStringLiteral("D: TCP READ: %1:port (%1:device)").arg(names.local);
    if (bytes > LogReadAboveBytes)
        lines += QStringLiteral("I: TcpClient2 (%1): msgsize = %2").arg(id()).arg(bytes);
    received += bytes;
    ++reads;
    const double since = now - lastOfferAt;
    keepDistance(std::abs(since - OfferIntervalMs) - uncertainty);
    if (since > OfferIntervalMs)
        offer();
}

void Course::check()
{
    if (!open)
        return;
    const double error = checkError;
    planCheck();
    if (buffered() <= KickAboveBytes)
        return;
    const double since = now - lastOfferAt;
    keepDistance(std::abs(since - CheckIntervalMs) - error - uncertainty);
    if (since <= CheckIntervalMs)
        return;
    keepDistance(now - error - before);
    keepDistance(idleFrom() - error - now);
    before = now + error;
    // Qt warns that the next line has no place for its argument.
    lines += QStringLiteral("w: of Qt's own");
    lines += QStringLiteral("I: TcpClient: inbuf parsing stopped, kicking");
    offer();
    offers.last().inexact = uncertainty = error;
}

void Course::idle(double expiry)
{
    now = expiry;
    const double halfWidth = names.timeoutMs * TimerErrorShare;
    keepDistance(now - halfWidth - before);
    before = now + halfWidth;
    if (script.ending != Ending::IdleTimeout)
        keepDistance(0); // not planned, so undecided
    lines += QStringLiteral("D: TcpClient: timeout");
    const qsizetype made = offers.size();
    end();
    if (offers.size() > made)
        offers.last().inexact = halfWidth;
    settle();
}

void Course::end()
{
    if (!open)
        return;
    if (script.ending != Ending::IdleTimeout)
        begin();
    if (buffered() > 0) {
        lastOffer = offers.size();
        offer();
        ++offers.last().lines; // the closing line
        if (script.ending == Ending::Stop || script.ending == Ending::Destroy)
            offers.last().inexact = Never; // the host is inside stop() or the destructor
    }
    lines += QStringLiteral("D: TcpClient: closing connection %1 (received %2 bytes, %3 msgs)")
                     .arg(id())
                     .arg(received)
                     .arg(reads);
    consumed = received;
    open = false;
}

void Course::offer()
{
    // An offer that follows at once from another one is as uncertain as that one.
    uncertainty = now == lastOfferAt ? uncertainty : 0;
    offers.append({offerText(consumed, buffered()), lines.size(), now, uncertainty});
    offered.emplace_back(consumed, buffered());
    toHost.push_back(offers.size() - 1);
    lastOfferAt = lastDelivery = now;
}

// Carries out what follows at once. The queues leave only one order.
void Course::settle()
{
    while (!toHost.empty() || !toClient.empty()) {
        if (!toHost.empty()) {
            const qsizetype number = toHost.front();
            toHost.pop_front();
            answer(number);
        }
        if (!toClient.empty()) {
            const int length = toClient.front();
            toClient.pop_front();
            cut(length);
        }
    }
}

void Course::answer(qsizetype number)
{
    const Answer &given = script.answerTo(number);
    const auto [from, length] = offered[static_cast<std::size_t>(number)];
    if (given.reply == Reply::None || (!open && script.ending == Ending::Destroy))
        return;
    if (given.lateMs == 0) {
        // The machine decides whether the task still has the client.
        if (!open && script.ending != Ending::Stop)
            keepDistance(0);
        discard(given, from, length);
        return;
    }
    plan(times.answers.value(number, now + given.lateMs), [this, given, f = from, l = length] {
        if (!open && script.ending == Ending::Destroy)
            return;
        begin();
        discard(given, f, l);
    });
}

void Course::discard(const Answer &given, qsizetype from, qsizetype length)
{
    const QList<int> lengths = script.discards(given, from, length);
    for (const int each : lengths) {
        if (open)
            toClient.push_back(each);
        else if (script.ending == Ending::Stop)
            lines += QStringLiteral("D: TcpInput2(t): discarding for non-existing task %1")
                             .arg(names.task);
        else
            lines += QStringLiteral("D: TcpTask2: discard for non-existing client ") + id();
    }
}

void Course::cut(int length)
{
    if (!open)
        return;
    consumed += std::clamp<qsizetype>(length, 0, buffered());
    if (buffered() <= ReofferAboveBytes)
        return;
    lines += QStringLiteral("D: TcpClient: inbuf still %1 bytes, triggering").arg(buffered());
    offer();
}

QString Course::id() const
{
    return QStringLiteral("tcp2:%1:port-%2:device")
            .arg(known ? names.local : names.listens, names.local);
}
