// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/connection/endpoints.h"

#include <QtNetwork/QNetworkInterface>

#include <netinet/in.h>
#include <sys/socket.h>

namespace {

using AddressStorage = sockaddr_storage;

socklen_t lengthOf(sa_family_t family)
{
    return family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
}

void assign(const AddressStorage &from, QHostAddress &address, quint16 &port)
{
    address.setAddress(reinterpret_cast<const sockaddr *>(&from));
    if (from.ss_family == AF_INET) {
        port = ntohs(reinterpret_cast<const sockaddr_in &>(from).sin_port);
        return;
    }
    const auto &v6 = reinterpret_cast<const sockaddr_in6 &>(from);
    port = ntohs(v6.sin6_port);
    // The scope of a link-local address, which setAddress() leaves out.
    if (v6.sin6_scope_id != 0)
        address.setScopeId(
                QNetworkInterface::interfaceNameFromIndex(static_cast<int>(v6.sin6_scope_id)));
}

} // namespace

Endpoints Endpoints::of(qintptr descriptor)
{
    Endpoints result;
    const int fd = static_cast<int>(descriptor);
    AddressStorage storage{};
    socklen_t length = sizeof storage;
    if (::getsockname(fd, reinterpret_cast<sockaddr *>(&storage), &length) != 0)
        return result;
    assign(storage, result.local, result.localPort);

    // Not getpeername(): it fails once the peer has reset the connection. SO_PEERNAME still
    // answers, but only if asked for exactly the length of the family's address.
    length = lengthOf(storage.ss_family);
    if (::getsockopt(fd, SOL_SOCKET, SO_PEERNAME, &storage, &length) == 0)
        assign(storage, result.peer, result.peerPort);
    return result;
}

QString Endpoints::peerText() const
{
    return QStringLiteral("%1:%2").arg(peer.toString()).arg(peerPort);
}
