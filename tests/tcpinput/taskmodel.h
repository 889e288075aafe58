// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/receive/clock.h"
#include "tcpinput/workers/threadid.h"
#include "tests/kit/memorysocket.h"
#include "tests/tcpinput/clientmodel.h"

#include <QtCore/QMap>
#include <QtCore/QPointer>

#include <deque>
#include <functional>
#include <limits>
#include <memory>
#include <optional>
#include <vector>

/*!
    What a task has to do, with a model for each of its clients. Calls that Qt would queue wait in a
    queue here, too. What the task does is added to its events, as text: the log lines and the
    records.

    Thread: one.
*/
class TaskModel
{
public:
    using SubIds = QMap<QString, QString>;

    static QString recordText(const SubIds &subIds, const QByteArray &bytes)
    {
        QStringList parts;
        for (auto part = subIds.begin(); part != subIds.end(); ++part)
            parts += part.key() + QLatin1Char('=') + part.value();
        return QStringLiteral("record of %1 bytes, hash %2, %3")
                .arg(bytes.size())
                .arg(qHash(bytes))
                .arg(parts.join(QLatin1Char(' ')));
    }

    void advance(qint64 ms)
    {
        time += ms;
        for (const auto &client : clients)
            client->advance(ms);
    }

    // socket: what the server had pending, or null. listening: the address that the plugin
    // listens on, with its port, "address:port".
    void add(MemorySocket *socket, const Acceptance &acceptance, const QString &listening)
    {
        log(QStringLiteral("D: TcpTask2: Handling TCP connection, %1").arg(currentThreadNumber()));
        if (!socket) {
            log(QStringLiteral("W: TcpTask2: Creating receiving socket failed"));
            return;
        }
        const Endpoints &ends = acceptance.endpoints;
        const QString id = QStringLiteral("tcp2:%1-%2:%3")
                                   .arg(listening, ends.peer.toString())
                                   .arg(ends.peerPort);
        log(QStringLiteral("D: TcpTask2: new connection ") + id);
        log(QStringLiteral("D: TcpClient: id = '%1', local = '%2:%3'")
                    .arg(id, ends.local.toString())
                    .arg(ends.localPort));
        clients.push_back(std::make_unique<Client>(*this, id, socket, acceptance));
        enter(clients.back().get(), id);
        log(QStringLiteral("D: TcpTask2 (0): new client added, size = %1").arg(registry.size()));
    }

    // These two happen to a client's socket.
    void read(std::size_t client, const QByteArray &bytes) { clients.at(client)->read(bytes); }
    void end(std::size_t client) { clients.at(client)->endNow(); }

    void disconnected(const QString &id)
    {
        Client *client = registry.value(id);
        if (!client)
            return;
        client->isHeard = false; // only its last offer still counts
        client->endNow();
        client->isDeleted = true;
        registry.remove(id);
    }
    void idChanged(const QString &oid, const QString &id)
    {
        if (Client *client = registry.value(oid)) {
            enter(client, id);
            registry.remove(oid);
        }
    }

    void discard(int length, const SubIds &subIds)
    {
        if (!subIds.contains(QStringLiteral("client")))
            return log(QStringLiteral("D: TcpTask2: subid[client] not set"));
        const QString id = subIds.value(QStringLiteral("client"));
        Client *client = registry.value(id);
        if (!client)
            return log(QStringLiteral("D: TcpTask2: discard for non-existing client ") + id);
        if (client->number == 0 || !subIds.contains(QStringLiteral("offset")))
            return post(false, [=] { client->cut(length); });
        discardTo(*client, length, subIds.value(QStringLiteral("offset")),
                  subIds.value(QStringLiteral("connection"), QString::number(client->number)));
    }

    QString info() const
    {
        QString result;
        for (const Client *client : registry)
            result += client->id + QStringLiteral("\r\n      (empty 0)\r\n");
        return result;
    }
    void logSize(const QString &id)
    {
        log(QStringLiteral("D:   TcpTask2: id = %1, #clients = %2, id = %3")
                    .arg(id)
                    .arg(registry.size())
                    .arg(currentThreadNumber()));
    }

    void stop()
    {
        for (const auto &client : clients) {
            if (!client->isDeleted)
                post(false, [client = client.get()] { client->endNow(); });
        }
    }

    // Makes the calls that wait, but not those that they cause.
    void turn()
    {
        for (const Call &call : std::exchange(queue, {}))
            call.function();
    }
    bool isQuiet() const { return queue.empty(); }

    // Ends all clients and makes the calls that wait for the task. Then the task is gone.
    void destroy()
    {
        for (const auto &client : clients)
            client->endNow();
        for (const Call &call : std::exchange(queue, {})) {
            if (call.isForTask)
                call.function();
        }
    }

    QStringList events;

private:
    struct Call
    {
        bool isForTask = false; // false: for one of its clients
        std::function<void()> function;
    };

    class Client final : public ClientModel
    {
    public:
        Client(TaskModel &model, const QString &givenId, MemorySocket *connected,
               const Acceptance &acceptance)
            : ClientModel(givenId, acceptance.endpoints, acceptance.number != 0, model.time),
              number(acceptance.number),
              task(model),
              socket(connected)
        {}

        void endNow() { end(socket ? socket->unread() : QByteArray()); }

        const quint64 number;
        bool isHeard = true; // the task listens to its end and its changes of id
        // Another client with its id has its place in the registry.
        bool isDisplaced = false;
        bool isDeleted = false;

    protected:
        void log(const QString &line) override { task.log(line); }
        void offered() override
        {
            SubIds subIds{{QStringLiteral("client"), id},
                          {QStringLiteral("task"), QStringLiteral("0")}};
            if (number != 0) {
                subIds.insert(QStringLiteral("offset"), QString::number(position));
                subIds.insert(QStringLiteral("connection"), QString::number(number));
            }
            const QString record = recordText(subIds, buffer);
            if (lastOfferMade)
                lastRecord = record; // comes after the closing line
            else
                task.log(record);
        }
        void renamed(const QString &before) override
        {
            if (isHeard && task.registry.value(before) == this)
                task.idChanged(before, id);
        }
        void gone() override
        {
            if (!lastRecord.isNull())
                task.log(lastRecord);
            if (isHeard)
                task.post(true, [this, which = id] { task.ended(*this, which); });
        }

    private:
        QString lastRecord;
        TaskModel &task;
        const QPointer<MemorySocket> socket;
    };

    static std::optional<quint64> numberFrom(const QString &text)
    {
        bool valid = !text.startsWith(QLatin1Char('-')) && !text.startsWith(QLatin1Char('+'));
        const quint64 number = valid ? text.toULongLong(&valid) : 0;
        return valid ? std::optional(number) : std::nullopt;
    }

    void discardTo(Client &client, int length, const QString &offsetText, const QString &numberText)
    {
        const auto offset = numberFrom(offsetText);
        const auto number = numberFrom(numberText);
        if (!offset || !number)
            return log(QStringLiteral("D: TcpTask2: discard with invalid position ")
                       + (offset ? numberText : offsetText));
        if (*number != client.number)
            return;
        __extension__ using Wide = __int128;
        // Wide enough for any sum. A sum that is no position counts as the nearest position.
        const Wide sum = static_cast<Wide>(*offset) + length;
        const quint64 position = sum < 0                    ? 0
                : sum > std::numeric_limits<quint64>::max() ? std::numeric_limits<quint64>::max()
                                                            : static_cast<quint64>(sum);
        post(false, [&client, position] { client.cutTo(position); });
    }

    // Another client that has the id loses its place.
    void enter(Client *client, const QString &id)
    {
        Client *&holder = registry[id];
        if (holder && holder != client)
            holder->isDisplaced = true;
        holder = client;
    }
    void ended(Client &client, const QString &id)
    {
        if (registry.value(id) == &client)
            disconnected(id);
        else if (client.isDisplaced)
            client.isDeleted = true;
    }

    void log(const QString &line) { events += line; }
    void post(bool isForTask, std::function<void()> function)
    {
        queue.push_back({isForTask, std::move(function)});
    }

    std::vector<std::unique_ptr<Client>> clients; // all that there ever were
    QMap<QString, Client *> registry;
    std::deque<Call> queue;
    qint64 time = Clock::now();
};
