// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QtGlobal>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

// Whether the peer of a connected descriptor has closed or reset the connection. Its bytes may
// still wait to be read. Unlike an event, this can be asked at any time. That this side sends no
// more is not the peer's end: then the state is one of the two FIN_WAIT.
inline bool hasPeerEnded(qintptr descriptor)
{
    tcp_info info{};
    socklen_t length = sizeof info;
    if (::getsockopt(static_cast<int>(descriptor), IPPROTO_TCP, TCP_INFO, &info, &length) != 0)
        return true;
    return info.tcpi_state != TCP_ESTABLISHED && info.tcpi_state != TCP_FIN_WAIT1
            && info.tcpi_state != TCP_FIN_WAIT2;
}
