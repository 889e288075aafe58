// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/nats/natslink.h"

#include <QtCore/QRandomGenerator>

#include <algorithm>

namespace host {
namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds ShortestPause(50);
constexpr std::chrono::milliseconds LongestPause(1000);

// Where answers come to: nobody else's, in no other start of the program.
QByteArray newInbox()
{
    const quint64 number = QRandomGenerator::system()->generate64();
    return "_INBOX." + QByteArray::number(number, 36) + '.';
}

} // namespace

NatsLink::NatsLink(const NatsSettings &natsSettings, std::chrono::milliseconds answerLimit,
                   QObject *parent)
    : QObject(parent),
      settings(natsSettings),
      limit(answerLimit),
      pause(ShortestPause),
      attemptTimer(this),
      limitTimer(this)
{
    clock.start();
    attemptTimer.setSingleShot(true);
    connect(&attemptTimer, &QTimer::timeout, this, &NatsLink::attempt);
    limitTimer.setSingleShot(true);
    connect(&limitTimer, &QTimer::timeout, this, &NatsLink::expire);
}

NatsLink::~NatsLink() = default;

void NatsLink::open()
{
    attempt();
}

void NatsLink::close()
{
    attemptTimer.stop();
    limitTimer.stop();
    handlers.clear();
    limits.clear();
    connected = false;
    if (connection && !connection->isAttempting()) // otherwise the destructor waits for it
        connection.reset();
}

QString NatsLink::server() const
{
    return settings.servers[turn];
}

void NatsLink::attempt()
{
    connection = std::make_unique<NatsConnection>(newInbox());
    connect(connection.get(), &NatsConnection::opened, this, &NatsLink::noteOpened);
    connect(connection.get(), &NatsConnection::failed, this, &NatsLink::noteLost);
    connect(connection.get(), &NatsConnection::ended, this,
            [this](const QString &reason) { noteLost(reason, false); });
    connect(connection.get(), &NatsConnection::answered, this, &NatsLink::noteAnswer);
    connect(connection.get(), &NatsConnection::drained, this, &NatsLink::drained);
    const QString error = connection->open(settings, server());
    if (!error.isEmpty())
        noteLost(error, false);
}

void NatsLink::noteOpened()
{
    connected = true;
    sinceOpened.start();
    mostPayload = connection->maxPayload();
    Q_EMIT opened();
    flush();
}

void NatsLink::noteLost(const QString &reason, bool isRefusal)
{
    const bool wasOpen = std::exchange(connected, false);
    Q_EMIT lost(reason, isRefusal);
    limits.clear();
    for (const auto &[token, handler] : std::exchange(handlers, {}))
        handler({NatsAnswer::Kind::Unknown, {}});
    turn = (turn + 1) % settings.servers.size();
    // A server that lets us in and throws us out at once is no better than one that is away.
    if (wasOpen && sinceOpened.hasExpired(LongestPause.count()))
        pause = ShortestPause;
    attemptTimer.start(pause);
    pause = std::min(2 * pause, LongestPause);
}

bool NatsLink::request(const NatsRequest &request, Handler handler)
{
    if (!connected || !connection->send(request, lastToken + 1))
        return false;
    handlers.emplace(++lastToken, std::move(handler));
    limits.emplace_back(clock.elapsed() + limit.count(), lastToken);
    if (!limitTimer.isActive())
        limitTimer.start(limit);
    return true;
}

void NatsLink::flush()
{
    if (connected)
        connection->flush();
}

void NatsLink::noteAnswer(quint64 token, const QByteArray &data)
{
    answer(token, {NatsAnswer::Kind::Data, data});
}

void NatsLink::answer(quint64 token, const NatsAnswer &answer)
{
    const auto found = handlers.find(token);
    if (found == handlers.end()) // too late
        return;
    const Handler handler = std::move(found->second);
    handlers.erase(found);
    while (!limits.empty() && handlers.find(limits.front().second) == handlers.end())
        limits.pop_front();
    handler(answer);
}

void NatsLink::expire()
{
    while (!limits.empty() && limits.front().first <= clock.elapsed()) {
        const quint64 token = limits.front().second;
        limits.pop_front();
        answer(token, {NatsAnswer::Kind::Unknown, {}});
    }
    watchLimits();
    Q_EMIT drained();
    flush();
}

void NatsLink::watchLimits()
{
    if (!limits.empty())
        limitTimer.start(std::chrono::milliseconds(
                std::max<qint64>(limits.front().first - clock.elapsed(), 1)));
}

} // namespace host
