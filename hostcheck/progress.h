// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QString>
#include <QtCore/QtGlobal>

namespace hostcheck {

/*!
    How far the program is, in the last line of a terminal on standard error. Nowhere else.

    Thread: one at a time.
*/
class Progress
{
public:
    // what: what is done. Shows itself at most five times a second.
    static void show(const QString &what, qint64 done, qint64 all);
    // Clears the line, before something else is printed.
    static void hide();
};

} // namespace hostcheck
