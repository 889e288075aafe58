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

    A plain host finds repeats by the numbers of the messages, and discards only new messages. An
    exact host uses ExactOffers for that.

    Thread: the plugin's.
    Owner:  of the guests.
*/
class MatrixHost : public QObject
{
public:
    struct Guest
    {
        // True if the end came exactly once, after all records. A connection without records must
        // have no end.
        bool wasToldItsEnd() const { return behindEnd == 0 && ends == (records > 0 ? 1 : 0); }

        HostKind kind;
        Oracle oracle;
        QList<shared_parsedData> waiting; // Late: all, in order; AtEnd: only the latest
        int records = 0; // with bytes
        int ends = 0;
        int behindEnd = 0; // records of any kind after the end
    };

    MatrixHost(IInputPlugin &inputPlugin, Keys keySet);

    // stream: all bytes that the device on that port sends. The result lives as long as the host.
    const Guest &expect(quint16 devicePort, HostKind kind, const QByteArray &stream);

    // Handles the waiting records. Call it when the plugin is destroyed.
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
