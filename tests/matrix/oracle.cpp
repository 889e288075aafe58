// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "oracle.h"

#include "stream.h"

#include <algorithm>

void Oracle::offered(qsizetype position, QByteArrayView bytes)
{
    const qsizetype begin = std::clamp<qsizetype>(position, 0, stream.size());
    const QByteArrayView expected = QByteArrayView(stream).sliced(begin);
    const auto differ = std::mismatch(bytes.begin(), bytes.end(), expected.begin(), expected.end());
    const qsizetype right = position == begin ? differ.first - bytes.begin() : 0;
    wrong += bytes.size() - right;
    skipped += std::max<qsizetype>(0, begin - seen);
    seen = std::max(seen, begin + right);
}

void Oracle::parsed(qsizetype position, qsizetype length)
{
    again += std::clamp<qsizetype>(taken - position, 0, length);
}

void Oracle::consumed(qsizetype position, QByteArrayView message)
{
    if (Stream::numberIn(message) * Stream::MessageBytes != position || !Stream::isIntact(message))
        wrong += message.size();
    taken = std::max(taken, position + message.size());
}

qsizetype Oracle::positionOf(QByteArrayView offer) const
{
    const int number = Stream::numberIn(offer);
    return number < 0 ? taken : number * Stream::MessageBytes;
}
