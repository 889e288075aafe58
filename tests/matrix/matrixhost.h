// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "cell.h"
#include "oracle.h"
#include "plugin/exactoffers.h"
#include "plugin/iinputplugin.h"

#include <QtCore/QHash>
#include <QtCore/QObject>

#include <memory>

/*!
    Plays the host of every cell at once: what it does with a record depends on the device's port.

    A plain host knows by the messages' numbers what it has consumed, and discards only what is new;
    an exact one leaves that to ExactOffers.

    Thread: the plugin's.
    Owner:  of the guests.
*/
class MatrixHost : public QObject
{
public:
    struct Guest
    {
        // Once, behind all its records; a connection without records is not told of.
        bool wasToldItsEnd() const { return behindEnd == 0 && ends == (records > 0 ? 1 : 0); }

        HostKind kind;
        Oracle oracle;
        QList<shared_parsedData> waiting; // Late: in order; AtEnd: the latest
        int records = 0; // with bytes
        int ends = 0;
        int behindEnd = 0; // records of any kind
    };

    MatrixHost(IInputPlugin &inputPlugin, Keys keySet);

    // stream: what the device on that port has to say. The result lives as long as the host.
    const Guest &expect(quint16 devicePort, HostKind kind, const QByteArray &stream);

    // The plugin is gone: what still waits to be handled is handled now.
    void finish();

private:
    void receive(const shared_parsedData &record);
    static void takeEnd(Guest &guest, const shared_parsedData &record);
    void handleNext(Guest &guest);
    void handle(Guest &guest, const shared_parsedData &record);
    static qsizetype consume(Guest &guest, qsizetype position, QByteArrayView fresh);
    void discard(qsizetype length, const shared_parsedData &record);

    IInputPlugin *plugin;
    const Keys keys;
    ExactOffers offers;
    QHash<quint16, std::shared_ptr<Guest>> guests; // by the device's port
};
