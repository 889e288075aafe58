// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/connection/endpoints.h"

#include <QtCore/QByteArray>
#include <QtCore/QHashFunctions>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <algorithm>
#include <utility>

/*!
    What a client has to do, in the simplest terms: no sockets, timers, threads or queues. Each
    function is one thing that happens to the client. What the client does about it is added to
    events, as text: its log lines (see logLine()) and its signals. A model of what listens to the
    client overrides the virtual functions.

    Thread: one.
*/
class ClientModel
{
public:
    // now: milliseconds, by the clock that the client compares its offers with.
    ClientModel(const QString &givenId, const Endpoints &ends, bool withPositions, qint64 now)
        : id(givenId),
          endpoints(ends),
          stamped(withPositions),
          time(now)
    {}

    virtual ~ClientModel() = default;
    Q_DISABLE_COPY_MOVE(ClientModel)

    static QString offerText(const QString &id, const QByteArray &bytes)
    {
        return QStringLiteral("%1 offers %2 bytes, hash %3")
                .arg(id)
                .arg(bytes.size())
                .arg(qHash(bytes));
    }
    static QString positionText(quint64 position)
    {
        return QStringLiteral("that begin at %1").arg(position);
    }
    static QString idChangedText(const QString &oid, const QString &id)
    {
        return oid + QLatin1String(" is now ") + id;
    }
    static QString foundId(const Endpoints &ends)
    {
        return QStringLiteral("tcp2:%1:%2-%3:%4")
                .arg(ends.local.toString())
                .arg(ends.localPort)
                .arg(ends.peer.toString())
                .arg(ends.peerPort);
    }
    static QString disconnectedText(const QString &id) { return id + QLatin1String(" is gone"); }

    void advance(qint64 ms)
    {
        time += ms;
        isJustCut = isJustCut && ms < 1;
    }

    // The socket says that there is something to read. bytes: what the socket holds.
    void read(const QByteArray &bytes)
    {
        if (!isOpen || !append(bytes))
            return;
        if (isDue(200)) {
            offer();
            lastOffer = time;
        } else if (std::exchange(isJustCut, false)) {
            offerRemainder();
        }
    }

    void cut(qsizetype len)
    {
        const qsizetype count = std::clamp<qsizetype>(len, 0, buffer.size());
        buffer = buffer.sliced(count);
        position += static_cast<quint64>(count);
        isJustCut = false;
        offerRemainder();
    }
    // A cut that was asked for in another thread. A read that follows at once may have come before
    // it.
    void cutAhead(qsizetype len)
    {
        cut(len);
        isJustCut = true;
    }

    // A cut of a stamped client, up to a position in the stream.
    void cutTo(quint64 to)
    {
        if (to > position)
            cut(static_cast<qsizetype>(
                    std::min(to - position, static_cast<quint64>(buffer.size()))));
    }

    // The check timer fires: every two seconds while the buffer holds enough.
    void check()
    {
        isJustCut = false;
        checkTimerRuns = buffer.size() > 80;
        if (!checkTimerRuns || !isDue(2000))
            return;
        log(QStringLiteral("I: TcpClient: inbuf parsing stopped, kicking"));
        offer();
        lastOffer = time;
    }

    // The thread's watch looks at all clients that have read enough since its last look.
    void watchLooks()
    {
        if (std::exchange(isWatched, false) && buffer.size() > 80)
            checkTimerRuns = true;
    }

    // rest: what the socket still holds.
    void timeOut(const QByteArray &rest)
    {
        log(QStringLiteral("D: TcpClient: timeout"));
        end(rest);
    }
    void end(const QByteArray &rest)
    {
        if (!isOpen)
            return;
        append(rest);
        if (!buffer.isEmpty() && !std::exchange(lastOfferMade, true))
            offer();
        buffer.clear();
        if (!isOpen) // the last offer has ended it
            return;
        isOpen = false;
        idleTimerRuns = false;
        log(QStringLiteral("D: TcpClient: closing connection %1 (received %2 bytes, %3 msgs)")
                    .arg(id)
                    .arg(bytesReceived)
                    .arg(reads));
        gone();
    }

    QString id;
    bool isOpen = true;
    bool idleTimerRuns = true; // set by each offer; tests clear it to see that
    bool hasWatch = false; // false: it checks its backlog by itself
    bool isWatched = false;
    bool checkTimerRuns = false;
    QByteArray buffer;
    quint64 position = 0; // of the buffer's first byte in the stream
    QStringList events;

protected:
    virtual void log(const QString &line) { events += line; }
    virtual void offered()
    {
        events += offerText(id, buffer);
        if (stamped)
            events += positionText(position);
    }
    // Called in the first read, before its bytes are taken.
    virtual void idFound(const QByteArray &) {}
    virtual void renamed(const QString &before) { events += idChangedText(before, id); }
    virtual void gone() { events += disconnectedText(id); }

    const Endpoints endpoints;
    const bool stamped;
    bool lastOfferMade = false;

private:
    bool append(const QByteArray &bytes)
    {
        if (bytes.isEmpty())
            return false;
        if (!std::exchange(idKnown, true)) {
            findId();
            idFound(bytes);
        }
        if (bytes.size() > 1000)
            log(QStringLiteral("I: TcpClient2 (%1): msgsize = %2").arg(id).arg(bytes.size()));
        // The client was ended when its id was found, with these bytes.
        if (!isOpen) {
            log(QStringLiteral("W: TcpClient2 (%1): socket not valid (2)").arg(id));
            return false;
        }
        buffer += bytes;
        bytesReceived += bytes.size();
        ++reads;
        if (buffer.size() > 80 && !checkTimerRuns)
            (hasWatch ? isWatched : checkTimerRuns) = true;
        return true;
    }

    void findId()
    {
        const QString local = endpoints.local.toString();
        const QString peer = endpoints.peer.toString();
        log(QStringLiteral("D: TCP READ: %1:%2 (%3:%4)")
                    .arg(local)
                    .arg(endpoints.localPort)
                    .arg(peer)
                    .arg(endpoints.peerPort));
        const QString before = std::exchange(id, foundId(endpoints));
        if (before != id)
            renamed(before);
    }

    void offerRemainder()
    {
        if (buffer.size() <= 20)
            return;
        log(QStringLiteral("D: TcpClient: inbuf still %1 bytes, triggering").arg(buffer.size()));
        offer();
        lastOffer = time;
    }

    void offer()
    {
        isJustCut = false;
        offered();
        idleTimerRuns = isOpen;
    }

    bool isDue(qint64 intervalMs) const
    {
        return time - lastOffer > intervalMs || time < lastOffer;
    }

    qint64 time;
    qint64 lastOffer = 0;
    qint64 bytesReceived = 0;
    qint64 reads = 0;
    bool idKnown = false;
    bool isJustCut = false; // by cutAhead(), and nothing has happened since
};
