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
    Part, // some of it, whatever that is
    TooLong, // more than it has
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

    The host answers each offer by the next of its answers, and all further ones alike.

    Spaced: everything happens so far from everything else, and from every limit of time, that there
    is only one way for it to go.

    Hasty: what happens first is up to the machine. The host remembers what it has consumed,
    whatever the offers repeat, and discards only what is new.
*/
struct Script
{
    quint32 seed = 0; // of the bytes, too
    bool spaced = true;
    bool eager = false; // sends without waiting until the plugin has a client for it
    bool otherThread = false; // the host discards in a thread of its own
    int startMs = 0; // spaced: after one of the client's checks; else after the others
    QList<Message> messages;
    qint64 endPauseUs = 0; // from the last message on
    Ending ending = Ending::Close;
    QList<Answer> answers;
    Answer further; // to all offers that come after

    qsizetype size() const;
    QByteArray stream() const; // all bytes of the device
    // Where the last message ends that lies before a position in the stream.
    qsizetype wholeUntil(qsizetype position) const;
    qsizetype endOfMessageAt(qsizetype position) const; // of the one that has this byte
    const Answer &answerTo(qsizetype offer) const;
    // What the host says to an offer, by the lengths that it discards. Spaced only.
    QList<int> discards(const Answer &answer, qsizetype begin, qsizetype length) const;

    QString toString() const;
};
