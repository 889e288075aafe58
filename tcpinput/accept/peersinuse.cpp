// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/peersinuse.h"

#include "tcpinput/workers/locks.h"

#include <QtCore/QHash>

#include <utility>

using Peer = std::pair<QHostAddress, quint16>;

//! Who is connected, and by how many connections.
class PeersInUse::Table
{
public:
    // True if the peer has to be told from another one.
    bool add(const Peer &peer, bool isProxied)
    {
        const MutexLocker locker(mutex);
        Connections &connections = peers[peer];
        const bool shared = connections.proxied > 0 || (isProxied && connections.all > 0);
        connections.all += 1;
        connections.proxied += isProxied ? 1 : 0;
        return shared;
    }

    void remove(const Peer &peer, bool isProxied)
    {
        const MutexLocker locker(mutex);
        const auto connections = peers.find(peer);
        connections->all -= 1;
        connections->proxied -= isProxied ? 1 : 0;
        if (connections->all == 0)
            peers.erase(connections);
    }

private:
    struct Connections
    {
        int all = 0;
        int proxied = 0;
    };

    Mutex mutex;
    QHash<Peer, Connections> peers GUARDED_BY(mutex);
};

//! A connection's entry, for as long as it lives.
class PeersInUse::Place
{
public:
    Place(std::shared_ptr<Table> in, const Acceptance &acceptance)
        : table(std::move(in)),
          peer(acceptance.endpoints.peer, acceptance.endpoints.peerPort),
          isProxied(acceptance.isProxied),
          shared(table->add(peer, isProxied))
    {}
    ~Place() { table->remove(peer, isProxied); }
    Q_DISABLE_COPY_MOVE(Place)

    bool isShared() const { return shared; }

private:
    const std::shared_ptr<Table> table;
    const Peer peer;
    const bool isProxied;
    const bool shared;
};

PeersInUse::PeersInUse() : table(std::make_shared<Table>()) {}

void PeersInUse::enter(Acceptance &acceptance)
{
    const auto place = std::make_shared<const Place>(table, acceptance);
    if (place->isShared())
        acceptance.endpoints.idNumber =
                acceptance.number != 0 ? acceptance.number : Acceptance::nextNumber();
    acceptance.places.push_back(place);
}
