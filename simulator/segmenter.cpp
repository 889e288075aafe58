// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/segmenter.h"

#include <limits>

namespace simulator {
namespace {

constexpr qsizetype BlockBytes = 64 * 1024;

} // namespace

// The longest cut is twice a message: cuts then fall within messages and reach over their ends.
Segmenter::Segmenter(Segments segments, qsizetype messageBytes, const RandomSource &source)
    : mode(segments),
      longest(static_cast<quint32>(2 * messageBytes)),
      random(source)
{}

Segmenter::Cut Segmenter::next()
{
    switch (mode) {
    case Segments::Whole:
        return {1, std::numeric_limits<qsizetype>::max()};
    case Segments::Byte:
        break;
    case Segments::Random: {
        const qsizetype length = 1 + static_cast<qsizetype>(random.below(longest));
        return {length, length};
    }
    case Segments::Blocks:
        return {BlockBytes, BlockBytes};
    }
    return {1, 1};
}

} // namespace simulator
