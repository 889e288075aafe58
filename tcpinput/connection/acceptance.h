// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/connection/endpoints.h"

/*!
    What is known of a connection from its acceptance on, before it has a socket or a client.

    Thread: any, a value.
*/
struct Acceptance
{
    // number: of the connection, unique in the process and never used again; 0 if its offers are
    // not stamped with positions.
    static Acceptance of(qintptr descriptor, bool stamped);

    Endpoints endpoints;
    quint64 number = 0;
};
