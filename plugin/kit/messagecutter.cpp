// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/kit/messagecutter.h"

#include "plugin/cwrn.h"
#include "plugin/parseddata.h"
#include "plugin/subids.h"

#include <QtCore/QScopedValueRollback>

#include <utility>

namespace inputkit {

MessageCutter::MessageCutter(SharedFraming messageFraming, InputHandlers functions,
                             TrafficObserver *trafficObserver)
    : framing(std::move(messageFraming)),
      handlers(std::move(functions)),
      observer(trafficObserver)
{
    Q_ASSERT(framing);
}

Origin MessageCutter::originOf(const ParsedData &record, quint64 connection) const
{
    Origin origin;
    origin.connection = connection;
    origin.time = record.getTime();
    origin.plugin = record.getPluginId();
    origin.source = record.getSource();
    origin.peer = record.getPeerAddress();
    origin.port = record.getPeerPort();
    origin.client = record.getPluginSubIdKey(subids::client());
    origin.task = record.getPluginSubIdKey(subids::task());
    return origin;
}

qsizetype MessageCutter::write(QByteArrayView bytes, quint64 position, const Origin &origin,
                               FrameState &state, Allowance &allowance)
{
    interrupted = false;
    qsizetype taken = 0;
    while (taken < bytes.size() && !allowance.isUsedUp()) {
        const Frame frame = framing->take(bytes.sliced(taken), state);
        if (frame.kind == Frame::Incomplete || frame.size <= 0)
            break;
        handle(frame, position + static_cast<quint64>(taken), origin);
        taken += frame.size;
        --allowance.messages;
        allowance.bytes -= frame.size;
        if (interrupted)
            allowance.messages = 0;
    }
    return taken;
}

// position: of its first byte.
void MessageCutter::handle(const Frame &frame, quint64 position, const Origin &origin)
{
    if (frame.kind == Frame::Complete) {
        ++counted.messages;
        counted.bytes += static_cast<quint64>(frame.message.size());
        handOut({origin, frame.message, position, position + static_cast<quint64>(frame.size),
                 false});
    } else if (frame.kind == Frame::TooLong) {
        ++counted.tooLong;
        if (tooLongLines.allows())
            CWRN(QtWarningMsg, QStringLiteral("Message skipped since it is too long, from %1"),
                 origin.source);
    } else if (frame.kind == Frame::Bad && !frame.continues) {
        ++counted.bad;
        if (badLines.allows())
            CWRN(QtWarningMsg,
                 QStringLiteral("Bytes skipped since they are no good message, from %1"),
                 origin.source);
    }
}

qsizetype MessageCutter::bytesToAppend(QByteArrayView rest, QByteArrayView next) const
{
    return framing->bytesToAppend(rest, next);
}

void MessageCutter::writePartial(QByteArrayView rest, quint64 position, const Origin &origin)
{
    const QByteArrayView bytes = rest.isEmpty() ? rest : framing->partial(rest);
    if (bytes.isEmpty())
        return;
    ++counted.partial;
    handOut({origin, bytes, position, position + static_cast<quint64>(rest.size()), true});
}

bool MessageCutter::giveUp(QByteArrayView rest, quint64 position, const Origin &origin,
                           FrameState &state)
{
    if (!framing->abandon(rest, state))
        return false;
    writePartial(rest, position, origin);
    if (tooLongLines.allows())
        CWRN(QtWarningMsg, QStringLiteral("Unfinished message of %1 bytes given up, from %2"),
             rest.size(), origin.source);
    return true;
}

void MessageCutter::read(const Origin &origin, quint64 position, QByteArrayView bytes)
{
    if (observer)
        observer->read(origin, position, bytes);
}

void MessageCutter::ended(const Origin &origin, const QString &reason, quint64 position)
{
    const QScopedValueRollback guard(handling, true);
    if (handlers.end)
        handlers.end({origin, reason, position});
    if (observer)
        observer->ended(origin, reason, position);
}

void MessageCutter::handOut(const InputMessage &message)
{
    if (!handlers.message)
        return;
    const QScopedValueRollback guard(handling, true);
    handlers.message(message);
}

void MessageCutter::tellMissedWarnings(bool atOnce)
{
    if (const qint64 missed = tooLongLines.takeMissed(atOnce))
        CWRN(QtWarningMsg, QStringLiteral("%1 more messages skipped or given up"), missed);
    if (const qint64 missed = badLines.takeMissed(atOnce))
        CWRN(QtWarningMsg, QStringLiteral("%1 more times bytes skipped"), missed);
}

} // namespace inputkit
