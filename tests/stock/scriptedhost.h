// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/iinputplugin.h"
#include "script.h"
#include "trace.h"

#include <QtCore/QHash>
#include <QtCore/QMutex>
#include <QtCore/QObject>
#include <QtCore/QThread>

#include <memory>
#include <vector>

/*!
    Plays the host of all scripts at once: its answer to a record depends on the device's port.

    Thread: the plugin's; some discards come from a helper's.
    Owner:  the play. The scripts outlive it; the plugin lives at least until stopAnswering().
    Locks:  mutex.
*/
class ScriptedHost : public QObject
{
public:
    ScriptedHost(IInputPlugin *inputPlugin, quint16 pluginsPort);
    ~ScriptedHost() override;

    // number: the connection's, for the lines that are logged within its discards.
    void expect(quint16 devicePort, int number, const Script &script, Trace &trace);

    // Later records are only noted. The plugin may be deleted from then on.
    void stopAnswering();
    int answersToCome() const { return waitingAnswers; }

    // The connection that this thread is calling discard() for; -1: none.
    static int callingFor();

private:
    struct Guest
    {
        int number;
        const Script *script;
        QByteArray stream;
        Trace *trace;
        qsizetype consumed = 0; // hasty only
    };
    struct Due
    {
        Guest *guest;
        qsizetype offer;
        QMap<QString, QString> subid;
    };

    void receive(const shared_parsedData &record);
    static TracedOffer trace(const Guest &guest, const QByteArray &bytes);
    QString textOf(const ParsedData &record) const;
    void answer(const Due &due);
    QList<int> lengths(Guest &guest, const Answer &answer, const TracedOffer &offer) const;
    void discard(const Due &due, const QList<int> &all);

    IInputPlugin *const plugin;
    const quint16 port;
    bool answering = true;
    int waitingAnswers = 0;
    QHash<quint16, std::shared_ptr<Guest>> guests; // by the device's port
    QMutex mutex; // guards the traces' discards
    QThread helperThread;
    QObject helper; // lives in helperThread
};
