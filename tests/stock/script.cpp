// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "script.h"

#include <algorithm>
#include <array>

namespace {

constexpr std::array<const char *, 6> EndingNames{"close", "half close", "reset",
                                                  "idle",  "stop",       "destroy"};
constexpr std::array<const char *, 9> ReplyNames{
        "all", "messages", "one message", "part", "too long", "0", "negative", "twice", "none"};

QString toText(const Answer &answer)
{
    QString text = QString::fromLatin1(ReplyNames[static_cast<std::size_t>(answer.reply)]);
    if (answer.amount != 0)
        text += QStringLiteral(" %1").arg(answer.amount);
    if (answer.lateMs != 0)
        text += QStringLiteral(" after %1 ms").arg(answer.lateMs);
    return text;
}

qsizetype partOf(qsizetype length, int thousandths)
{
    return std::max<qsizetype>(1, length * thousandths / 1000);
}

} // namespace

qsizetype Script::size() const
{
    return wholeUntil(std::numeric_limits<qsizetype>::max());
}

// Random bytes, so that a part of the stream tells where it comes from. The last byte of each
// message is the message's number, so that even a short part tells it if it ends with a message.
QByteArray Script::stream() const
{
    QByteArray bytes(size(), Qt::Uninitialized);
    Dice dice(seed);
    for (char &byte : bytes)
        byte = static_cast<char>(dice.number());
    qsizetype end = 0;
    for (qsizetype i = 0; i < messages.size(); ++i) {
        end += messages.at(i).bytes;
        bytes[end - 1] = static_cast<char>(i);
    }
    return bytes;
}

qsizetype Script::wholeUntil(qsizetype position) const
{
    qsizetype end = 0;
    for (const Message &message : messages) {
        if (end + message.bytes > position)
            break;
        end += message.bytes;
    }
    return end;
}

qsizetype Script::endOfMessageAt(qsizetype position) const
{
    qsizetype end = 0;
    for (const Message &message : messages) {
        end += message.bytes;
        if (end > position)
            break;
    }
    return end;
}

const Answer &Script::answerTo(qsizetype offer) const
{
    return offer < answers.size() ? answers.at(offer) : further;
}

QList<int> Script::discards(const Answer &answer, qsizetype begin, qsizetype length) const
{
    qsizetype cut = 0;
    switch (answer.reply) {
    case Reply::All:
        return {static_cast<int>(length)};
    case Reply::Messages:
        cut = wholeUntil(begin + length) - begin;
        break;
    case Reply::OneMessage:
        cut = endOfMessageAt(begin) - begin;
        cut = cut > length ? 0 : cut;
        break;
    case Reply::Part:
        return {static_cast<int>(partOf(length, answer.amount))};
    case Reply::TooLong:
        return {static_cast<int>(length + answer.amount)};
    case Reply::Zero:
        return {0};
    case Reply::Negative:
        return {-answer.amount};
    case Reply::Twice:
        cut = partOf(length, answer.amount);
        return {static_cast<int>(cut), static_cast<int>(cut)};
    case Reply::None:
        return {};
    }
    return cut > 0 ? QList<int>{static_cast<int>(cut)} : QList<int>();
}

QString Script::toString() const
{
    QString text = QStringLiteral("%1%2, seed %3, start %4 ms; ")
                           .arg(QLatin1String(spaced ? "spaced" : "hasty"),
                                QLatin1String(eager ? ", eager" : ""))
                           .arg(seed)
                           .arg(startMs);
    for (const Message &message : messages)
        text += QStringLiteral("%1 us, %2 bytes; ").arg(message.pauseUs).arg(message.bytes);
    text += QStringLiteral("%1 us, %2; host%3:")
                    .arg(endPauseUs)
                    .arg(QLatin1String(EndingNames[static_cast<std::size_t>(ending)]),
                         QLatin1String(otherThread ? " in another thread" : ""));
    for (const Answer &answer : answers)
        text += QLatin1Char(' ') + toText(answer) + QLatin1Char(';');
    return text + QStringLiteral(" further: ") + toText(further);
}
