// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/options.h"
#include "simulator/randomsource.h"

namespace simulator {

/*!
    Decides how long a connection's writes are.

    Depends on nothing but what it was constructed with, so the cuts can be repeated.
*/
class Segmenter
{
public:
    // A write has atLeast bytes, unless the stream ends before, and atMost.
    struct Cut
    {
        qsizetype atLeast = 1;
        qsizetype atMost = 1;
    };

    // messageBytes: of a usual message.
    Segmenter(Segments segments, qsizetype messageBytes, const RandomSource &source);

    Cut next();

private:
    const Segments mode;
    const quint32 longest; // of random cuts
    RandomSource random;
};

} // namespace simulator
