// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/kit/offerreader.h"

#include <QtCore/QHash>
#include <QtCore/QMap>
#include <QtCore/QString>

namespace inputkit {

/*!
    Holds answers back until the host says that it has done with the messages: so long, their bytes
    count for the plugin's limits, and a device is slowed down by a host that is.

    All that was read of a connection is answered once each message that was handed out is
    acknowledged. In between, it is answered up to the acknowledged position.

    Thread: one at a time.
    Owner:  the caller.
*/
class Acknowledgements
{
public:
    explicit Acknowledgements(Answer toPlugin) : answer(std::move(toPlugin)) {}

    // A message that ends there is with the host.
    void handedOut(quint64 connection, quint64 end);
    // The reader's answer to an offer.
    void answered(int length, const QMap<QString, QString> &subId);
    // The host has done with all of the connection's messages up to there. Numbers of connections
    // that are over, or never were, change nothing.
    void acknowledge(quint64 connection, quint64 end);
    // The connection is over.
    void forget(quint64 connection) { connections.remove(connection); }
    void clear() { connections.clear(); }

    // Connections with messages that are not acknowledged, or were not at some time.
    qsizetype size() const { return connections.size(); }

private:
    // Positions in the connection's stream.
    struct Connection
    {
        QMap<QString, QString> subId; // of the latest offer; empty: none was answered
        quint64 offset = 0; // of that offer
        quint64 read = 0; // up to there the reader has answered
        quint64 handedOut = 0; // the end of the last message
        quint64 acknowledged = 0;
        quint64 cut = 0; // up to there the plugin was answered
    };
    void cut(Connection &connection) const;

    const Answer answer;
    QHash<quint64, Connection> connections;
};

} // namespace inputkit
