// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/messagewriter.h"

#include "plugin/cwrn.h"
#include "plugin/parseddata.h"
#include "plugin/subids.h"

namespace host {

using inputkit::Allowance;
using inputkit::Frame;
using inputkit::FrameState;

namespace {

quint64 connectionOf(const ParsedData &record)
{
    const QMap<QString, QString> subIds = record.getPluginSubId();
    return ExactOffers::Place{subids::Values(subIds)}.connection;
}

} // namespace

MessageWriter::MessageWriter(const FrameFormat &frameFormat, Sink &messageSink, Counters &total)
    : maxMessage(frameFormat.maxMessage),
      framing(framingOf(frameFormat)),
      sink(messageSink),
      counters(total)
{}

Origin MessageWriter::originOf(const ParsedData &record, quint64 connection) const
{
    Origin origin;
    origin.connection = connection;
    origin.source = record.getSource(); // warnings name it
    if (!observers.empty() || sink.showsOrigins()) {
        origin.peer = record.getPeerAddress();
        origin.port = record.getPeerPort();
    }
    if (!sink.showsOrigins())
        return origin;

    origin.time = record.getTime();
    origin.plugin = record.getPluginId();
    origin.client = record.getPluginSubIdKey(subids::client());
    origin.task = record.getPluginSubIdKey(subids::task());
    return origin;
}

void MessageWriter::began(const ParsedData &record)
{
    counters.addConnection(record.getPluginSubIdKey(subids::client()));
    const quint64 connection = connectionOf(record);
    if (connection != 0 && sink.showsOrigins())
        sink.began(originOf(record, connection));
}

qsizetype MessageWriter::write(QByteArrayView bytes, quint64 position, const Origin &origin,
                               FrameState &state, Allowance &allowance)
{
    QByteArray head; // the same for all messages of an offer
    qsizetype taken = 0;
    while (!done && taken < bytes.size() && !allowance.isUsedUp()) {
        const Frame frame = framing->take(bytes.sliced(taken), state);
        if (frame.kind == Frame::Incomplete)
            break;
        const quint64 begin = position + static_cast<quint64>(taken);
        taken += frame.size;
        allowance.messages -= 1;
        allowance.bytes -= frame.size;
        if (frame.kind == Frame::Complete) {
            if (head.isNull() && sink.showsOrigins())
                head = sink.headOf(origin);
            writeMessage(
                    {origin, head, frame.message, begin, begin + static_cast<quint64>(frame.size)});
        } else if (frame.kind == Frame::TooLong) {
            warnOfTooLong(origin);
        }
    }
    return taken;
}

qsizetype MessageWriter::bytesToAppend(QByteArrayView rest, QByteArrayView next) const
{
    return framing->bytesToAppend(rest, next);
}

void MessageWriter::writePartial(QByteArrayView rest, quint64 position, const Origin &origin)
{
    if (rest.isEmpty() || done)
        return;
    pass({origin, sink.headOf(origin), framing->partial(rest), position,
          position + static_cast<quint64>(rest.size()), true});
    ++counters.partial;
}

bool MessageWriter::giveUp(QByteArrayView rest, quint64 position, const Origin &origin,
                           FrameState &state)
{
    if (!framing->abandon(rest, state))
        return false;
    writePartial(rest, position, origin);
    if (givenUpLines.allows())
        CWRN(QtWarningMsg, QStringLiteral("Unfinished message of %1 bytes given up, from %2"),
             rest.size(), origin.source);
    return true;
}

void MessageWriter::read(const Origin &origin, quint64 position, QByteArrayView bytes)
{
    for (inputkit::TrafficObserver *observer : observers)
        observer->read(origin, position, bytes);
}

void MessageWriter::ended(const Origin &origin, const QString &reason, quint64 position)
{
    for (inputkit::TrafficObserver *observer : observers)
        observer->ended(origin, reason, position);
    if (acknowledgements)
        acknowledgements->forget(origin.connection);
    sink.ended(origin, reason, position);
}

void MessageWriter::tellMissedWarnings(bool atOnce)
{
    if (const qint64 missed = tooLongLines.takeMissed(atOnce))
        CWRN(QtWarningMsg, QStringLiteral("%1 more messages of more than %2 bytes skipped"), missed,
             maxMessage);
    if (const qint64 missed = givenUpLines.takeMissed(atOnce))
        CWRN(QtWarningMsg, QStringLiteral("%1 more unfinished messages given up"), missed);
}

void MessageWriter::warnOfTooLong(const Origin &origin)
{
    ++counters.tooLong;
    if (tooLongLines.allows())
        CWRN(QtWarningMsg, QStringLiteral("Message of more than %1 bytes skipped, from %2"),
             maxMessage, origin.source);
}

// Told before it is passed: a sink may say at once that it is safe.
void MessageWriter::pass(const Message &message)
{
    if (acknowledgements && message.origin.connection != 0)
        acknowledgements->handedOut(message.origin.connection, message.end);
    sink.write(message);
}

void MessageWriter::writeMessage(const Message &message)
{
    pass(message);
    ++counters.messages;
    counters.bytes += message.bytes.size();
    if (counters.messages != limit)
        return;

    done = true;
    Q_EMIT finished();
}

} // namespace host
