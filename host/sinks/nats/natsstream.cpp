// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/nats/natsstream.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

#include <chrono>

namespace host {
namespace {

constexpr std::chrono::seconds LookInterval(1);
// How long a server recognises what it has been sent twice.
constexpr qint64 DuplicateWindowNs = 600'000'000'000;

} // namespace

NatsStream::NatsStream(NatsLink &natsLink, const NatsSettings &natsSettings, const QString &pattern,
                       QObject *parent)
    : QObject(parent),
      link(natsLink),
      settings(natsSettings),
      subjects(pattern),
      timer(this)
{
    timer.setSingleShot(true);
    connect(&timer, &QTimer::timeout, this, &NatsStream::look);
}

void NatsStream::look()
{
    ask("INFO", {}, [this](const NatsAnswer &answer) { noteInfo(answer); });
}

void NatsStream::stop()
{
    timer.stop();
}

void NatsStream::ask(const char *what, const QByteArray &data, const NatsLink::Handler &handler)
{
    NatsRequest request;
    request.subject = QByteArrayLiteral("$JS.API.STREAM.") + what + '.' + settings.stream.toUtf8();
    request.data = data;
    if (link.request(request, handler)) // otherwise the connection ends
        link.flush();
}

void NatsStream::lookAgain()
{
    timer.start(LookInterval);
}

void NatsStream::noteSilence()
{
    if (!link.isOpen()) // look() is called again when it is
        return;
    Q_EMIT problem(QStringLiteral("no answer: no leader now, or no JetStream for this user"));
    lookAgain();
}

void NatsStream::noteInfo(const NatsAnswer &answer)
{
    if (answer.kind != NatsAnswer::Kind::Data) {
        noteSilence();
        return;
    }
    const StreamAnswer stream = readStreamAnswer(answer.data);
    if (stream.errorCode == 0) {
        Q_EMIT found(stream.sequence, stream.created);
    } else if (stream.errorCode != StreamNotFound) {
        Q_EMIT problem(stream.error);
        lookAgain();
    } else if (settings.replicas > 0) {
        create();
    } else {
        Q_EMIT missing();
        lookAgain();
    }
}

void NatsStream::create()
{
    const QJsonObject configuration = {
            {QStringLiteral("name"), settings.stream},
            {QStringLiteral("subjects"), QJsonArray{subjects}},
            {QStringLiteral("retention"), QStringLiteral("limits")},
            {QStringLiteral("storage"), QStringLiteral("file")},
            {QStringLiteral("discard"), QStringLiteral("new")},
            {QStringLiteral("max_consumers"), -1},
            {QStringLiteral("max_msgs"), -1},
            {QStringLiteral("max_bytes"), -1},
            {QStringLiteral("max_msg_size"), -1},
            {QStringLiteral("num_replicas"), settings.replicas},
            {QStringLiteral("duplicate_window"), DuplicateWindowNs},
    };
    ask("CREATE", QJsonDocument(configuration).toJson(QJsonDocument::Compact),
        [this](const NatsAnswer &answer) { noteCreation(answer); });
}

void NatsStream::noteCreation(const NatsAnswer &answer)
{
    if (answer.kind != NatsAnswer::Kind::Data) {
        noteSilence();
        return;
    }
    const StreamAnswer stream = readStreamAnswer(answer.data);
    if (stream.errorCode != 0) {
        Q_EMIT problem(QStringLiteral("it cannot be created: ") + stream.error);
        lookAgain();
        return;
    }
    Q_EMIT wasCreated();
    Q_EMIT found(stream.sequence, stream.created);
}

} // namespace host
