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

MessageWriter::MessageWriter(const FrameFormat &frameFormat, Output &messageOutput, Counters &total)
    : maxMessage(frameFormat.maxMessage),
      framing(framingOf(frameFormat)),
      output(messageOutput),
      counters(total)
{}

Origin MessageWriter::originOf(const ParsedData &record, quint64 connection) const
{
    Origin origin;
    origin.connection = connection;
    origin.source = record.getSource(); // warnings name it
    if (observer || output.showsOrigins()) {
        origin.peer = record.getPeerAddress();
        origin.port = record.getPeerPort();
    }
    if (!output.showsOrigins())
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
}

qsizetype MessageWriter::write(QByteArrayView bytes, quint64 position, const Origin &origin,
                               FrameState &state, Allowance &allowance)
{
    Q_UNUSED(position)
    QByteArray head; // the same for all messages of an offer
    qsizetype taken = 0;
    while (!done && taken < bytes.size() && !allowance.isUsedUp()) {
        const Frame frame = framing->take(bytes.sliced(taken), state);
        if (frame.kind == Frame::Incomplete)
            break;
        taken += frame.size;
        allowance.messages -= 1;
        allowance.bytes -= frame.size;
        if (frame.kind == Frame::Complete) {
            if (head.isNull() && output.showsOrigins())
                head = output.headOf(origin);
            writeMessage(head, frame.message);
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
    Q_UNUSED(position)
    if (rest.isEmpty() || done)
        return;
    output.write({output.headOf(origin), framing->partial(rest), true});
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
    if (observer)
        observer->read(origin, position, bytes);
}

void MessageWriter::ended(const Origin &origin, const QString &reason, quint64 position)
{
    if (observer)
        observer->ended(origin, reason, position);
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

void MessageWriter::writeMessage(QByteArrayView head, QByteArrayView bytes)
{
    output.write({head, bytes});
    ++counters.messages;
    counters.bytes += bytes.size();
    if (counters.messages != limit)
        return;

    done = true;
    Q_EMIT finished();
}

} // namespace host
