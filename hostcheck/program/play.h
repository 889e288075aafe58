// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QByteArrayList>
#include <QtCore/QList>

namespace hostcheck {

/*!
    What one connection does: sends bytes in pieces, and closes.

    Thread: any, a value.
*/
struct Play
{
    QByteArray bytes;
    QList<qsizetype> cuts; // positions where the device pauses, ascending
    bool closesAtOnce = false; // without waiting for the host to print what it has got
};

//! What the host has made of it.
struct PlayResult
{
    QByteArrayList messages; // as printed, in order
    bool hasStalled = false; // not all that was due was printed while the device waited
    bool wasPlayed = false;
};

} // namespace hostcheck
