// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/recording/recordedendpoints.h"

namespace inputkit {

recording::Endpoints endpointsOf(const Origin &origin)
{
    recording::Endpoints endpoints;
    endpoints.peer = origin.peer.toUtf8();
    endpoints.peerPort = origin.port;

    // "TCP:tcp2:<local address>:<local port>-<peer address>:<peer port>", and perhaps "#<number>"
    const QLatin1String prefix("TCP:tcp2:");
    const QString rest =
            QLatin1Char('-') + origin.peer + QLatin1Char(':') + QString::number(origin.port);
    const qsizetype end = origin.source.lastIndexOf(rest);
    if (!origin.source.startsWith(prefix) || end < prefix.size())
        return endpoints;
    const QStringView local = QStringView(origin.source).first(end).sliced(prefix.size());
    const qsizetype colon = local.lastIndexOf(QLatin1Char(':'));
    if (colon < 0)
        return endpoints;
    endpoints.local = local.first(colon).toUtf8();
    endpoints.localPort = local.sliced(colon + 1).toUShort();
    return endpoints;
}

} // namespace inputkit
