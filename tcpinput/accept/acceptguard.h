// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QObject>
#include <QtCore/QTimer>

#include <functional>

class QTcpServer;

/*!
    Keeps a listening server from spinning and from going deaf.

    Without free descriptors accept() fails for as long as connections wait; Qt takes that for a
    passing error and tries again at once, for ever. The guard notices, pauses the server and
    resumes it when a descriptor is free. It also pauses while too many accepted connections wait
    to be taken.

    Thread: the server's.
    Owner:  the server, as a member.
*/
class AcceptGuard : public QObject
{
    Q_OBJECT

public:
    // waiting: how many accepted connections have not been taken yet.
    AcceptGuard(QTcpServer *watched, std::function<qsizetype()> waiting);

    // Call after every successful listen(): a listening socket has a notifier of its own.
    void watch();

    // Call for every accepted connection, once it is counted by waiting().
    void accepted();

    // While held, nothing is accepted: what waits already cannot be served.
    void hold(bool on);

    bool eventFilter(QObject *object, QEvent *event) override;

Q_SIGNALS:
    // Once an episode each: out when accepting had to be paused, back when it works again.
    void descriptorsOut();
    void descriptorsBack();

private:
    void acceptFailed();
    void check();
    void pause();
    bool mayResume() const;
    void tick();
    void endEpisode();
    bool descriptorAvailable() const;

    QTcpServer *const server;
    const std::function<qsizetype()> waiting;
    QTimer timer;
    int fruitless = 0; // activations since the last accepted connection
    bool outside = false; // an episode without descriptors is on
    bool held = false;
    bool resumed = false; // accepting again on trial, since the last tick
};
