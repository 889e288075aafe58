// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "sides.h"

#include <QtCore/QList>

/*!
    What a host feels of a plugin, in figures that can be set side by side. Each makes a plugin of
    its own and plays its devices and its host.

    Thread: the main one, which is the plugin's.
*/
namespace Figures {

struct SecondMessages
{
    int devices = 300;
    int gapUs = 0; // between the two messages
    bool warm = false; // the connection has had a message before; else it is new
};
// Each device sends two messages of 30 bytes, the host discards what it is offered at once. How
// many of the second ones are with the host within 150 ms.
int secondMessagesInTime(Side &side, const SecondMessages &plan);

struct LargeMessages
{
    qsizetype bytes = 0;
    int connections = 20;
    // Messages of that size have gone before, for which the kernel has made its buffers larger;
    // else only a small one has.
    bool grown = true;
};
// One message on each connection, one after another; the host does not answer before it is
// complete. Milliseconds until it is, in ascending order.
QList<double> largeMessages(Side &side, const LargeMessages &plan);

// Of connections that their devices close while the host owes an answer: how many last records were
// with the host before the line that tells of the end. queued: how the host's slot is connected.
int recordsBeforeClosingLine(Side &side, int connections, bool queued);

} // namespace Figures
