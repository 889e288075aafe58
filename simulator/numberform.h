// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <optional>

namespace simulator {

/*!
    How a number is written into a message: as text or as bytes.

    Thread: any, a value.
*/
class NumberForm
{
public:
    NumberForm() = default; // decimal

    // text: "dec", "hex", "HEX", each with the least count of digits behind it, 1 to 20, if it is
    // to be filled up with zeros; "u8"; "u16", "u32" or "u64" with "be" or "le" for the order of
    // the bytes. Nothing if it is none of these.
    static std::optional<NumberForm> read(const QString &text);
    // As many hexadecimal digits as so many bytes have, with capital letters.
    static NumberForm hexOf(int bytes);

    // Of a number that is larger than the form's bytes the lowest are written. A negative one is a
    // two's complement there, and in hex.
    void append(QByteArray &out, qint64 number) const;

private:
    enum Kind { Decimal, Hex, CapitalHex, BigEndian, LittleEndian };

    NumberForm(Kind kind, int count) : type(kind), width(count) {}

    Kind type = Decimal;
    int width = 0; // digits or bytes
};

} // namespace simulator
