// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// The header of a proxy. It says the same, whatever the pieces in which it comes, and reading it
// takes none of the device's bytes.

#include "fuzz/fuzztarget.h"
#include "tcpinput/accept/proxyheader.h"

#include <algorithm>

namespace {

using State = ProxyHeader::State;

struct Result
{
    State state = State::Incomplete;
    qsizetype taken = 0;
    QHostAddress peer;
    quint16 port = 0;

    bool operator==(const Result &other) const
    {
        return state == other.state && peer == other.peer && port == other.port
                && (state == State::Malformed || taken == other.taken);
    }
};

// most: how many bytes come at a time, at most.
Result readInPieces(QByteArrayView stream, qsizetype most)
{
    ProxyHeader header;
    qsizetype taken = 0;
    while (header.state() == State::Incomplete && taken < stream.size()) {
        require(header.wanted() > 0, QStringLiteral("an incomplete header wants more"));
        const qsizetype size = std::min({header.wanted(), most, stream.size() - taken});
        header.append(stream.sliced(taken, size));
        taken += size;
    }
    require(taken <= ProxyHeader::MostBytes, QStringLiteral("headers are bounded"));
    require(header.hasPeer() == !header.peer().isNull(), QStringLiteral("a peer or none"));
    require(header.state() == State::Complete || !header.hasPeer(),
            QStringLiteral("only a whole header has a peer"));
    return {header.state(), taken, header.peer(), header.peerPort()};
}

// The size of a header. A text header ends with its line, a binary one tells its length.
qsizetype sizeOf(QByteArrayView header)
{
    if (header.startsWith('P'))
        return QByteArray::fromRawData(header.data(), header.size()).indexOf('\n') + 1;
    return 16 + static_cast<unsigned char>(header[14]) * 256
            + static_cast<unsigned char>(header[15]);
}

} // namespace

void initialise() {}

void fuzz(QByteArrayView input)
{
    const Result whole = readInPieces(input, std::max<qsizetype>(input.size(), 1));
    if (whole.state == State::Complete)
        require(whole.taken == sizeOf(input), QStringLiteral("exactly the header is taken"));
    for (const qsizetype piece : {1, 2, 5, 16})
        require(readInPieces(input, piece) == whole, QStringLiteral("pieces make no difference"));
}
