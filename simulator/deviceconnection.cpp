// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/deviceconnection.h"

#include "simulator/course.h"
#include "simulator/plainchannel.h"
#include "simulator/run.h"
#include "simulator/schedule.h"
#include "simulator/tlschannel.h"

#include <QtCore/QTimerEvent>

#include <cerrno>

namespace simulator {
namespace {

constexpr int WritesPerTurn = 64; // then it is another connection's turn
constexpr int AcknowledgedPollMs = 5; // no event tells when the peer's kernel has everything

constexpr quint64 PauseStream = 1; // keeps the pauses' random numbers apart from the cuts'

QHostAddress sourceFor(const Options &options, quint64 device)
{
    if (options.sources.isEmpty())
        return {};
    const auto count = static_cast<quint64>(options.sources.size());
    return options.sources.at(static_cast<qsizetype>((device - 1) % count));
}

} // namespace

DeviceConnection::DeviceConnection(const Run &sharedRun, const ConnectionRecord &numbers,
                                   Outbox &&toSend, Course &deviceCourse)
    : run(sharedRun),
      outbox(std::move(toSend)),
      course(deviceCourse),
      schedule(course.schedule()),
      ending(course.ending()),
      pauses({run.options.seed, numbers.device, numbers.connection, PauseStream}),
      record(numbers)
{
    connect(&readable, &QSocketNotifier::activated, this, &DeviceConnection::onReadable);
    connect(&writable, &QSocketNotifier::activated, this, &DeviceConnection::onWritable);
}

void DeviceConnection::open()
{
    record.startMs = run.clock.elapsed();
    const Options &options = run.options;
    const int error = socket.connectTo(run.peer, options.port, sourceFor(options, record.device));
    if (error != 0 && error != EINPROGRESS)
        return fail(errorText(error));

    readable.setSocket(socket.descriptor());
    writable.setSocket(socket.descriptor());
    timer.start(options.connectTimeoutMs, this);
    writable.setEnabled(true);
}

void DeviceConnection::goOn()
{
    if (state != State::Sending || !waitsUntilDue)
        return;
    timer.stop();
    course.goOn();
    pump();
}

void DeviceConnection::stop()
{
    switch (state) {
    case State::Connecting:
    case State::Handshaking:
        return finish(End::Closed);
    case State::Sending:
        outbox.stop();
        if (ending.afterWait != Ending::AfterWait::Nothing)
            ending = orderlyClose(run.options);
        timer.stop(); // no pause and no pace any more
        return pump();
    case State::Ending:
        if (ending.then == Ending::Then::AwaitPeer && !ending.shutdownWrite)
            waitIsOver();
        return; // other endings finish by themselves
    case State::Finished:
        return;
    }
}

void DeviceConnection::abandon()
{
    if (state != State::Finished)
        finish(ending.then == Ending::Then::Reset ? End::Reset : End::Abandoned);
}

void DeviceConnection::timerEvent(QTimerEvent *event)
{
    if (event->timerId() != timer.timerId())
        return QObject::timerEvent(event);
    timer.stop();
    switch (state) {
    case State::Connecting:
    case State::Handshaking:
        return fail(QStringLiteral("not connected within %1 ms").arg(run.options.connectTimeoutMs));
    case State::Sending:
        return pump();
    case State::Ending:
        return ending.then == Ending::Then::Reset ? awaitEnd() : waitIsOver();
    case State::Finished:
        return;
    }
}

void DeviceConnection::onReadable()
{
    if (state == State::Handshaking)
        return handshake();

    const IoResult result = channel->receive();
    if (result.status == IoResult::Failed)
        return fail(result.error);
    if (result.status == IoResult::Closed)
        return peerClosed();
    // A TLS write may have waited only for data from the peer.
    if (state == State::Sending && !timer.isActive() && !writable.isEnabled())
        pump();
}

void DeviceConnection::onWritable()
{
    switch (state) {
    case State::Connecting:
        return connected();
    case State::Handshaking:
        return handshake();
    case State::Sending:
        return pump();
    case State::Ending:
        return beginEnding(ending);
    case State::Finished:
        return;
    }
}

void DeviceConnection::connected()
{
    const int error = socket.connectResult();
    if (error != 0)
        return fail(errorText(error));

    record.localAddress = socket.localAddress();
    record.localPort = socket.localPort();
    if (run.tls)
        channel = std::make_unique<TlsChannel>(*run.tls, socket);
    else
        channel = std::make_unique<PlainChannel>(socket);
    state = State::Handshaking;
    handshake();
}

void DeviceConnection::handshake()
{
    const IoResult result = channel->handshake();
    switch (result.status) {
    case IoResult::Done:
        return established();
    case IoResult::WantRead:
        if (run.options.fault == Fault::AbortHandshake)
            return established(); // this device goes no further
        break;
    case IoResult::WantWrite:
        break;
    case IoResult::Closed:
        return fail(QStringLiteral("closed by the peer during the TLS handshake"));
    case IoResult::Failed:
        return fail(result.error);
    }
    readable.setEnabled(true);
    writable.setEnabled(result.status == IoResult::WantWrite);
}

void DeviceConnection::established()
{
    timer.stop();
    record.opened = true;
    record.resumed = channel->isResumed();
    Q_EMIT opened();
    record.openMs = run.clock.elapsed();
    readable.setEnabled(ending.reads);
    state = State::Sending;
    schedule.start();
    pump();
}

void DeviceConnection::pump()
{
    waitsUntilDue = false;
    for (int i = 0; i < WritesPerTurn; ++i) {
        if (!sendOne())
            return;
    }
    writable.setEnabled(true);
}

// False if the next write has to wait for something, or there is none.
bool DeviceConnection::sendOne()
{
    if (outbox.isAtEnd()) {
        endSending();
        return false;
    }
    const QByteArrayView segment = outbox.segment(schedule.due());
    if (segment.isEmpty()) {
        waitUntilDue();
        return false;
    }
    const IoResult result = channel->send(segment);
    switch (result.status) {
    case IoResult::Done:
        outbox.accept(result.bytes);
        return !pause();
    case IoResult::WantRead:
    case IoResult::WantWrite:
        writable.setEnabled(result.status == IoResult::WantWrite);
        return false;
    case IoResult::Closed:
        peerClosed();
        return false;
    case IoResult::Failed:
        break;
    }
    fail(result.error);
    return false;
}

// True if there is a pause before the next write.
bool DeviceConnection::pause()
{
    const Options &options = run.options;
    if (options.pauseMaxMs == 0 || outbox.isWithinSegment() || outbox.isAtEnd())
        return false;
    const auto spread = static_cast<quint32>(options.pauseMaxMs - options.pauseMinMs);
    wait(options.pauseMinMs + static_cast<int>(pauses.below(spread + 1)));
    return true;
}

// Nothing is due: the next message is later, or there is none.
void DeviceConnection::waitUntilDue()
{
    if (!outbox.isAtEnd() && course.endsAfter(outbox.nextNumber() - 1)) {
        outbox.stop();
        ending = course.ending();
    }
    if (outbox.isAtEnd())
        return endSending();
    wait(schedule.msUntil(outbox.nextNumber()));
    waitsUntilDue = true;
}

void DeviceConnection::wait(int ms)
{
    writable.setEnabled(false);
    // Precise: a coarse timer would make thousands of devices send at the same moment, but devices
    // know nothing of each other.
    timer.start(ms, Qt::PreciseTimer, this);
}

void DeviceConnection::endSending()
{
    if (outbox.refusedNumber() > 0)
        return fail(
                QStringLiteral("message %1 does not fit the framing").arg(outbox.refusedNumber()));
    beginEnding(ending);
}

void DeviceConnection::beginEnding(const Ending &steps)
{
    ending = steps;
    state = State::Ending;
    timer.stop();
    if (ending.closeNotify) {
        const IoResult result = channel->sendEnd();
        if (result.status == IoResult::Failed)
            return fail(result.error);
        writable.setEnabled(result.status == IoResult::WantWrite);
        if (result.status != IoResult::Done)
            return;
    }
    writable.setEnabled(false);
    if (ending.shutdownWrite)
        socket.shutdownWrite();
    if (ending.ignoreTls)
        channel = std::make_unique<PlainChannel>(socket);
    awaitEnd();
}

void DeviceConnection::awaitEnd()
{
    switch (ending.then) {
    case Ending::Then::Close: {
        // Closing over unread bytes would reset the connection.
        const IoResult result = ending.reads ? channel->receive() : IoResult{};
        return result.status == IoResult::Failed ? fail(result.error) : finish(End::Closed);
    }
    case Ending::Then::AwaitPeer:
        if (ending.waitMs >= 0)
            timer.start(ending.waitMs, this);
        return;
    case Ending::Then::Reset:
        if (socket.unacknowledged() > 0)
            timer.start(AcknowledgedPollMs, this);
        else
            finish(End::Reset);
    }
}

void DeviceConnection::waitIsOver()
{
    switch (ending.afterWait) {
    case Ending::AfterWait::Close:
        return beginEnding(orderlyClose(run.options));
    case Ending::AfterWait::Reset:
        return beginEnding(resetEnding());
    case Ending::AfterWait::Nothing:
        break;
    }
    finish(ending.shutdownWrite ? End::Unanswered : End::Closed);
}

void DeviceConnection::peerClosed()
{
    if (state == State::Sending && run.options.fault == Fault::None)
        return fail(run.script ? QStringLiteral("closed by the peer before the script had ended")
                               : QStringLiteral("closed by the peer before everything was sent"));
    if (state == State::Ending && ending.then == Ending::Then::Reset) {
        readable.setEnabled(false); // the connection is reset nevertheless
        return;
    }
    finish(ending.shutdownWrite ? End::Closed : End::PeerClosed);
}

void DeviceConnection::fail(const QString &error)
{
    // A peer may do anything to a faulty device: that is no failure.
    const bool isExpected = record.opened && run.options.fault != Fault::None;
    record.failed = !isExpected;
    record.error = error;
    finish(isExpected ? End::PeerClosed : End::Failed);
}

void DeviceConnection::finish(End end)
{
    timer.stop();
    readable.setEnabled(false); // before the descriptor is closed
    writable.setEnabled(false);
    channel.reset();
    if (end == End::Reset)
        socket.reset();
    else
        socket.close();

    state = State::Finished;
    record.end = end;
    record.endMs = run.clock.elapsed();
    record.messages = outbox.acceptedMessages();
    record.bytes = outbox.acceptedBytes();
    record.checksum = outbox.checksum();
    Q_EMIT finished();
}

} // namespace simulator
