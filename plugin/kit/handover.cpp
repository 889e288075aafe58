// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/kit/handover.h"

#include "plugin/cwrn.h"

#include <QtCore/QByteArray>
#include <QtCore/QMutex>

#include <deque>
#include <utility>
#include <vector>

namespace inputkit {
namespace {

constexpr qsizetype BatchBytes = 256 * 1024;
constexpr qint64 BytesOfItem = 512; // what an item costs beside its message, with its origin

} // namespace

//! What both threads know. Guarded by the mutex, unless it says otherwise.
struct HandOver::Shared
{
    QMutex mutex;
    QObject *context = nullptr; // null: destroyed
    HandOver *owner = nullptr; // null: destroyed
    qint64 bytes = 0; // on their way

    // Not guarded: the receiver's thread alone uses them.
    bool isGone = false; // destroyed
    std::deque<std::shared_ptr<Batch>> arrived;
    bool playing = false;
};

//! Copies of messages and ends. Its destruction says that they are not on their way any more.
class HandOver::Batch
{
public:
    explicit Batch(std::shared_ptr<Shared> common) : shared(std::move(common)) {}
    ~Batch()
    {
        const QMutexLocker locker(&shared->mutex);
        shared->bytes -= counted;
        if (counted > 0 && shared->owner)
            QMetaObject::invokeMethod(shared->owner, &HandOver::landed, Qt::QueuedConnection);
    }
    Q_DISABLE_COPY_MOVE(Batch)

    void addOrigin(const Origin &origin)
    {
        if (origins.empty() || origins.back().connection != origin.connection
            || origins.back().time != origin.time)
            origins.push_back(origin);
    }
    void add(const InputMessage &message)
    {
        items.push_back({origins.size() - 1, bytes.size(), message.bytes.size(), message.position,
                         message.end, message.partial, QString(), false});
        bytes.append(message.bytes);
        counted += message.bytes.size() + BytesOfItem;
    }
    void add(const InputEnd &end)
    {
        items.push_back(
                {origins.size() - 1, 0, 0, end.position, end.position, false, end.reason, true});
        counted += BytesOfItem;
    }
    qint64 size() const { return counted; }

    // Until a handler destroys the receiver.
    void play(const InputHandlers &functions) const
    {
        for (auto item = items.begin(); item != items.end() && !shared->isGone; ++item) {
            const Origin &origin = origins[item->origin];
            if (item->isEnd && functions.end)
                functions.end({origin, item->reason, item->end});
            else if (!item->isEnd && functions.message)
                functions.message({origin, QByteArrayView(bytes).sliced(item->begin, item->size),
                                   item->position, item->end, item->partial});
        }
    }

private:
    struct Item
    {
        std::size_t origin; // its place in origins
        qsizetype begin; // of the message, in bytes
        qsizetype size;
        quint64 position;
        quint64 end;
        bool partial;
        QString reason;
        bool isEnd;
    };

    const std::shared_ptr<Shared> shared;
    std::vector<Origin> origins;
    std::vector<Item> items;
    QByteArray bytes = QByteArray("", 0); // not null, so that no view into it is
    qint64 counted = 0;
};

HandOver::HandOver(QObject *receiver, InputHandlers functions)
    : handlers(std::make_shared<const InputHandlers>(std::move(functions))),
      shared(std::make_shared<Shared>())
{
    shared->owner = this;
    shared->context = receiver;
    // Direct: in the receiver's thread, before it is gone.
    connect(
            receiver, &QObject::destroyed, receiver,
            [common = shared] {
                const QMutexLocker locker(&common->mutex);
                common->context = nullptr;
                common->isGone = true;
            },
            Qt::DirectConnection);
}

HandOver::~HandOver()
{
    send();
    const QMutexLocker locker(&shared->mutex);
    shared->owner = nullptr;
}

HandOver::Batch &HandOver::batchFor(const Origin &origin)
{
    if (!next)
        next = std::make_unique<Batch>(shared);
    next->addOrigin(origin);
    if (!std::exchange(posted, true)) {
        QMetaObject::invokeMethod(
                this,
                [this] {
                    posted = false;
                    flush();
                },
                Qt::QueuedConnection);
    }
    return *next;
}

void HandOver::add(const InputMessage &message)
{
    batchFor(message.origin).add(message);
    if (next->size() >= BatchBytes)
        flush();
}

void HandOver::add(const InputEnd &end)
{
    batchFor(end.origin).add(end);
}

void HandOver::flush()
{
    send();
    tellFull();
}

void HandOver::send()
{
    if (!next)
        return;
    const std::shared_ptr<Batch> batch = std::move(next); // it takes the lock when it goes
    bool isGone = false;
    {
        const QMutexLocker locker(&shared->mutex);
        shared->bytes += batch->size();
        isGone = !shared->context;
        if (!isGone)
            QMetaObject::invokeMethod(
                    shared->context,
                    [functions = handlers, common = shared, batch] {
                        arrive(*functions, *common, batch);
                    },
                    Qt::QueuedConnection);
    }
    if (isGone && !std::exchange(hasWarned, true))
        CWRN(QtWarningMsg, QStringLiteral("Messages are dropped: their receiver is gone"));
}

// In the receiver's thread. A handler may run an event loop, in which the next batch comes: that
// one waits for its turn.
void HandOver::arrive(const InputHandlers &functions, Shared &common,
                      const std::shared_ptr<Batch> &batch)
{
    common.arrived.push_back(batch);
    if (std::exchange(common.playing, true))
        return;
    while (!common.arrived.empty()) {
        const std::shared_ptr<Batch> first = std::move(common.arrived.front());
        common.arrived.pop_front();
        first->play(functions);
    }
    common.playing = false;
}

void HandOver::landed()
{
    tellFull();
}

void HandOver::tellFull()
{
    qint64 bytes = 0;
    {
        const QMutexLocker locker(&shared->mutex);
        bytes = shared->bytes;
    }
    const bool now = isFull ? bytes > MostBytes / 2 : bytes > MostBytes;
    if (std::exchange(isFull, now) != now)
        Q_EMIT full(now);
}

} // namespace inputkit
