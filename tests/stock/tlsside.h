// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "sides.h"
#include "tests/kit/eventlog.h"
#include "tests/kit/nativesocket.h"
#include "tests/kit/play.h"
#include "tests/kit/tlsengines.h"

#include <QtNetwork/QSslServer>
#include <QtNetwork/QSslSocket>

#include <vector>

/*!
    One plugin that does TLS: the plain one on stock Qt, or the library with one of its engines.
   What it logs and what its server signals are events, in their order.

    Thread: the plugin's.
*/
class TlsSide : public QObject
{
public:
    struct Kind
    {
        Side *side;
        QString engine; // the key's value; empty: without the key
    };
    static Kind stock() { return {&stockSide(), QString()}; }
    static std::vector<Kind> library()
    {
        std::vector<Kind> kinds;
        for (const char *engine : TlsEngines)
            kinds.push_back({&librarySide(), QString::fromLatin1(engine)});
        return kinds;
    }

    // tls: the "ssl" object without its engine. Listens at once.
    TlsSide(const Kind &kind, const QJsonObject &tls, int handshakeTimeoutMs) : port(freePort())
    {
        QJsonObject config = tcpConfig(port);
        config.insert(QStringLiteral("ssl"), withEngine(tls, kind.engine));
        config.insert(QStringLiteral("threadpoolSize"), 1);
        plugin = kind.side->library.create(config);
        server = plugin->findChild<QSslServer *>();
        noteSignals();
        if (!plugin->start() || !isListening(*plugin))
            qFatal("the plugin does not listen");
        server->setHandshakeTimeout(handshakeTimeoutMs); // start() has set its own
        EventLog::take();
    }

    // All events of the connections that have ended on their devices' side. The connection ids and
    // lines of those that were served are left out.
    QStringList events()
    {
        for (int n = 0; n < Fences; ++n) {
            if (!play([this] { fence(); }))
                qFatal("the server is deaf");
        }
        QStringList all = EventLog::take();
        if (all.contains(Available)) {
            all.removeIf([](const QString &event) {
                return event.startsWith(QLatin1String("D: "))
                        || event.startsWith(QLatin1String("I: "));
            });
        }
        return all;
    }

    // A connection that says anything but TLS is dropped without an event. When it has ended, all
    // connections before it have been accepted, and what they have sent has been read. Blocks; in
    // another thread than the plugin's.
    void fence() const
    {
        const NativeSocket peer = NativeSocket::connectedTo(testAddress(), port);
        peer.send("fence");
        if (!peer.ends())
            qFatal("the fence stays");
    }

    const quint16 port;

private:
    // The last signals of a handshake may come some passes of the event loop after its end.
    static constexpr int Fences = 3;
    static inline const QString Available = QStringLiteral("pendingConnectionAvailable");

    void noteSignals()
    {
        const auto note = [](const QString &text) { EventLog::note(text); };
        connect(server, &QSslServer::sslErrors, this,
                [note](const QSslSocket *, const QList<QSslError> &errors) {
                    QStringList numbers;
                    for (const QSslError &error : errors)
                        numbers.append(QString::number(error.error()));
                    note(QStringLiteral("sslErrors %1").arg(numbers.join(QLatin1Char(' '))));
                });
        connect(server, &QSslServer::peerVerifyError, this,
                [note](const QSslSocket *, const QSslError &error) {
                    note(QStringLiteral("peerVerifyError %1").arg(error.error()));
                });
        connect(server, &QSslServer::errorOccurred, this,
                [note](const QSslSocket *socket, QAbstractSocket::SocketError error) {
                    note(QStringLiteral("errorOccurred %1, %2")
                                 .arg(error)
                                 .arg(socket->errorString()));
                });
        connect(server, &QSslServer::handshakeInterruptedOnError, this,
                [note](const QSslSocket *, const QSslError &error) {
                    note(QStringLiteral("handshakeInterruptedOnError %1").arg(error.error()));
                });
        const auto alert = [note](const char *what) {
            return [note, what](const QSslSocket *, QSsl::AlertLevel level, QSsl::AlertType type,
                                const QString &text) {
                note(QStringLiteral("%1 %2, %3, %4")
                             .arg(QLatin1String(what))
                             .arg(int(level))
                             .arg(int(type))
                             .arg(text));
            };
        };
        connect(server, &QSslServer::alertSent, this, alert("alertSent"));
        connect(server, &QSslServer::alertReceived, this, alert("alertReceived"));
        connect(server, &QSslServer::startedEncryptionHandshake, this,
                [note] { note(QStringLiteral("startedEncryptionHandshake")); });
        connect(server, &QTcpServer::pendingConnectionAvailable, this, [note] { note(Available); });
    }

    std::unique_ptr<IInputPlugin> plugin;
    QSslServer *server = nullptr; // the plugin's
};
