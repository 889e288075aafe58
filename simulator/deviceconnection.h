// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/channel.h"
#include "simulator/ending.h"
#include "simulator/outbox.h"
#include "simulator/report.h"
#include "simulator/tcpsocket.h"

#include <QtCore/QBasicTimer>
#include <QtCore/QObject>
#include <QtCore/QSocketNotifier>

#include <memory>

namespace simulator {

class Course;
class Schedule;
struct Run;

/*!
    One TCP connection from connecting to its end: sends its outbox and ends, both as the course
    says.

    Thread: the main thread. Non-blocking; every function returns at once.
    Owner:  the Device.
*/
class DeviceConnection : public QObject
{
    Q_OBJECT

public:
    // numbers: only its device and connection are used. deviceCourse: its schedule is started when
    // the connection is open.
    DeviceConnection(const Run &sharedRun, const ConnectionRecord &numbers, Outbox &&toSend,
                     Course &deviceCourse);

    // Call once.
    void open();

    // More messages may be due than when it was asked last.
    void goOn();

    // Finishes the message that it has begun, and closes.
    void stop();

    // Closes now.
    void abandon();

    // How many messages were sent so far, counted as in the record.
    quint64 sentMessages() const { return outbox.acceptedMessages(); }

    // Complete once finished() was emitted.
    const ConnectionRecord &result() const { return record; }

Q_SIGNALS:
    void opened(); // at most once, before finished(); with TLS when the handshake is done
    // Emitted once; also from within open(), stop() and abandon().
    void finished();

protected:
    void timerEvent(QTimerEvent *event) override;

private Q_SLOTS:
    void onReadable();
    void onWritable();

private:
    enum class State { Connecting, Handshaking, Sending, Ending, Finished };

    void connected();
    void handshake();
    void established();

    void pump();
    bool sendOne();
    bool pause();
    void waitUntilDue();
    void wait(int ms);

    void endSending();
    void beginEnding(const Ending &steps);
    void awaitEnd();
    void waitIsOver();

    void peerClosed();
    void fail(const QString &error);
    void finish(End end);

    const Run &run;
    Outbox outbox;
    Course &course;
    Schedule &schedule; // the course's
    Ending ending;
    RandomSource pauses;
    ConnectionRecord record;

    TcpSocket socket;
    std::unique_ptr<Channel> channel; // from Handshaking on
    QSocketNotifier readable{QSocketNotifier::Read};
    QSocketNotifier writable{QSocketNotifier::Write};
    QBasicTimer timer; // time-out, next write or end of waiting: depends on the state
    bool waitsUntilDue = false;
    State state = State::Connecting;
};

} // namespace simulator
