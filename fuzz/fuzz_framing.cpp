// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// inputhost's framing: a stream gives the same messages, whatever the pieces in which it comes.

#include "fuzz/fuzztarget.h"
#include "host/framing.h"
#include "tests/kit/choices.h"

#include <QtCore/QByteArrayList>

using namespace host;
using inputkit::Frame;
using inputkit::FrameState;

namespace {

struct Result
{
    QByteArrayList messages;
    qsizetype tooLong = 0;
    QByteArray rest; // the bytes that were not taken

    bool operator==(const Result &other) const
    {
        return messages == other.messages && tooLong == other.tooLong && rest == other.rest;
    }
};

//! One connection's stream, as a host reads it.
class Reader
{
public:
    explicit Reader(const FrameFormat &frameFormat)
        : format(frameFormat),
          framing(framingOf(frameFormat))
    {}

    void append(QByteArrayView piece)
    {
        // As a host does: first complete the message that has begun in an earlier piece.
        while (!result.rest.isEmpty() && !piece.isEmpty()) {
            const qsizetype size = framing->bytesToAppend(result.rest, piece);
            require(size > 0 && size <= piece.size(), QStringLiteral("some are appended"));
            result.rest.append(piece.first(size));
            piece = piece.sliced(size);
            require(!take() || result.rest.isEmpty(), QStringLiteral("all or nothing"));
        }
        result.rest.append(piece);
        while (take()) {}
    }

    Result result;

private:
    bool take()
    {
        const Frame frame = framing->take(result.rest, state);
        require(frame.size >= 0 && frame.size <= result.rest.size(), QStringLiteral("frame size"));
        require((frame.kind == Frame::Incomplete) == (frame.size == 0),
                QStringLiteral("something is taken, or it is incomplete"));
        if (frame.kind == Frame::Complete) {
            require(format.framing == Framing::None || frame.message.size() <= format.maxMessage,
                    QStringLiteral("message limit"));
            result.messages.append(frame.message.toByteArray());
        }
        result.tooLong += frame.kind == Frame::TooLong ? 1 : 0;
        result.rest.remove(0, frame.size);
        require(framing->partial(result.rest).size() <= result.rest.size(),
                QStringLiteral("partial message"));
        return frame.size > 0;
    }

    const FrameFormat format;
    const inputkit::SharedFraming framing;
    FrameState state;
};

Result readInPieces(QByteArrayView stream, const FrameFormat &format, qsizetype piece)
{
    Reader reader(format);
    for (qsizetype begin = 0; begin < stream.size(); begin += piece)
        reader.append(stream.sliced(begin, std::min(piece, stream.size() - begin)));
    return reader.result;
}

} // namespace

void initialise() {}

void fuzz(QByteArrayView input)
{
    Choices choices(input.first(std::min<qsizetype>(input.size(), 2)));
    const QByteArrayView stream = input.sliced(std::min<qsizetype>(input.size(), 2));
    FrameFormat format;
    format.framing = choices.of({Framing::Lines, Framing::Length, Framing::None});
    format.maxMessage = choices.of<qint64>({1, 2, 3, 10, 100, 1 << 20});

    const Result whole = readInPieces(stream, format, std::max<qsizetype>(stream.size(), 1));
    for (qsizetype piece : {1, 2, 3, 7}) {
        const Result pieces = readInPieces(stream, format, piece);
        if (format.framing == Framing::None)
            require(pieces.messages.join() == whole.messages.join(), QStringLiteral("all bytes"));
        else
            require(pieces == whole, QStringLiteral("pieces make no difference"));
    }
}
