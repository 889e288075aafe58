// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>

#include <random>

//! Random numbers that are the same everywhere for the same seed.
class Dice
{
public:
    explicit Dice(quint32 seed) : generator(seed) {}

    quint32 number() { return static_cast<quint32>(generator()); }
    int below(int limit) { return static_cast<int>(number() % static_cast<quint32>(limit)); }
    int between(int least, int most) { return least + below(most - least + 1); }
    bool inPercent(int percent) { return below(100) < percent; }

private:
    std::mt19937 generator;
};

enum class Ending { Close, HalfClose, Reset, IdleTimeout, Stop, Destroy };

//! What the host does about an offer.
enum class Reply {
    All, // cuts all of it
    Messages, // all messages that it has whole
    OneMessage, // the first of them
    Part, // some bytes of it, wherever messages end
    TooLong, // more than the offer has
    Zero,
    Negative,
    Twice, // a part, and as much again
    None, // says nothing
};

struct Answer
{
    Reply reply = Reply::All;
    int amount = 0; // Part, Twice: thousandths of the offer; TooLong, Negative: bytes
    int lateMs = 0; // 0: from within the slot
};

//! One write of the device, which is one message.
struct Message
{
    qint64 pauseUs = 0; // before it
    qsizetype bytes = 0;
};

/*!
    What the device and the host of one connection do.

    The host answers each offer with its next answer, and all further offers alike.

    Spaced: all events are so far from each other, and from every time limit, that they can go only
    one way.

    Hasty: the machine decides what happens first. Offers may repeat bytes: the host remembers what
    it has consumed, and discards only what is new.
*/
struct Script
{
    quint32 seed = 0; // also of the bytes
    bool spaced = true;
    bool eager = false; // sends without waiting until the plugin has a client for it
    bool otherThread = false; // the host discards in a thread of its own
    // Counts from one of the client's checks if the script is spaced and the plugin does not end
    // it. Otherwise it counts from the time when all are connected.
    int startMs = 0;
    QList<Message> messages;
    qint64 endPauseUs = 0; // from the last message to the end
    Ending ending = Ending::Close;
    QList<Answer> answers;
    Answer further; // to all later offers

    qsizetype size() const;
    QByteArray stream() const; // all bytes of the device
    // Where the last message ends that is whole before a position in the stream.
    qsizetype wholeUntil(qsizetype position) const;
    qsizetype endOfMessageAt(qsizetype position) const; // of the message that has this byte
    const Answer &answerTo(qsizetype offer) const;
    // The lengths that the host discards when it answers an offer. Spaced only.
    QList<int> discards(const Answer &answer, qsizetype begin, qsizetype length) const;

    QString toString() const;
};
