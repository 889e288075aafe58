// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/sinks/nats/natslink.h"

#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QTimer>

namespace host {

/*!
    Asks for the stream until it is there, and creates it if that is wanted.

    Thread: its creator's, with an event loop.
    Owner:  the NatsStore.
*/
class NatsStream : public QObject
{
    Q_OBJECT

public:
    // pattern: what matches the subjects of a stream that is created.
    NatsStream(NatsLink &natsLink, const NatsSettings &natsSettings, const QString &pattern,
               QObject *parent);

    // While the link is open. found(), missing() or problem() follows, and after the last two the
    // next question, until it is found or the link is lost.
    void look();
    void stop();

Q_SIGNALS:
    // lastSequence: of its last message. created: when it was, another one for another stream.
    void found(quint64 lastSequence, const QString &created);
    void wasCreated();
    void missing();
    // The server does not answer, or says something else.
    void problem(const QString &text);

private:
    void ask(const char *what, const QByteArray &data, const NatsLink::Handler &handler);
    void noteInfo(const NatsAnswer &answer);
    void create();
    void noteCreation(const NatsAnswer &answer);
    void lookAgain();
    void noteSilence();

    NatsLink &link;
    const NatsSettings settings;
    const QString subjects;
    QTimer timer;
};

} // namespace host
