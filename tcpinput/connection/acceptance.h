// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/connection/endpoints.h"
#include "tcpinput/connection/serving.h"

/*!
    What is known of a connection from its acceptance on, before it has a socket or a client.

    Thread: any, a value.
*/
struct Acceptance
{
    static Acceptance of(qintptr descriptor, const Serving &serving);

    Endpoints endpoints;
    // Of the connection, unique in the process and never used again; 0 if its offers are not
    // stamped with positions.
    quint64 number = 0;
    Serving serving = {};
};
