// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/accept/handshakethreads.h"

#include "tcpinput/workers/workerthread.h"

#include <utility>

//! A handshaker and its thread.
struct HandshakeThreads::Place
{
    Place() = default;
    Place(Place &&) = default;
    Place &operator=(Place &&) = default;
    ~Place()
    {
        if (thread)
            handshaker.release()->deleteLater(); // by the thread, before it ends
    }
    Q_DISABLE_COPY(Place)

    std::unique_ptr<WorkerThread> thread; // null: it is in the server's
    std::unique_ptr<Handshaker> handshaker;
};

HandshakeThreads::HandshakeThreads(Taker taker) : take(std::move(taker)) {}

HandshakeThreads::~HandshakeThreads()
{
    drop();
}

void HandshakeThreads::begin(Descriptor descriptor, Acceptance acceptance,
                             std::shared_ptr<const tls::Context> context, int timeoutMs)
{
    struct Start
    {
        Descriptor descriptor;
        Acceptance acceptance;
    };
    Handshaker *const handshaker = &next();
    ++opened;
    const Handshaker::Terms terms{std::move(context), timeoutMs,
                                  std::max(1, mostOpen / std::max(1, size))};
    // Shared: Qt copies what it posts. If the thread ends before, the descriptor is closed.
    const auto start = std::make_shared<Start>(Start{std::move(descriptor), std::move(acceptance)});
    QMetaObject::invokeMethod(
            handshaker,
            [handshaker, start, terms] {
                handshaker->begin(std::move(start->descriptor), std::move(start->acceptance),
                                  terms);
            },
            Qt::QueuedConnection);
}

Handshaker &HandshakeThreads::next()
{
    latest = (latest + 1) % static_cast<std::size_t>(size);
    if (latest < places.size())
        return *places[latest].handshaker;

    auto thread = WorkerThread::make();
    if (thread)
        thread->start();
    if (thread && thread->isRunning()) { // the system has not refused it
        latest = places.size();
        places.push_back(makePlace(std::move(thread)));
        return *places.back().handshaker;
    }
    latest = 0;
    if (!places.empty())
        return *places.front().handshaker;
    if (!withoutThread)
        withoutThread = std::make_unique<Place>(makePlace(nullptr));
    return *withoutThread->handshaker;
}

// thread: null for the server's.
HandshakeThreads::Place HandshakeThreads::makePlace(std::unique_ptr<WorkerThread> thread)
{
    Place place;
    place.handshaker = std::make_unique<Handshaker>([this,
                                                     begun = generation](HandshakeResult result) {
        const auto shared = std::make_shared<HandshakeResult>(std::move(result));
        QMetaObject::invokeMethod(
                this, [this, begun, shared] { report(begun, *shared); }, Qt::QueuedConnection);
    });
    if (thread)
        place.handshaker->moveToThread(thread.get());
    place.thread = std::move(thread);
    return place;
}

// The last that its caller does: the taker may delete this.
void HandshakeThreads::report(quint64 begun, HandshakeResult &result)
{
    if (begun != generation)
        return;
    --opened;
    take(result);
}

void HandshakeThreads::drop()
{
    ++generation;
    opened = 0;
    withoutThread.reset();
    places.clear(); // waits for each thread
}
