// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QString>

namespace programs {

/*!
    The last line of a terminal on standard error, written again and again: how far a program is.

    Thread: one at a time.
*/
class StatusLine
{
public:
    // Whether standard error is a terminal. Elsewhere nothing is shown.
    static bool isPossible();
    // Whether it is possible, and was not shown for a fifth of a second.
    static bool isDue();

    // As much of the text as fits into one line.
    static void show(const QString &text);
    // Clears the line, before something else is printed.
    static void hide();
};

} // namespace programs
