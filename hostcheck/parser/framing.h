// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QByteArrayList>
#include <QtCore/QByteArrayView>
#include <QtCore/QString>

#include <optional>

namespace hostcheck {

/*!
    Where messages end, by a rule that is known here: what a parser is compared with.

    Thread: any, a value.
*/
class Framing
{
public:
    // text: "lines"; "length BYTES big|little [all]" with 1, 2 or 4 bytes, where all means that
    // they count themselves, too; "fixed BYTES"; "marks START END ESCAPE", three bytes in hex.
    // Nothing if it is none of these.
    static std::optional<Framing> read(const QString &text);

    // The length of the message at the front; 0 if it is not complete, or never will be.
    qsizetype next(QByteArrayView bytes) const;
    // A message with this content. For lines without the line ends in it, for a fixed size filled
    // up or cut, for a length as much as it can count.
    QByteArray wrap(QByteArray content) const;
    // What is in a whole message.
    QByteArray content(const QByteArray &message) const;
    // The same of all whole messages at the front.
    QByteArrayList contents(const QByteArray &bytes) const;

private:
    enum Kind { Lines, Length, Fixed, Marks };

    qsizetype nextLength(QByteArrayView bytes) const;
    qsizetype nextMarks(QByteArrayView bytes) const;
    QByteArray wrapLength(QByteArray content) const;
    QByteArray wrapMarks(const QByteArray &content) const;

    Kind kind = Lines;
    qsizetype size = 0; // Length: of the count; Fixed: of a message
    bool isBigEndian = true;
    bool countsItself = false;
    char start = 0;
    char end = 0;
    char escape = 0;
};

} // namespace hostcheck
