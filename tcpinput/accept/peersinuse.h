// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/connection/acceptance.h"

#include <memory>

/*!
    The peers of a server's connections. Behind two proxies, two devices can have the same address
    and port, and would share a client id: the later one's id gets a number then.

    Thread: the server's; what a connection holds is released in any.
    Owner:  the server, as a member; connections may outlive it.
    Locks:  that of the table, which is never held while anything else is called.
*/
class PeersInUse
{
public:
    PeersInUse();

    // Adds a place, and sets endpoints.idNumber if the peer is in use: that of a proxied connection
    // by any other one, that of another connection by a proxied one. A device that comes back from
    // its port without a proxy has the id that it had before.
    void enter(Acceptance &acceptance);

private:
    class Table;
    class Place;

    std::shared_ptr<Table> table;
};
