// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/options.h"
#include "simulator/randomsource.h"

namespace simulator {

/*!
    Decides how long a connection's writes are.

    The cuts depend only on the constructor's arguments, so they can be repeated.
*/
class Segmenter
{
public:
    // A write has from atLeast to atMost bytes; at the end of the stream it may have fewer.
    struct Cut
    {
        qsizetype atLeast = 1;
        qsizetype atMost = 1;
    };

    // messageBytes: size of a usual message.
    Segmenter(Segments segments, qsizetype messageBytes, const RandomSource &source);

    Cut next();

private:
    const Segments mode;
    const quint32 longest; // of random cuts
    RandomSource random;
};

} // namespace simulator
