// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QObject>
#include <QtCore/QTimer>

#include <functional>

class QTcpServer;

/*!
    Keeps a listening server from busy-waiting and from going deaf.

    Without free descriptors, accept() fails as long as connections wait. Qt takes that for a
    temporary error and retries at once, for ever. The guard pauses the server, and resumes it when
    a descriptor is free. It also pauses the server while too many accepted connections wait to be
    taken.

    Thread: the server's.
    Owner:  the server, as a member.
*/
class AcceptGuard : public QObject
{
    Q_OBJECT

public:
    // waiting: how many accepted connections have not been taken yet.
    AcceptGuard(QTcpServer *watched, std::function<qsizetype()> waiting);

    // Call after every successful listen(): each listening socket has a new notifier.
    void watch();

    // Call for every accepted connection, once it is counted by waiting().
    void accepted();

    // While held, the server accepts nothing: connections that wait already cannot be served.
    void hold(bool on);

    bool eventFilter(QObject *object, QEvent *event) override;

Q_SIGNALS:
    // Each once per shortage: when accepting is paused, and when it works again.
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
    bool outOfDescriptors = false; // descriptorsBack() is still to come
    bool held = false;
    bool resumed = false; // since the last tick, on trial
};
