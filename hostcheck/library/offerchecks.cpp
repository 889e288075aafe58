// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// When bytes are offered, and what a discard does.

#include "hostcheck/library/checks.h"
#include "hostcheck/library/subject.h"

#include <QtCore/QElapsedTimer>

#include <algorithm>
#include <thread>

namespace hostcheck {
namespace {

// Within the 200 ms after an offer, and behind them. Offers are seen later than they are made.
constexpr int WithinIntervalMs = 130;
constexpr int BehindIntervalMs = 230;
// A machine that stands still may make a device late: then it is tried again.
constexpr int MostTries = 15;
// The first check may come just before the 2 s are over, and timers are late by a twentieth.
constexpr int TwoChecksMs = 4500;

// A configuration with one worker: what it does for connections keeps its order.
QJsonObject oneWorker()
{
    return {{QStringLiteral("threadpoolSize"), 1}};
}

void wholeBuffer(Subject &subject)
{
    subject.start();
    Device device(subject.address(), subject.port());
    device.send("ab");
    subject.waitForRecord(device, 1);
    subject.pause(BehindIntervalMs);
    device.send("cd");
    requireEqual(subject.waitForRecord(device, 2)->getOriginalMessage(), QByteArray("abcd"),
                 QStringLiteral("second offer, nothing discarded"));
    subject.discard(subject.recordsOf(device).last(), 3);
    subject.pause(BehindIntervalMs);
    device.send("e");
    requireEqual(subject.waitForRecord(device, 3)->getOriginalMessage(), QByteArray("de"),
                 QStringLiteral("third offer, 3 bytes discarded"));
}

void holdsWithin200Ms(Subject &subject)
{
    subject.start();
    for (int i = 0; i < MostTries; ++i) {
        Device device(subject.address(), subject.port());
        device.send("a");
        subject.waitForRecord(device, 1);
        subject.pause(WithinIntervalMs);
        device.send("b");
        // Bytes behind it bring an offer, if it has waited.
        for (int more = 0; more < MostTries && subject.recordsOf(device).size() < 2; ++more) {
            subject.pause(BehindIntervalMs);
            device.send("c");
        }
        if (subject.waitForRecord(device, 2)->getOriginalMessage() != "ab")
            return;
    }
    require(false,
            QStringLiteral("bytes that came %1 ms after an offer did not wait")
                    .arg(WithinIntervalMs));
}

void offersAfter200Ms(Subject &subject)
{
    subject.start();
    Device device(subject.address(), subject.port());
    device.send("a");
    subject.waitForRecord(device, 1);
    subject.pause(BehindIntervalMs);
    device.send("b");
    requireEqual(subject.waitForRecord(device, 2)->getOriginalMessage(), QByteArray("ab"),
                 QStringLiteral("offer"));
}

// Offers the rest at once if more than 20 bytes are left.
void reoffersAbove20(Subject &subject)
{
    subject.start();
    Device device(subject.address(), subject.port());
    device.send(QByteArray(10, 'a') + QByteArray(21, 'b'));
    subject.discard(subject.waitForRecord(device, 1), 10);
    requireEqual(subject.waitForRecord(device, 2)->getOriginalMessage(), QByteArray(21, 'b'),
                 QStringLiteral("offer after a discard that left 21 bytes"));
    require(!subject.log()
                     .texts(QStringLiteral("TcpClient: inbuf still 21 bytes, triggering"))
                     .isEmpty(),
            QStringLiteral("no line inbuf still 21 bytes"));
}

void keeps20(Subject &subject)
{
    subject.start();
    Device device(subject.address(), subject.port());
    device.send(QByteArray(10, 'a') + QByteArray(20, 'b'));
    subject.discard(subject.waitForRecord(device, 1), 10);
    subject.pause(BehindIntervalMs);
    device.send("c"); // its offer comes behind one that the discard would have caused
    requireEqual(subject.waitForRecord(device, 2)->getOriginalMessage(), QByteArray(20, 'b') + 'c',
                 QStringLiteral("offer after a discard that left 20 bytes, and one more"));
}

void discardOfNothing(Subject &subject)
{
    subject.start();
    Device device(subject.address(), subject.port());
    const QByteArray bytes(21, 'a');
    device.send(bytes);
    int count = 1;
    for (const int length : {0, -5}) {
        subject.discard(subject.waitForRecord(device, count), length);
        ++count;
        requireEqual(subject.waitForRecord(device, count)->getOriginalMessage(), bytes,
                     QStringLiteral("offer after discard(%1)").arg(length));
    }
}

void discardOfMore(Subject &subject)
{
    subject.start();
    Device device(subject.address(), subject.port());
    device.send("abc");
    subject.discard(subject.waitForRecord(device, 1), 1000);
    subject.pause(BehindIntervalMs);
    device.send("d");
    requireEqual(subject.waitForRecord(device, 2)->getOriginalMessage(), QByteArray("d"),
                 QStringLiteral("offer after a discard of more than there was"));
}

void kicksAbove80(Subject &subject)
{
    subject.start(oneWorker());
    Device small(subject.address(), subject.port());
    small.send(QByteArray(80, 's'));
    subject.waitForRecord(small, 1);
    QElapsedTimer sinceSmall;
    sinceSmall.start();
    Device large(subject.address(), subject.port());
    QElapsedTimer clock;
    clock.start();
    large.send(QByteArray(81, 'l'));
    subject.waitForRecord(large, 1);
    subject.waitFor([&] { return subject.recordsOf(large).size() == 2; },
                    QStringLiteral("81 bytes were not offered again"));
    const qint64 elapsed = clock.elapsed();
    require(elapsed >= 2000,
            QStringLiteral("81 bytes were offered again after %1 ms").arg(elapsed));
    requireEqual(subject.offersOf(large).last(), QByteArray(81, 'l'), QStringLiteral("the kick"));
    subject.pause(static_cast<int>(std::max<qint64>(TwoChecksMs - sinceSmall.elapsed(), 0)));
    requireEqual(subject.recordsOf(small).size(), 1, QStringLiteral("offers of 80 bytes"));
    require(subject.log().has(QtInfoMsg,
                              QStringLiteral("TcpClient: inbuf parsing stopped, kicking")),
            QStringLiteral("no line about the kick"));
}

void discardsOnlyItsConnection(Subject &subject)
{
    subject.start(oneWorker());
    Device first(subject.address(), subject.port());
    Device second(subject.address(), subject.port());
    first.send("first");
    second.send("second");
    subject.waitForRecord(second, 1);
    subject.discard(subject.waitForRecord(first, 1), 5);
    subject.pause(BehindIntervalMs);
    first.send("!");
    second.send("!");
    requireEqual(subject.waitForRecord(first, 2)->getOriginalMessage(), QByteArray("!"),
                 QStringLiteral("the connection that was discarded"));
    requireEqual(subject.waitForRecord(second, 2)->getOriginalMessage(), QByteArray("second!"),
                 QStringLiteral("the other connection"));
}

void discardFromThread(Subject &subject)
{
    subject.start();
    Device device(subject.address(), subject.port());
    device.send(QByteArray(10, 'a') + QByteArray(30, 'b'));
    const shared_parsedData record = subject.waitForRecord(device, 1);
    std::thread([&] { subject.discard(record, 10); }).join();
    requireEqual(subject.waitForRecord(device, 2)->getOriginalMessage(), QByteArray(30, 'b'),
                 QStringLiteral("offer"));
}

// Whole lines of many, discarded as they come.
void order(Subject &subject)
{
    subject.start({{QStringLiteral("offsets"), true}, {QStringLiteral("prompt"), true}});
    constexpr int Lines = 2000;
    Device device(subject.address(), subject.port());
    QByteArray sent;
    for (int i = 0; i < Lines; ++i)
        sent += QByteArray::number(i) + '\n';
    for (qsizetype at = 0; at < sent.size(); at += 777)
        device.send(sent.mid(at, 777));

    QByteArray seen;
    qsizetype handled = 0;
    subject.waitFor(
            [&] {
                const auto records = subject.recordsOf(device);
                for (; handled < records.size(); ++handled) {
                    const shared_parsedData &record = records.at(handled);
                    const QByteArray bytes = record->getOriginalMessage();
                    const auto offset = record->getPluginSubIdKey(QStringLiteral("offset"));
                    seen += bytes.mid(seen.size() - offset.toLongLong());
                    subject.discard(record, static_cast<int>(bytes.size()));
                }
                return seen.size() >= sent.size();
            },
            QStringLiteral("not all bytes came"));
    require(seen == sent, QStringLiteral("other bytes came, or in another order"));
}

} // namespace

const std::vector<Check> &offerChecks()
{
    static const std::vector<Check> checks = {
            {"whole-buffer", wholeBuffer},
            {"holds-within-200-ms", holdsWithin200Ms},
            {"offers-after-200-ms", offersAfter200Ms},
            {"offers-more-than-20", reoffersAbove20},
            {"keeps-20", keeps20},
            {"discard-nothing", discardOfNothing},
            {"discard-more", discardOfMore},
            {"kick", kicksAbove80},
            {"discard-one-connection", discardsOnlyItsConnection},
            {"discard-from-thread", discardFromThread},
            {"order", order},
    };
    return checks;
}

} // namespace hostcheck
