// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/kit/framing.h"

namespace host {

//! The framings that can be asked for on the command line.
enum class Framing {
    Lines, // up to LF; one CR before it is dropped
    Length, // after a byte count: 4 bytes, big-endian
    None, // all that is there is one message
};

struct FrameFormat
{
    Framing framing = Framing::Lines;
    // In bytes, without framing. A longer message is skipped to its end; with Framing::None there
    // is no end to find, and the limit has no meaning.
    qint64 maxMessage = inputkit::DefaultMaxMessage;
};

inline inputkit::SharedFraming framingOf(const FrameFormat &format)
{
    switch (format.framing) {
    case Framing::Lines:
        return inputkit::lines(format.maxMessage);
    case Framing::Length:
        return inputkit::lengthPrefixed(4, QSysInfo::BigEndian, format.maxMessage);
    case Framing::None:
        break;
    }
    return inputkit::whole();
}

} // namespace host
