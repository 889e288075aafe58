// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QByteArrayView>
#include <QtCore/QString>

#include <optional>

namespace simulator {

//! The byte that an escape stands for, and how long the escape is.
struct Escape
{
    char byte = 0;
    qsizetype size = 0;
};

// text: begins with a backslash. Known are \n, \r, \t, \0, \\, \{ and \xNN with two hexadecimal
// digits. Nothing if it is none of these.
std::optional<Escape> escapeAt(QByteArrayView text);

// The text with the bytes that its escapes stand for. Nothing, and what is wrong in the error, if
// an escape is unknown.
std::optional<QByteArray> withoutEscapes(QByteArrayView text, QString &error);

// What is wrong with a text that begins with an unknown escape.
QString escapeError(QByteArrayView text);

} // namespace simulator
