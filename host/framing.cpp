// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/framing.h"

#include <QtCore/QtEndian>

#include <algorithm>

namespace host {
namespace {

constexpr qsizetype LengthPrefixBytes = 4;

Frame skipLine(QByteArrayView buffer, FrameState &state)
{
    if (buffer.isEmpty())
        return {};

    const qsizetype end = buffer.indexOf('\n');
    if (end < 0)
        return {Frame::Skipped, buffer.size(), {}};

    state.skippingLine = false;
    return {Frame::Skipped, end + 1, {}};
}

// Whether a line, still without its end, is too long. One byte more is allowed if it may be the CR
// of the line's end.
bool isHopeless(QByteArrayView buffer, const FrameFormat &format)
{
    return buffer.size() > format.maxMessage
            && (buffer.size() > format.maxMessage + 1 || buffer.back() != '\r');
}

Frame takeUnfinishedLine(QByteArrayView buffer, const FrameFormat &format, FrameState &state)
{
    if (isHopeless(buffer, format)) {
        state = {};
        state.skippingLine = true;
        return {Frame::TooLong, buffer.size(), {}};
    }
    state.searched = buffer.size();
    return {};
}

Frame takeLine(QByteArrayView buffer, const FrameFormat &format, FrameState &state)
{
    if (state.skippingLine)
        return skipLine(buffer, state);

    const qsizetype end = buffer.indexOf('\n', state.searched);
    if (end < 0)
        return takeUnfinishedLine(buffer, format, state);

    state.searched = 0;
    QByteArrayView line = buffer.first(end);
    if (line.endsWith('\r'))
        line.chop(1);
    if (line.size() > format.maxMessage)
        return {Frame::TooLong, end + 1, {}};
    return {Frame::Complete, end + 1, line};
}

Frame skipBytes(QByteArrayView buffer, FrameState &state, Frame::Kind kind)
{
    const auto size = static_cast<qsizetype>(std::min<qint64>(state.skipBytes, buffer.size()));
    if (size == 0)
        return {};

    state.skipBytes -= size;
    return {kind, size, {}};
}

Frame takeCounted(QByteArrayView buffer, const FrameFormat &format, FrameState &state)
{
    if (state.skipBytes > 0)
        return skipBytes(buffer, state, Frame::Skipped);
    if (buffer.size() < LengthPrefixBytes)
        return {};

    const qint64 length = qFromBigEndian<quint32>(buffer.data());
    if (length > format.maxMessage) {
        state.skipBytes = LengthPrefixBytes + length;
        return skipBytes(buffer, state, Frame::TooLong);
    }
    if (buffer.size() - LengthPrefixBytes < length)
        return {};

    const auto size = static_cast<qsizetype>(length);
    return {Frame::Complete, LengthPrefixBytes + size, buffer.sliced(LengthPrefixBytes, size)};
}

qsizetype lineBytesToAppend(QByteArrayView rest, QByteArrayView next, const FrameFormat &format)
{
    // A line with more bytes is too long. Its further bytes are skipped without being appended.
    const auto most = static_cast<qsizetype>(format.maxMessage) + 2 - rest.size();
    const QByteArrayView near = next.first(std::clamp<qsizetype>(most, 1, next.size()));
    const qsizetype end = near.indexOf('\n');
    return end < 0 ? near.size() : end + 1;
}

qsizetype countedBytesToAppend(QByteArrayView rest, QByteArrayView next)
{
    qint64 wanted = LengthPrefixBytes;
    if (rest.size() >= LengthPrefixBytes)
        wanted += qFromBigEndian<quint32>(rest.data());
    return static_cast<qsizetype>(std::min<qint64>(wanted - rest.size(), next.size()));
}

Frame takeAll(QByteArrayView buffer)
{
    if (buffer.isEmpty())
        return {};
    return {Frame::Complete, buffer.size(), buffer};
}

} // namespace

Frame takeFrame(QByteArrayView buffer, const FrameFormat &format, FrameState &state)
{
    switch (format.framing) {
    case Framing::Lines:
        return takeLine(buffer, format, state);
    case Framing::Length:
        return takeCounted(buffer, format, state);
    case Framing::None:
        break;
    }
    return takeAll(buffer);
}

qsizetype bytesToAppend(QByteArrayView rest, QByteArrayView next, const FrameFormat &format)
{
    if (next.isEmpty() || format.framing == Framing::None)
        return next.size();
    return format.framing == Framing::Lines ? lineBytesToAppend(rest, next, format)
                                            : countedBytesToAppend(rest, next);
}

bool abandonMessage(QByteArrayView rest, const FrameFormat &format, FrameState &state)
{
    if (format.framing == Framing::None)
        return false;
    if (format.framing == Framing::Lines) {
        state = {};
        state.skippingLine = true;
        return true;
    }
    if (rest.size() < LengthPrefixBytes)
        return false;
    state = {};
    state.skipBytes =
            LengthPrefixBytes + qint64(qFromBigEndian<quint32>(rest.data())) - rest.size();
    return true;
}

QByteArrayView partialMessage(QByteArrayView rest, const FrameFormat &format)
{
    if (format.framing != Framing::Length)
        return rest;
    return rest.sliced(std::min(rest.size(), LengthPrefixBytes));
}

} // namespace host
