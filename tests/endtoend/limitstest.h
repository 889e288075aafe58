// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/kit/certificates.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/loadedplugin.h"
#include "tests/kit/loglines.h"
#include "tests/kit/nativesocket.h"
#include "tests/kit/tlsdevice.h"
#include "tests/kit/tlsengines.h"

#include <QtTest/QtTest>

#include <atomic>
#include <deque>
#include <thread>

namespace limitstest {

inline constexpr int KiB = 1024;
inline constexpr int MiB = 1024 * KiB;

//! Sends a stream in its own thread, over TCP or TLS. Each byte depends on its place in the stream.
class Sender
{
public:
    Sender(quint16 port, int tlsVersion, qsizetype bytes, bool waitsAtFirst = false)
        : waits(waitsAtFirst),
          thread([this, port, tlsVersion, bytes] { run(port, tlsVersion, bytes); })
    {}
    ~Sender()
    {
        stays = false;
        ::shutdown(descriptor, SHUT_RDWR); // ends a send() that blocks
        thread.join();
    }
    Q_DISABLE_COPY_MOVE(Sender)

    // The bytes of the stream from begin on.
    static QByteArray part(qsizetype begin, qsizetype size)
    {
        QByteArray bytes(size, Qt::Uninitialized);
        for (qsizetype i = 0; i < size; ++i)
            bytes[i] = static_cast<char>((begin + i) * 7919 >> 8);
        return bytes;
    }

    std::atomic<qsizetype> sent = 0; // bytes that the kernel took
    std::atomic<bool> waits = false; // stops sending after the current piece
    std::atomic<bool> stays = true; // keeps the connection open after the last byte
    std::atomic<bool> resets = false; // ends with a reset instead of a close
    std::atomic<bool> finished = false; // has sent all bytes, or sending has failed

private:
    void run(quint16 port, int tlsVersion, qsizetype bytes)
    {
        constexpr qsizetype PieceBytes = 16000;
        TlsDevice tls(tlsVersion == 0 ? TLS1_3_VERSION : tlsVersion);
        NativeSocket plain;
        NativeSocket &socket = tlsVersion == 0 ? plain : tls.socket;
        if (tlsVersion == 0)
            plain = NativeSocket::connectedTo(testAddress(), port);
        else if (!tls.connect(testAddress(), port) || !tls.handshake())
            return;
        descriptor = socket.descriptor();
        while (sent < bytes) {
            const QByteArray piece = part(sent, qMin(PieceBytes, bytes - sent));
            bool done = false;
            if (tlsVersion == 0) {
                done = socket.send(piece);
            } else {
                tls.write(piece);
                done = tls.flush();
            }
            if (!done)
                break;
            sent += piece.size();
            while (waits && stays)
                QThread::msleep(1);
        }
        finished = true;
        while (stays)
            QThread::msleep(1);
        if (resets)
            socket.reset();
    }

    std::atomic<int> descriptor = -1;
    std::thread thread; // the last member: it uses the others
};

// A plugin with limits, and the bytes that its records contained.
class LimitsTest : public QObject
{
protected:
    void begin();
    void end();

    static void transports();
    void start(const QJsonObject &limits, QJsonObject more = {});
    qint64 heldBytes() const; // read from the status text
    bool isQuiet() const; // no new bytes for a second

    // The bytes of a connection's records, without repeats, and whether they were right.
    struct Stream
    {
        qsizetype size = 0;
        qsizetype longest = 0; // bytes of the longest record
        int records = 0;
        QString end;
        bool intact = true;
    };
    void take(const shared_parsedData &record);
    const Stream &only() const { return streams.first(); }
    bool serve(const std::function<bool()> &condition)
    {
        return QTest::qWaitFor(condition, HangGuardMs);
    }
    void discardAll();

    LoadedLibrary library;
    quint16 port = 0;
    std::unique_ptr<IInputPlugin> plugin;
    IInputPlugin *input = nullptr; // the plugin, also while its destructor runs
    QMap<QString, Stream> streams; // by connection
    // By connection: length and sub-ids for a discard. Not the record itself: it would count as
    // held bytes.
    QMap<QString, std::pair<int, QMap<QString, QString>>> latest;
    std::deque<shared_parsedData> kept; // the records, if keeps is set
    bool keeps = false;
    bool consumes = false; // discards each record at once
    qsizetype consumed = 0; // bytes of whole messages; for tests with one connection
    std::unique_ptr<MessageCapture> capture;
    QElapsedTimer sinceFresh;
};

inline void LimitsTest::begin()
{
    port = freePort();
    capture = std::make_unique<MessageCapture>();
    keeps = consumes = false;
    consumed = 0;
    sinceFresh.start();
}

inline void LimitsTest::end()
{
    plugin.reset();
    streams.clear();
    latest.clear();
    kept.clear();
    capture.reset();
}

inline void LimitsTest::transports()
{
    QTest::addColumn<int>("tls");
    QTest::newRow("TCP") << 0;
    QTest::newRow("TLS 1.2") << TLS1_2_VERSION;
    QTest::newRow("TLS 1.3") << TLS1_3_VERSION;
    QTest::newRow("TLS 1.3, own engine") << TLS1_3_VERSION;
}

inline void LimitsTest::start(const QJsonObject &limits, QJsonObject more)
{
    const QJsonObject base = tcpConfig(port);
    for (auto entry = base.begin(); entry != base.end(); ++entry)
        more.insert(entry.key(), *entry);
    more.insert(QStringLiteral("limits"), limits);
    more.insert(QStringLiteral("offsets"), true);
    more.insert(QStringLiteral("ends"), true);
    // Without this key, a few last bytes of a stream would wait for the idle time-out.
    more.insert(QStringLiteral("prompt"), true);
    const QByteArray row = QTest::currentDataTag();
    if (row.startsWith("TLS"))
        more.insert(QStringLiteral("ssl"),
                    withEngine(serverTls(),
                               row.endsWith("own engine") ? QStringLiteral("own") : QString()));
    plugin = library.create(more);
    input = plugin.get();
    connect(input, &IInputPlugin::receivedData, this, &LimitsTest::take);
    QVERIFY(plugin->start());
    QVERIFY(isListening(*plugin));
}

inline void LimitsTest::take(const shared_parsedData &record)
{
    const QString connection = record->getPluginSubIdKey(QStringLiteral("connection"));
    const qsizetype offset = record->getPluginSubIdKey(QStringLiteral("offset")).toLongLong();
    Stream &stream = streams[connection];
    if (const QString end = record->getPluginSubIdKey(QStringLiteral("end")); !end.isNull()) {
        stream.intact = stream.intact && stream.end.isNull() && stream.size == offset;
        stream.end = end;
        return;
    }
    const QByteArray bytes = record->getOriginalMessage();
    const qsizetype fresh = offset + bytes.size() - stream.size;
    stream.intact = stream.intact && stream.end.isNull() && offset <= stream.size
            && (fresh <= 0 || bytes.last(fresh) == Sender::part(stream.size, fresh));
    stream.size += qMax<qsizetype>(fresh, 0);
    if (fresh > 0)
        sinceFresh.start();
    stream.longest = qMax(stream.longest, bytes.size());
    ++stream.records;
    if (keeps)
        kept.push_back(record);
    if (consumes)
        input->discard(static_cast<int>(bytes.size()), record->getPluginSubId());
    else
        latest.insert(connection, {record->getDataLength(), record->getPluginSubId()});
}

inline void LimitsTest::discardAll()
{
    const auto all = std::exchange(latest, {});
    for (const auto &[length, subid] : all)
        input->discard(length, subid);
}

inline bool LimitsTest::isQuiet() const
{
    return sinceFresh.elapsed() > 1000;
}

inline qint64 LimitsTest::heldBytes() const
{
    const QString line = input->getStatus().section(QStringLiteral("Limits: "), -1);
    return line.left(line.indexOf(QLatin1Char(' '))).toLongLong();
}

} // namespace limitstest
