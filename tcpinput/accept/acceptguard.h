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
    temporary error and retries at once, for ever, and so with every other error. The guard pauses
    the server, and resumes it when a descriptor is free, or an accept() of its own works. It also
    pauses the server while too many accepted connections wait to be taken, and while a gate is
    closed.

    Thread: the server's.
    Owner:  the server, as a member.
*/
class AcceptGuard : public QObject
{
    Q_OBJECT

public:
    // Is called with a connection that the guard has accepted itself. May delete the guard.
    using Taker = std::function<void(qintptr descriptor)>;

    // waiting: how many accepted connections have not been taken yet.
    AcceptGuard(QTcpServer *watched, std::function<qsizetype()> waiting, Taker taker);

    // mayAccept: whether another connection may be accepted; asked after each one. As soon as it
    // says no, the server is paused. Default: it always may.
    void setGate(std::function<bool()> mayAccept) { gate = std::move(mayAccept); }
    // Asks a gate that has said no at once, not only after some milliseconds. May delete this.
    void askGate();

    // Call after every successful listen(): each listening socket has a new notifier.
    void watch();

    // Call for every accepted connection, once it is counted by waiting().
    void accepted();

    // Call when the gate has closed by itself. When it opens, the guard finds that out.
    void checkGate();

    // Accepts what waits in the kernel, as far as the gate lets it: closing the server would reset
    // those connections. May delete this.
    void acceptRest();

    // While held, the server accepts nothing: connections that wait already cannot be served.
    void hold(bool on);

    bool eventFilter(QObject *object, QEvent *event) override;

Q_SIGNALS:
    // When accepting is paused since it fails: for want of descriptors, or for another reason. Once
    // for each, until it works again.
    void descriptorsOut();
    void acceptFails(const QString &reason);
    // It works again, whatever was the reason.
    void acceptsAgain();

private:
    void acceptFailed();
    void check();
    void pause();
    void pauseAtGate();
    bool mayResume() const;
    bool acceptOne();
    void tellOut();
    void tick();
    void endEpisode();
    bool descriptorAvailable() const;

    QTcpServer *const server;
    const std::function<qsizetype()> waiting;
    const Taker take;
    std::function<bool()> gate; // may be empty
    QTimer timer;
    int fruitless = 0; // activations since the last accepted connection
    bool outOfDescriptors = false; // acceptsAgain() is still to come
    bool failing = false; // likewise, for another reason
    bool doubtful = false; // find out whether it fails before resuming
    bool held = false;
    bool resumed = false; // since the last tick, on trial
};
