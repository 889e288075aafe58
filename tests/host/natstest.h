// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/sinks/nats/natsstore.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/loglines.h"
#include "tests/kit/messagecapture.h"
#include "tests/kit/testaddress.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>
#include <QtTest/QtTest>

#include <csignal>
#include <map>
#include <memory>

#include <nats/nats.h>
#include <sys/wait.h>

namespace natstest {

using namespace host;
using namespace std::chrono_literals;

//! A nats-server with JetStream and a folder of its own. The destructor kills it.
class NatsServer
{
public:
    explicit NatsServer(QByteArray moreConfiguration = {}, QByteArray serverName = "test")
        : more(std::move(moreConfiguration)),
          name(std::move(serverName)),
          port(freePort())
    {}
    ~NatsServer() { kill(); }
    Q_DISABLE_COPY_MOVE(NatsServer)

    QString address() const
    {
        return QStringLiteral("%1:%2").arg(testAddress().toString()).arg(port);
    }

    // Returns when it takes connections. Again after kill(): with what it has stored.
    void start()
    {
        QFile file(folder.filePath(QStringLiteral("server.conf")));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("host: " + testAddress().toString().toLatin1()
                   + "\nport: " + QByteArray::number(port) + "\nserver_name: " + name
                   + "\njetstream { store_dir: \""
                   + folder.filePath(QStringLiteral("store")).toUtf8() + "\" }\n" + more);
        file.close();
        process = std::make_unique<QProcess>();
        process->setProcessChannelMode(QProcess::MergedChannels);
        process->start(QStringLiteral("/usr/sbin/nats-server"),
                       {QStringLiteral("-c"), file.fileName()});
        QByteArray output;
        const auto isReady = [&] {
            output += process->readAll();
            return output.contains("Server is ready");
        };
        QTRY_VERIFY2_WITH_TIMEOUT(isReady(), output.constData(), HangGuardMs);
    }
    // Returns when all its threads stand still. Until then it would go on answering.
    void suspend() const
    {
        ::kill(pid(), SIGSTOP);
        siginfo_t info = {};
        QCOMPARE(::waitid(P_PID, static_cast<id_t>(pid()), &info, WSTOPPED | WNOWAIT), 0);
    }
    void resume() const { ::kill(pid(), SIGCONT); }
    void kill()
    {
        if (!process)
            return;
        process->kill();
        process->waitForFinished(HangGuardMs);
        process.reset();
    }

private:
    pid_t pid() const { return static_cast<pid_t>(process->processId()); }

    QTemporaryDir folder;
    const QByteArray more;
    const QByteArray name;
    const quint16 port;
    std::unique_ptr<QProcess> process;
};

template<auto free>
struct Free
{
    template<class T>
    void operator()(T *object) const
    {
        free(object);
    }
};

//! What a consumer sees of a stream.
class Reader
{
public:
    explicit Reader(const NatsServer &server, const char *user = nullptr,
                    const char *password = nullptr,
                    const std::function<void(natsOptions *)> &change = {})
    {
        natsOptions *options = nullptr;
        natsOptions_Create(&options);
        const std::unique_ptr<natsOptions, Free<natsOptions_Destroy>> owned(options);
        natsOptions_SetURL(options, ("nats://" + server.address().toLatin1()).constData());
        natsOptions_SetUserInfo(options, user, password);
        if (change)
            change(options);
        natsConnection *made = nullptr;
        if (natsConnection_Connect(&made, options) != NATS_OK)
            qFatal("No connection to %s", qPrintable(server.address()));
        connection.reset(made);
        jsCtx *context = nullptr;
        natsConnection_JetStream(&context, made, nullptr);
        jetStream.reset(context);
    }

    // The stream "S" for the subjects dev.>
    bool create(const std::function<void(jsStreamConfig &)> &change = {}) const
    {
        return apply(js_AddStream, change);
    }
    bool update(const std::function<void(jsStreamConfig &)> &change) const
    {
        return apply(js_UpdateStream, change);
    }
    bool remove() const
    {
        return js_DeleteStream(jetStream.get(), "S", nullptr, nullptr) == NATS_OK;
    }
    jsStreamInfo *info() const
    {
        jsStreamInfo *made = nullptr;
        js_GetStreamInfo(&made, jetStream.get(), "S", nullptr, nullptr);
        kept.reset(made);
        return made;
    }
    bool publish(const char *subject, const QByteArray &bytes) const
    {
        return js_Publish(nullptr, jetStream.get(), subject, bytes.constData(),
                          static_cast<int>(bytes.size()), nullptr, nullptr)
                == NATS_OK;
    }

    struct Message
    {
        QByteArray subject;
        QByteArray bytes;
        QMap<QByteArray, QByteArray> headers;
    };
    // All messages, in their order.
    std::vector<Message> messages() const
    {
        std::vector<Message> result;
        const jsStreamInfo *stream = info();
        for (uint64_t n = stream ? stream->State.FirstSeq : 1; stream && n <= stream->State.LastSeq;
             ++n) {
            natsMsg *made = nullptr;
            if (js_GetMsg(&made, jetStream.get(), "S", n, nullptr, nullptr) != NATS_OK)
                return {};
            const std::unique_ptr<natsMsg, Free<natsMsg_Destroy>> message(made);
            result.push_back({natsMsg_GetSubject(made),
                              QByteArray(natsMsg_GetData(made), natsMsg_GetDataLength(made)),
                              headersOf(made)});
        }
        return result;
    }
    // Of each connection, by its number.
    std::map<QByteArray, QByteArrayList> byConnection() const
    {
        std::map<QByteArray, QByteArrayList> result;
        for (const Message &message : messages())
            result[message.headers["Input-Connection"]].append(message.bytes);
        return result;
    }

private:
    template<class Function>
    bool apply(Function function, const std::function<void(jsStreamConfig &)> &change) const
    {
        jsStreamConfig configuration;
        jsStreamConfig_Init(&configuration);
        const char *subjects[] = {"dev.>"};
        configuration.Name = "S";
        configuration.Subjects = subjects;
        configuration.SubjectsLen = 1;
        if (change)
            change(configuration);
        return function(nullptr, jetStream.get(), &configuration, nullptr, nullptr) == NATS_OK;
    }
    static QMap<QByteArray, QByteArray> headersOf(natsMsg *message)
    {
        QMap<QByteArray, QByteArray> headers;
        const char **keys = nullptr;
        int count = 0;
        if (natsMsgHeader_Keys(message, &keys, &count) != NATS_OK)
            return headers;
        for (int n = 0; n < count; ++n) {
            const char *value = nullptr;
            natsMsgHeader_Get(message, keys[n], &value);
            headers.insert(keys[n], value);
        }
        ::free(keys);
        return headers;
    }

    std::unique_ptr<natsConnection, Free<natsConnection_Destroy>> connection;
    std::unique_ptr<jsCtx, Free<jsCtx_Destroy>> jetStream;
    mutable std::unique_ptr<jsStreamInfo, Free<jsStreamInfo_Destroy>> kept;
};

//! A store in the test's thread, with what it has said.
class Storing
{
public:
    explicit Storing(const NatsSettings &settings,
                     std::chrono::milliseconds answerLimit = NatsLink::DefaultAnswerLimit)
        : store(settings, answerLimit)
    {
        QObject::connect(&store, &Store::stored, &store, [this](const Stored &progress) {
            messages += progress.messages;
            memory += progress.memory;
            for (const SafePosition &each : progress.safe) {
                isInOrder = isInOrder && each.end > safe[each.connection];
                safe[each.connection] = each.end;
            }
        });
        QObject::connect(&store, &Store::connectedChanged, &store,
                         [this](bool is) { connected.append(is); });
    }
    ~Storing() { store.close(); }
    Q_DISABLE_COPY_MOVE(Storing)

    // So many messages more of each of these connections, in one batch.
    void add(int connections, int count, int first = 1)
    {
        Batch batch;
        for (int n = 0; n < count; ++n) {
            for (int connection = first; connection < first + connections; ++connection)
                addTo(batch, connection);
        }
        give(std::move(batch));
    }
    void give(Batch batch)
    {
        givenMessages += batch.messages();
        givenMemory += batch.memory();
        store.add(std::move(batch));
    }
    bool isAllStored() const { return messages == givenMessages && memory == givenMemory; }
    // Whether exactly all messages of add() are there, in order.
    bool isExact(const Reader &reader) const
    {
        std::map<QByteArray, QByteArrayList> expected;
        for (const auto &[connection, count] : counts) {
            for (int n = 0; n < count; ++n)
                expected[QByteArray::number(connection)].append(textOf(connection, n));
        }
        return reader.byConnection() == expected;
    }

    NatsStore store;
    qint64 messages = 0;
    qint64 memory = 0;
    bool isInOrder = true;
    std::map<quint64, quint64> safe;
    QList<bool> connected;

private:
    static QByteArray textOf(int connection, int n)
    {
        return "message " + QByteArray::number(n) + " of " + QByteArray::number(connection);
    }
    void addTo(Batch &batch, int connection)
    {
        Origin origin;
        origin.connection = static_cast<quint64>(connection);
        origin.peer = QStringLiteral("192.0.2.1");
        const int n = counts[connection]++;
        const auto position = static_cast<quint64>(n) * 100;
        batch.add({origin, {}, textOf(connection, n), position, position + 100});
    }

    std::map<int, int> counts;
    qint64 givenMessages = 0;
    qint64 givenMemory = 0;
};

inline NatsSettings settingsFor(const NatsServer &server)
{
    NatsSettings settings;
    settings.servers = QStringList{server.address()};
    settings.stream = QStringLiteral("S");
    settings.epoch = QByteArray(32, 'e');
    return settings;
}

} // namespace natstest
