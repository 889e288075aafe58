// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "sides.h"

#include <QtCore/QList>

/*!
    What a host notices of a plugin, in figures that can be set side by side. Each function makes a
    plugin of its own, and plays its devices and its host.

    Thread: the main one, which is the plugin's.
*/
namespace Figures {

struct SecondMessages
{
    int devices = 300;
    int gapUs = 0; // between the two messages
    bool warm = false; // the connection has had a message before; else it is new
};
// Each device sends two messages of 30 bytes. The host discards at once what it is offered. Returns
// how many of the second messages the host has within 150 ms.
int secondMessagesInTime(Side &side, const SecondMessages &plan);

struct LargeMessages
{
    qsizetype bytes = 0;
    int connections = 20;
    // Messages of that size were sent before, so that the kernel has enlarged its buffers.
    // Otherwise only a small message was sent before.
    bool grown = true;
};
// Sends one message on each connection, one after another. The host does not answer before a
// message is complete. Returns the milliseconds until each is complete, in ascending order.
QList<double> largeMessages(Side &side, const LargeMessages &plan);

// Devices close their connections while the host owes an answer. Returns how many last records
// reach the host before the line that tells of the end. queued: whether the host's slot has a
// queued connection.
int recordsBeforeClosingLine(Side &side, int connections, bool queued);

} // namespace Figures
