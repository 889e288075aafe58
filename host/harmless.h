// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QByteArrayView>
#include <QtCore/QString>

/*!
    Texts that come from outside, for people to read: what would break a line, command a terminal or
    turn the direction of writing is shown as an escape. These are control characters (C0, DEL, C1),
    line and paragraph separators, byte order marks and the marks for bidirectional text of Unicode.

    Thread: any; no shared state.
*/
namespace host {

// With \n, \r, \t and \uXXXX in their place. A backslash stays as it is: the text is for people.
QString harmless(const QString &text);

// JSON in UTF-8, where they can only stand inside of strings: with \uXXXX in their place, which
// JSON readers take back. C0 must not be in it, as in all JSON.
QByteArray harmlessJson(QByteArray json);

// The length in bytes of such a character at the beginning of valid UTF-8; 0: another one is there.
// Only those that JSON allows in its strings: C0 is never found.
qsizetype sizeOfHarmful(QByteArrayView utf8);

// As JSON has it: \u009b. utf8: one character below U+10000, whole.
QByteArray jsonEscape(QByteArrayView utf8);

} // namespace host
