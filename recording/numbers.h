// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArrayView>
#include <QtCore/QtGlobal>

namespace recording {

/*!
    Numbers as a recording has them: seven bits a byte, the least significant first; each byte but
    the last has its highest bit set. A number has the fewest bytes that hold it, at most ten.
*/
constexpr qsizetype MaxNumberBytes = 10;

// Writes the number; there must be room for MaxNumberBytes. Returns the position behind it.
inline char *putNumber(char *out, quint64 value)
{
    while (value >= 0x80) {
        *out++ = static_cast<char>(value | 0x80);
        value >>= 7;
    }
    *out++ = static_cast<char>(value);
    return out;
}

/*!
    Takes values from the front of a record's bytes. After a value that is not there, or is not
    well-formed, isGood() is false for good, and every value is 0 or empty.

    Thread: one at a time.
*/
class Cursor
{
public:
    explicit Cursor(QByteArrayView bytes) : rest(bytes) {}

    bool isGood() const { return good; }
    bool isAtEnd() const { return rest.isEmpty(); }
    qsizetype left() const { return rest.size(); }

    quint8 takeByte()
    {
        const QByteArrayView byte = take(1);
        return byte.isEmpty() ? quint8(0) : static_cast<quint8>(byte.front());
    }

    quint64 takeNumber()
    {
        quint64 value = 0;
        for (int shift = 0; shift < 64; shift += 7) {
            const quint8 byte = takeByte();
            const quint64 bits = byte & 0x7f;
            if (!good || (bits << shift) >> shift != bits || (byte == 0 && shift > 0))
                break; // too large, or longer than necessary
            value |= bits << shift;
            if ((byte & 0x80) == 0)
                return value;
        }
        good = false;
        return 0;
    }

    // A number that is at most limit.
    quint64 takeNumber(quint64 limit)
    {
        const quint64 value = takeNumber();
        if (value <= limit)
            return value;
        good = false;
        return 0;
    }

    QByteArrayView take(qsizetype size)
    {
        if (!good || size > rest.size()) {
            good = false;
            return {};
        }
        const QByteArrayView taken = rest.first(size);
        rest = rest.sliced(size);
        return taken;
    }

    QByteArrayView takeRest() { return take(rest.size()); }

private:
    QByteArrayView rest;
    bool good = true;
};

} // namespace recording
