// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/messagewriter.h"

#include "plugin/cwrn.h"
#include "plugin/parseddata.h"
#include "plugin/subids.h"

#include <QtCore/QTimeZone>

#include <optional>

namespace host {

MessageWriter::MessageWriter(const FrameFormat &frameFormat, Output &messageOutput, Counters &total)
    : format(frameFormat),
      output(messageOutput),
      counters(total)
{}

Origin MessageWriter::originOf(const ParsedData &record) const
{
    Origin origin;
    origin.source = record.getSource(); // warnings name it
    if (!output.showsOrigins())
        return origin;

    origin.time = record.getTimestamp(QTimeZone::utc());
    origin.plugin = record.getPluginId();
    origin.peer = record.getPeerAddress();
    origin.port = record.getPeerPort();
    origin.client = record.getPluginSubIdKey(subids::client());
    origin.task = record.getPluginSubIdKey(subids::task());
    return origin;
}

qsizetype MessageWriter::write(QByteArrayView bytes, const Origin &origin, FrameState &state,
                               Allowance &allowance)
{
    std::optional<QByteArray> head; // the same for all messages of an offer
    qsizetype taken = 0;
    while (!done && taken < bytes.size() && !allowance.isUsedUp()) {
        const Frame frame = takeFrame(bytes.sliced(taken), format, state);
        if (frame.kind == Frame::Incomplete)
            break;
        taken += frame.size;
        allowance.messages -= 1;
        allowance.bytes -= frame.size;
        if (frame.kind == Frame::Complete) {
            if (!head)
                head = output.headOf(origin);
            writeMessage(*head, frame.message);
        } else if (frame.kind == Frame::TooLong) {
            warnOfTooLong(origin);
        }
    }
    return taken;
}

void MessageWriter::writePartial(QByteArrayView rest, const Origin &origin)
{
    if (rest.isEmpty() || done)
        return;
    output.write({output.headOf(origin), partialMessage(rest, format), true});
    ++counters.partial;
}

bool MessageWriter::giveUp(QByteArrayView rest, const Origin &origin, FrameState &state)
{
    if (!abandonMessage(rest, format, state))
        return false;
    writePartial(rest, origin);
    if (givenUpLines.allows())
        CWRN(QtWarningMsg, QStringLiteral("Unfinished message of %1 bytes given up, from %2"),
             rest.size(), origin.source);
    return true;
}

void MessageWriter::tellMissedWarnings(bool atOnce)
{
    if (const qint64 missed = tooLongLines.takeMissed(atOnce))
        CWRN(QtWarningMsg, QStringLiteral("%1 more messages of more than %2 bytes skipped"), missed,
             format.maxMessage);
    if (const qint64 missed = givenUpLines.takeMissed(atOnce))
        CWRN(QtWarningMsg, QStringLiteral("%1 more unfinished messages given up"), missed);
}

void MessageWriter::warnOfTooLong(const Origin &origin)
{
    ++counters.tooLong;
    if (tooLongLines.allows())
        CWRN(QtWarningMsg, QStringLiteral("Message of more than %1 bytes skipped, from %2"),
             format.maxMessage, origin.source);
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
