// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/kit/framing.h"

#include <QtCore/QtDebug>
#include <QtCore/QtEndian>

#include <algorithm>
#include <atomic>
#include <limits>
#include <utility>

namespace inputkit {
namespace {

// A function of the host's may have to look at all of a message again for each piece of it. So the
// pieces grow with what is there.
constexpr qsizetype LeastAppended = 512;

Frame taken(Frame::Kind kind, QByteArrayView bytes)
{
    return {kind, bytes.size(), kind == Frame::Bad ? bytes : QByteArrayView(), false};
}

qint64 clamped(qint64 maxMessage)
{
    constexpr qint64 Most = 1 << 30;
    return std::clamp<qint64>(maxMessage, 1, Most);
}

// The next bytes up to and with the first one of these, or all of them.
qsizetype sizeUpTo(QByteArrayView next, char end)
{
    const qsizetype at = next.indexOf(end);
    return at < 0 ? next.size() : at + 1;
}

// Takes bytes of a message whose length is known.
Frame skipCounted(QByteArrayView buffer, FrameState &state, Frame::Kind kind)
{
    const auto size = static_cast<qsizetype>(std::min<qint64>(state.skipBytes, buffer.size()));
    if (size == 0)
        return {};
    state.skipBytes -= size;
    return {kind, size, {}};
}

class Lines final : public Framing
{
public:
    explicit Lines(qint64 maxMessage) : most(clamped(maxMessage)) {}

    Frame take(QByteArrayView buffer, FrameState &state) const override
    {
        if (state.skipping)
            return skip(buffer, state);
        const qsizetype end = buffer.indexOf('\n', state.searched);
        if (end < 0)
            return takeUnfinished(buffer, state);

        state.searched = 0;
        QByteArrayView line = buffer.first(end);
        if (line.endsWith('\r'))
            line.chop(1);
        if (line.size() > most)
            return {Frame::TooLong, end + 1, {}};
        return {Frame::Complete, end + 1, line};
    }

    qsizetype bytesToAppend(QByteArrayView rest, QByteArrayView next) const override
    {
        // A line with more bytes is too long. Its further bytes are skipped without being appended.
        const auto wanted = static_cast<qsizetype>(most) + 2 - rest.size();
        return sizeUpTo(next.first(std::clamp<qsizetype>(wanted, 1, next.size())), '\n');
    }

    bool abandon(QByteArrayView, FrameState &state) const override
    {
        state = {};
        state.skipping = true;
        return true;
    }

private:
    static Frame skip(QByteArrayView buffer, FrameState &state)
    {
        if (buffer.isEmpty())
            return {};
        const qsizetype size = sizeUpTo(buffer, '\n');
        state.skipping = buffer[size - 1] != '\n';
        return {Frame::Skipped, size, {}};
    }

    Frame takeUnfinished(QByteArrayView buffer, FrameState &state) const
    {
        if (isHopeless(buffer)) {
            state = {};
            state.skipping = true;
            return {Frame::TooLong, buffer.size(), {}};
        }
        state.searched = buffer.size();
        return {};
    }

    // Whether a line, still without its end, is too long. One byte more is allowed if it may be the
    // CR of the line's end.
    bool isHopeless(QByteArrayView buffer) const
    {
        return buffer.size() > most && (buffer.size() > most + 1 || buffer.back() != '\r');
    }

    const qint64 most;
};

class LengthPrefixed final : public Framing
{
public:
    LengthPrefixed(int prefixBytes, QSysInfo::Endian byteOrder, qint64 maxMessage)
        : prefix(prefixBytes),
          order(byteOrder),
          most(clamped(maxMessage))
    {
        if (prefix != 1 && prefix != 2 && prefix != 4)
            qFatal("inputkit::lengthPrefixed(): a length of %d bytes", prefixBytes);
    }

    Frame take(QByteArrayView buffer, FrameState &state) const override
    {
        if (state.skipBytes > 0)
            return skipCounted(buffer, state, Frame::Skipped);
        if (buffer.size() < prefix)
            return {};
        const qint64 length = lengthAt(buffer);
        if (length > most) {
            state.skipBytes = prefix + length;
            return skipCounted(buffer, state, Frame::TooLong);
        }
        if (buffer.size() - prefix < length)
            return {};
        const auto size = static_cast<qsizetype>(length);
        return {Frame::Complete, prefix + size, buffer.sliced(prefix, size)};
    }

    qsizetype bytesToAppend(QByteArrayView rest, QByteArrayView next) const override
    {
        const qint64 wanted = prefix + (rest.size() >= prefix ? lengthAt(rest) : 0);
        return std::clamp<qsizetype>(wanted - rest.size(), 1, next.size());
    }

    bool abandon(QByteArrayView rest, FrameState &state) const override
    {
        if (rest.size() < prefix)
            return false;
        state = {};
        state.skipBytes = prefix + lengthAt(rest) - rest.size();
        return true;
    }

    QByteArrayView partial(QByteArrayView rest) const override
    {
        return rest.sliced(std::min(rest.size(), prefix));
    }

private:
    qint64 lengthAt(QByteArrayView bytes) const
    {
        qint64 length = 0;
        for (qsizetype n = 0; n < prefix; ++n) {
            const qsizetype at = order == QSysInfo::BigEndian ? n : prefix - 1 - n;
            length = length << 8 | static_cast<unsigned char>(bytes[at]);
        }
        return length;
    }

    const qsizetype prefix;
    const QSysInfo::Endian order;
    const qint64 most;
};

// A message is taken with its first mark. If both marks are the same, the second one stays where it
// is: it may begin the next message.
class Marked final : public Framing
{
public:
    Marked(const Marks &givenMarks, qint64 maxMessage)
        : marks(givenMarks),
          most(clamped(maxMessage))
    {}

    Frame take(QByteArrayView buffer, FrameState &state) const override
    {
        if (buffer.isEmpty())
            return {};
        if (state.skipping)
            return skip(buffer, state);
        if (buffer[0] != marks.begin)
            return takeBetween(buffer, state);
        state.between = false;
        if (marks.begin == marks.end && buffer.size() > 1 && buffer[1] == marks.begin)
            return taken(Frame::Skipped, buffer.first(1)); // two marks between two messages
        const qsizetype end = endIn(buffer, state);
        if (end < 0 && buffer.size() - 1 > most) {
            const Frame first = taken(Frame::TooLong, buffer.first(state.searched));
            state = {};
            state.skipping = true;
            return first;
        }
        if (end < 0)
            return {};
        state = {};
        const qsizetype size = sizeWith(end);
        if (end - 1 > most)
            return taken(Frame::TooLong, buffer.first(size));
        return {Frame::Complete, size, buffer.sliced(1, end - 1)};
    }

    qsizetype bytesToAppend(QByteArrayView, QByteArrayView next) const override
    {
        return sizeUpTo(next, marks.end); // maybe an escaped one
    }

    bool abandon(QByteArrayView rest, FrameState &state) const override
    {
        // The byte behind an escape must not count as a mark.
        const bool escapes = state.searched == rest.size() - 1 && rest.back() == marks.escape;
        state = {};
        state.skipping = true;
        state.skipBytes = escapes ? 1 : 0;
        return true;
    }

    QByteArrayView partial(QByteArrayView rest) const override { return rest.sliced(1); }

private:
    Frame takeBetween(QByteArrayView buffer, FrameState &state) const
    {
        Frame frame = taken(Frame::Bad, buffer.first(beginIn(buffer)));
        frame.continues = std::exchange(state.between, true);
        return frame;
    }

    qsizetype sizeWith(qsizetype end) const { return marks.begin == marks.end ? end : end + 1; }

    // Where a message begins, or the size.
    qsizetype beginIn(QByteArrayView buffer) const
    {
        const qsizetype at = buffer.indexOf(marks.begin);
        return at < 0 ? buffer.size() : at;
    }

    // Of the message at the front; -1: not there. searched: up to there is neither its end nor an
    // escape without its byte.
    qsizetype endIn(QByteArrayView buffer, FrameState &state) const
    {
        qsizetype at = std::max<qsizetype>(state.searched, 1);
        while (at < buffer.size() && buffer[at] != marks.end) {
            const qsizetype step = buffer[at] == marks.escape ? 2 : 1;
            if (at + step > buffer.size())
                break;
            at += step;
        }
        state.searched = at;
        return at < buffer.size() && buffer[at] == marks.end ? at : -1;
    }

    // skipBytes: bytes at the front that are no marks.
    Frame skip(QByteArrayView buffer, FrameState &state) const
    {
        auto at = static_cast<qsizetype>(state.skipBytes);
        while (at < buffer.size() && buffer[at] != marks.end)
            at += buffer[at] == marks.escape ? 2 : 1;
        if (at >= buffer.size()) {
            state.skipBytes = at - buffer.size();
            return taken(Frame::Skipped, buffer);
        }
        state = {};
        const qsizetype size = sizeWith(at);
        return size > 0 ? taken(Frame::Skipped, buffer.first(size)) : take(buffer, state);
    }

    const Marks marks;
    const qint64 most;
};

class FixedSize final : public Framing
{
public:
    explicit FixedSize(qsizetype bytes) : size(bytes)
    {
        if (size < 1)
            qFatal("inputkit::fixedSize(): %lld bytes", static_cast<long long>(size));
    }

    Frame take(QByteArrayView buffer, FrameState &state) const override
    {
        if (state.skipBytes > 0)
            return skipCounted(buffer, state, Frame::Skipped);
        if (buffer.size() < size)
            return {};
        return {Frame::Complete, size, buffer.first(size)};
    }

    bool abandon(QByteArrayView rest, FrameState &state) const override
    {
        state = {};
        state.skipBytes = size - rest.size();
        return true;
    }

    qsizetype bytesToAppend(QByteArrayView rest, QByteArrayView next) const override
    {
        return std::clamp<qsizetype>(size - rest.size(), 1, next.size());
    }

private:
    const qsizetype size;
};

class Whole final : public Framing
{
public:
    Frame take(QByteArrayView buffer, FrameState &) const override
    {
        return buffer.isEmpty() ? Frame() : Frame{Frame::Complete, buffer.size(), buffer};
    }
};

class Custom final : public Framing
{
public:
    Custom(ConsumeFunction function, qint64 maxMessage)
        : consume(std::move(function)),
          most(clamped(maxMessage))
    {}

    Frame take(QByteArrayView buffer, FrameState &state) const override
    {
        if (buffer.isEmpty() || (buffer.size() < state.wanted && buffer.size() <= most))
            return {};
        const qsizetype size = consume(buffer);
        if (size <= 0)
            return takeUnfinished(buffer, size, state);
        state = {};
        if (size > buffer.size())
            warnOfTooMuch(size, buffer.size());
        const QByteArrayView message = buffer.first(std::min(size, buffer.size()));
        if (message.size() > most)
            return taken(Frame::TooLong, message);
        return {Frame::Complete, message.size(), message};
    }

    qsizetype bytesToAppend(QByteArrayView rest, QByteArrayView next) const override
    {
        return std::min(next.size(), std::max(rest.size(), LeastAppended));
    }

    bool abandon(QByteArrayView, FrameState &state) const override
    {
        state = {};
        return true;
    }

private:
    // answer: of the function.
    Frame takeUnfinished(QByteArrayView buffer, qsizetype answer, FrameState &state) const
    {
        state = {};
        if (buffer.size() > most)
            return taken(Frame::TooLong, buffer);
        state.wanted = -std::max(answer, -std::numeric_limits<qsizetype>::max());
        return {};
    }

    void warnOfTooMuch(qsizetype size, qsizetype offered) const
    {
        if (!hasWarned.exchange(true))
            qWarning("inputkit::custom(): the function takes %lld bytes of %lld; counted as all",
                     static_cast<long long>(size), static_cast<long long>(offered));
    }

    const ConsumeFunction consume;
    const qint64 most;
    mutable std::atomic<bool> hasWarned = false;
};

class Checked final : public Framing
{
public:
    Checked(SharedFraming checkedFraming, CheckFunction function)
        : framing(std::move(checkedFraming)),
          check(std::move(function))
    {}

    Frame take(QByteArrayView buffer, FrameState &state) const override
    {
        const Frame frame = framing->take(buffer, state);
        if (frame.kind != Frame::Complete || check(frame.message))
            return frame;
        return taken(Frame::Bad, buffer.first(frame.size));
    }

    qsizetype bytesToAppend(QByteArrayView rest, QByteArrayView next) const override
    {
        return framing->bytesToAppend(rest, next);
    }

    bool abandon(QByteArrayView rest, FrameState &state) const override
    {
        return framing->abandon(rest, state);
    }

    QByteArrayView partial(QByteArrayView rest) const override { return framing->partial(rest); }

private:
    const SharedFraming framing;
    const CheckFunction check;
};

} // namespace

qsizetype Framing::bytesToAppend(QByteArrayView, QByteArrayView next) const
{
    return next.size();
}

bool Framing::abandon(QByteArrayView, FrameState &) const
{
    return false;
}

QByteArrayView Framing::partial(QByteArrayView rest) const
{
    return rest;
}

SharedFraming lines(qint64 maxMessage)
{
    return std::make_shared<Lines>(maxMessage);
}

SharedFraming lengthPrefixed(int prefixBytes, QSysInfo::Endian order, qint64 maxMessage)
{
    return std::make_shared<LengthPrefixed>(prefixBytes, order, maxMessage);
}

SharedFraming marked(const Marks &marks, qint64 maxMessage)
{
    return std::make_shared<Marked>(marks, maxMessage);
}

QByteArray unescaped(QByteArrayView message, const Marks &marks)
{
    QByteArray result;
    result.reserve(message.size());
    bool escaped = false;
    for (const char byte : message) {
        if (escaped)
            result += static_cast<char>(byte ^ marks.flip);
        else if (byte != marks.escape)
            result += byte;
        escaped = !escaped && byte == marks.escape;
    }
    return result;
}

SharedFraming fixedSize(qsizetype size)
{
    return std::make_shared<FixedSize>(size);
}

SharedFraming whole()
{
    return std::make_shared<Whole>();
}

SharedFraming custom(ConsumeFunction consume, qint64 maxMessage)
{
    return std::make_shared<Custom>(std::move(consume), maxMessage);
}

SharedFraming checked(SharedFraming framing, CheckFunction check)
{
    return std::make_shared<Checked>(std::move(framing), std::move(check));
}

} // namespace inputkit
