// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QByteArrayView>
#include <QtCore/QString>

#include <optional>

namespace simulator {

/*!
    What surrounds a message's payload on the wire.

    Thread: any, a value.
*/
class Framing
{
public:
    enum Kind { Lines, CrLf, Length, Fixed, Marks, None };

    Framing() = default; // lines

    // text: "lines", "crlf", "none"; "length [BYTES [big|little [all]]]" with 1, 2 or 4 bytes, by
    // default 4 big, where all means that they count themselves, too; "fixed BYTES [FILL]"; "marks
    // START END [ESCAPE [FLIP]]" or "hdlc"; FILL and the marks are bytes in hex. Nothing if it is
    // none of these.
    static std::optional<Framing> read(const QString &text);

    Kind kind() const { return type; }
    // In bytes.
    qint64 longestPayload() const;
    // Whether a payload of so many bytes can be sent. Without framing an empty one cannot.
    bool fits(qsizetype payloadBytes) const;
    // Of a message beside its payload; escapes come on top, and what fills up a fixed size.
    qsizetype overhead() const;

    // Appends a message with this payload. False if the payload does not fit: then nothing changes.
    bool append(QByteArray &out, QByteArrayView payload) const;

private:
    bool readLength(const QStringList &words);
    bool readFixed(const QStringList &words);
    bool readMarks(const QStringList &words);
    void appendLength(QByteArray &out, qsizetype payloadBytes) const;
    void appendEscaped(QByteArray &out, QByteArrayView payload) const;

    Kind type = Lines;
    int size = 0; // Length: bytes of the number; Fixed: of a message
    bool isBigEndian = true;
    bool countsItself = false;
    char fill = 0;
    char start = 0;
    char end = 0;
    std::optional<char> escape; // nothing: marks in the payload are sent as they are
    char flip = 0;
};

} // namespace simulator
