// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/connection/endpoints.h"
#include "tcpinput/connection/serving.h"

#include <memory>
#include <vector>

/*!
    What is known of a connection from its acceptance on, before it has a socket or a client.

    Thread: any, a value.
*/
struct Acceptance
{
    static Acceptance of(qintptr descriptor, const Serving &serving);
    // Unique in the process.
    static quint64 nextNumber();
    // The highest one so far; 0: none yet.
    static quint64 latestNumber();

    Endpoints endpoints;
    // Of the connection, unique in the process and never used again; 0 if its offers are not
    // stamped with positions.
    quint64 number = 0;
    Serving serving = {};
    bool isProxied = false; // it began with a PROXY header, which may have named the peer
    // What the connection keeps until its end, to be counted as open.
    std::vector<std::shared_ptr<const void>> places = {};
};
