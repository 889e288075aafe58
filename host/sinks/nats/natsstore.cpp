// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/nats/natsstore.h"

#include "plugin/cwrn.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

#include <algorithm>
#include <utility>

#include <nats/nats.h>

namespace host {
namespace {

constexpr std::chrono::milliseconds ShortestPause(50);
constexpr std::chrono::milliseconds LongestPause(1000);

constexpr const char *MessageId = "Nats-Msg-Id";

qint64 sizeOf(const NatsRequest &request)
{
    qint64 size = QByteArrayView("NATS/1.0\r\n\r\n").size() + request.data.size();
    for (const auto &[name, value] : request.headers)
        size += QByteArrayView(name).size() + value.size() + QByteArrayView(": \r\n").size();
    return size;
}

} // namespace

NatsStore::NatsStore(const NatsSettings &natsSettings, std::chrono::milliseconds answerLimit)
    : settings(natsSettings),
      subjectError(subject.read(settings.subject, settings.stream, settings.epoch)),
      link(settings, answerLimit, this),
      stream(link, settings, subject.pattern(), this),
      pause(ShortestPause),
      retryTimer(this)
{
    retryTimer.setSingleShot(true);
    connect(&retryTimer, &QTimer::timeout, this, &NatsStore::retry);
    connect(&link, &NatsLink::opened, this, &NatsStore::noteOpened);
    connect(&link, &NatsLink::lost, this, &NatsStore::noteLost);
    connect(&link, &NatsLink::drained, this, &NatsStore::report);
    connect(&stream, &NatsStream::found, this, &NatsStore::noteStream);
    connect(&stream, &NatsStream::wasCreated, this, [this] {
        CWRN(QtInfoMsg, QStringLiteral("NATS: stream %1 created with %2 replicas"), settings.stream,
             settings.replicas);
    });
    connect(&stream, &NatsStream::missing, this, [this] {
        if (isNews(Trouble::NoStream))
            CWRN(QtWarningMsg, QStringLiteral("NATS: %1 has no stream %2: messages wait for it"),
                 link.server(), settings.stream);
    });
    connect(&stream, &NatsStream::problem, this, [this](const QString &text) {
        if (isNews(Trouble::Unusable))
            CWRN(QtWarningMsg, QStringLiteral("NATS: stream %1: messages wait: %2"),
                 settings.stream, text);
    });
}

QString NatsStore::open()
{
    if (!subjectError.isEmpty())
        return QStringLiteral("Invalid subject: ") + subjectError;
    QString error = NatsConnection::settingsError(settings);
    if (error.isEmpty())
        link.open();
    return error;
}

void NatsStore::close()
{
    retryTimer.stop();
    stream.stop();
    ready = false;
    link.close();
    tellSkipped(true);
    report();
    nats_ReleaseThreadMemory(); // what the library keeps for this thread, which ends now
}

void NatsStore::add(Batch batch)
{
    if (batch.messages() == 0) {
        progress.memory += batch.memory();
        report();
        return;
    }
    const auto held = batches.insert(batches.end(), {std::move(batch), 0});
    held->unstored = held->batch.messages();
    const std::vector<Batch::Entry> &entries = held->batch.entries();
    for (size_t n = 0; n < entries.size(); ++n) {
        if (entries[n].kind != Batch::Kind::Message)
            continue;
        const quint64 connection = held->batch.originOf(entries[n]).connection;
        Lane &lane = lanes[connection];
        lane.waiting.push_back({held, n});
        advance(connection, lane);
    }
    link.flush();
}

void NatsStore::noteOpened()
{
    stream.look();
}

void NatsStore::noteLost(const QString &reason, bool isRefusal)
{
    ready = false;
    streamIsInDoubt = false;
    stream.stop();
    if (!isNews(isRefusal ? Trouble::Unwanted : Trouble::Away))
        return;
    if (isRefusal)
        CWRN(QtWarningMsg, QStringLiteral("NATS: %1 refuses us: messages wait: %2"), link.server(),
             reason);
    else
        CWRN(QtWarningMsg, QStringLiteral("NATS: no connection to %1: messages wait: %2"),
             link.server(), reason);
}

void NatsStore::noteStream(quint64 sequence, const QString &created)
{
    if (created != streamCreated) {
        for (auto &[connection, lane] : lanes)
            lane.lookFrom = 0;
    }
    streamCreated = created;
    lastSequence = sequence;
    ready = true;
    if (lanes.empty()) // otherwise that shows when a message is stored
        goOn();
    for (auto &[connection, lane] : lanes)
        advance(connection, lane);
    link.flush();
}

void NatsStore::advance(quint64 connection, Lane &lane)
{
    if (!ready || lane.isBusy || lane.isPostponed)
        return;
    if (lane.isUnsure)
        look(connection, lane);
    else
        publish(connection, lane);
}

void NatsStore::publish(quint64 connection, Lane &lane)
{
    const NatsRequest request = requestFor(lane.waiting.front());
    if (isTooLong(request)) {
        // Not at once: whoever calls this may be going through the lanes.
        lane.isBusy = true;
        QMetaObject::invokeMethod(
                this, [this, connection] { skip(connection); }, Qt::QueuedConnection);
        return;
    }
    lane.lookFrom = lastSequence + 1;
    lane.isBusy = link.request(request, [this, connection](const NatsAnswer &answer) {
        notePublished(connection, answer);
    });
    if (!lane.isBusy) // the connection ends
        postpone(connection, lane);
}

// Asks for the next message with its subject that is not known yet.
void NatsStore::look(quint64 connection, Lane &lane)
{
    const Waiting &message = lane.waiting.front();
    const QByteArray wanted = subject.subjectOf(message.held->batch.originOf(entryOf(message)));
    const QJsonObject question = {
            {QStringLiteral("seq"), static_cast<qint64>(std::max<quint64>(lane.lookFrom, 1))},
            {QStringLiteral("next_by_subj"), QString::fromUtf8(wanted)},
    };
    const QByteArray data = QJsonDocument(question).toJson(QJsonDocument::Compact);
    NatsRequest request;
    request.subject = "$JS.API.STREAM.MSG.GET." + settings.stream.toUtf8();
    request.data = data;
    lane.isBusy = link.request(request, [this, connection](const NatsAnswer &answer) {
        noteLooked(connection, answer);
    });
    if (!lane.isBusy) // the connection ends
        postpone(connection, lane);
}

NatsRequest NatsStore::requestFor(const Waiting &message) const
{
    const Batch::Entry &entry = entryOf(message);
    const Origin &origin = message.held->batch.originOf(entry);
    NatsRequest request;
    request.subject = subject.subjectOf(origin);
    request.data = message.held->batch.bytesOf(entry);
    request.headers = {
            {MessageId, idOf(message)},
            {"Nats-Expected-Stream", settings.stream.toUtf8()},
            {"Input-Epoch", settings.epoch},
            {"Input-Connection", QByteArray::number(origin.connection)},
            {"Input-Position", QByteArray::number(entry.position)},
            {"Input-End", QByteArray::number(entry.end)},
            {"Input-Time", origin.time.toUTC().toString(Qt::ISODateWithMs).toLatin1()},
            {"Input-Peer", headerText(origin.peer)},
            {"Input-Port", QByteArray::number(origin.port)},
            {"Input-Source", headerText(origin.source)},
    };
    if (entry.partial)
        request.headers.emplace_back("Input-Partial", "true");
    const auto isEmpty = [](const auto &header) { return header.second.isEmpty(); };
    request.headers.erase(std::remove_if(request.headers.begin(), request.headers.end(), isEmpty),
                          request.headers.end());
    return request;
}

bool NatsStore::isTooLong(const NatsRequest &request) const
{
    return sizeOf(request) > link.maxPayload();
}

void NatsStore::notePublished(quint64 connection, const NatsAnswer &answer)
{
    Lane &lane = lanes[connection];
    lane.isBusy = false;
    if (answer.kind != NatsAnswer::Kind::Data) {
        noteUnanswered(connection, lane);
        return;
    }
    const StreamAnswer stored = readStreamAnswer(answer.data);
    if (stored.errorCode == 0)
        noteDone(connection, lane, stored.sequence);
    else if (stored.errorCode == MessageTooLong)
        skip(connection);
    else
        noteRefused(connection, lane, stored.error);
}

// It would never be stored, and memory for what comes behind it would never be free again.
void NatsStore::skip(quint64 connection)
{
    Lane &lane = lanes[connection];
    lane.isBusy = false;
    const Waiting &message = lane.waiting.front();
    tellSkipped(false);
    if (skippedLines.allows())
        CWRN(QtWarningMsg,
             QStringLiteral("NATS: %1 takes no message of %2 bytes with its headers: skipped, from "
                            "%3"),
             link.server(), sizeOf(requestFor(message)),
             message.held->batch.originOf(entryOf(message)).source);
    removeFirst(connection, lane);
    report();
}

void NatsStore::tellSkipped(bool atOnce)
{
    if (const qint64 missed = skippedLines.takeMissed(atOnce))
        CWRN(QtWarningMsg, QStringLiteral("NATS: %1 more messages skipped: they are too long"),
             missed);
}

void NatsStore::noteLooked(quint64 connection, const NatsAnswer &answer)
{
    Lane &lane = lanes[connection];
    lane.isBusy = false;
    if (answer.kind != NatsAnswer::Kind::Data) {
        noteUnanswered(connection, lane);
        return;
    }
    const StreamAnswer found = readStreamAnswer(answer.data);
    if (found.errorCode == MessageNotFound) {
        lane.isUnsure = false;
        advance(connection, lane);
    } else if (found.errorCode != 0) {
        noteRefused(connection, lane, found.error);
    } else if (headerValue(found.headers, MessageId) == idOf(lane.waiting.front())) {
        noteDone(connection, lane, found.sequence);
    } else { // another connection's, with the same subject
        lane.lookFrom = found.sequence + 1;
        advance(connection, lane);
    }
}

void NatsStore::noteDone(quint64 connection, Lane &lane, quint64 sequence)
{
    lastSequence = std::max(lastSequence, sequence);
    removeFirst(connection, lane);
    noteStored();
}

// Goes on with the next one.
void NatsStore::removeFirst(quint64 connection, Lane &lane)
{
    const Waiting done = lane.waiting.front();
    lane.waiting.pop_front();
    lane.isUnsure = false;
    progress.safe.append({connection, entryOf(done).end});
    ++progress.messages;
    if (--done.held->unstored == 0) {
        progress.memory += done.held->batch.memory();
        batches.erase(done.held);
    }
    if (lane.waiting.empty())
        lanes.erase(connection);
    else
        advance(connection, lane);
}

void NatsStore::noteUnanswered(quint64 connection, Lane &lane)
{
    lane.isUnsure = true;
    if (!link.isOpen()) // noteStream() goes on
        return;
    streamIsInDoubt = true;
    postpone(connection, lane);
    if (isNews(Trouble::Unanswered))
        CWRN(QtWarningMsg,
             QStringLiteral("NATS: stream %1 does not answer for subjects %2: messages wait: %3"),
             settings.stream, subject.pattern(), link.complaint());
}

void NatsStore::noteRefused(quint64 connection, Lane &lane, const QString &reason)
{
    postpone(connection, lane);
    if (isNews(Trouble::Refused))
        CWRN(QtWarningMsg, QStringLiteral("NATS: stream %1 refuses messages: they wait: %2"),
             settings.stream, reason);
}

void NatsStore::postpone(quint64 connection, Lane &lane)
{
    lane.isPostponed = true;
    postponed.push_back(connection);
    if (!retryTimer.isActive())
        retryTimer.start(pause);
}

void NatsStore::retry()
{
    pause = std::min(2 * pause, LongestPause);
    const std::vector<quint64> connections = std::exchange(postponed, {});
    for (const quint64 connection : connections)
        lanes[connection].isPostponed = false;
    if (ready && std::exchange(streamIsInDoubt, false)) {
        ready = false;
        stream.look();
    }
    for (const quint64 connection : connections)
        advance(connection, lanes[connection]);
    link.flush();
}

void NatsStore::report()
{
    if (progress.messages > 0 || progress.memory > 0)
        Q_EMIT stored(std::exchange(progress, {}));
}

bool NatsStore::isNews(Trouble now)
{
    const Trouble before = std::exchange(trouble, now);
    if (before == Trouble::None)
        Q_EMIT connectedChanged(false);
    return told.insert(now).second;
}

void NatsStore::noteStored()
{
    pause = ShortestPause;
    if (postponed.empty())
        goOn();
}

void NatsStore::goOn()
{
    if (std::exchange(trouble, Trouble::None) == Trouble::None)
        return;
    told.clear();
    CWRN(QtInfoMsg, QStringLiteral("NATS: %1 stores messages in stream %2"), link.server(),
         settings.stream);
    Q_EMIT connectedChanged(true);
}

QByteArray NatsStore::idOf(const Waiting &message) const
{
    const Batch::Entry &entry = entryOf(message);
    const quint64 connection = message.held->batch.originOf(entry).connection;
    return settings.epoch + '-' + QByteArray::number(connection) + '-'
            + QByteArray::number(entry.position);
}

const Batch::Entry &NatsStore::entryOf(const Waiting &message)
{
    return message.held->batch.entries()[message.entry];
}

} // namespace host
