// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// What an event on one socket costs while others of the same thread are idle.

#include "benchmarks/eventthread.h"

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QCoreApplication>
#include <QtCore/QSocketNotifier>

#include <benchmark/benchmark.h>

#include <vector>

#include <sys/eventfd.h>
#include <unistd.h>

namespace {

//! A descriptor that becomes readable when told to, and a notifier for it.
class Source
{
public:
    Source()
    {
        QObject::connect(&notifier, &QSocketNotifier::activated, [this] {
            eventfd_t value = 0;
            eventfd_read(fd, &value);
            ++events;
        });
    }
    ~Source()
    {
        notifier.setEnabled(false);
        close(fd);
    }
    Q_DISABLE_COPY_MOVE(Source)

    void trigger() { eventfd_write(fd, 1); }

    int events = 0;

private:
    const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    QSocketNotifier notifier{fd, QSocketNotifier::Read};
};

void socketEvent(benchmark::State &state)
{
    const auto kind = static_cast<DispatcherKind>(state.range(0));
    state.SetLabel(dispatcherName(kind));
    runInEventThread(kind, [&state] {
        std::vector<std::unique_ptr<Source>> idle;
        for (int64_t i = 0; i < state.range(1); ++i)
            idle.push_back(std::make_unique<Source>());
        Source active;
        QAbstractEventDispatcher *dispatcher = QAbstractEventDispatcher::instance();
        for ([[maybe_unused]] auto turn : state) {
            const int before = active.events;
            active.trigger();
            while (active.events == before)
                dispatcher->processEvents(QEventLoop::AllEvents);
        }
    });
}

} // namespace

BENCHMARK(socketEvent)
        ->ArgNames({"dispatcher", "idle"})
        ->ArgsProduct({{Ours, Qts}, {10, 100, 1000, 10000}});

int main(int argc, char **argv)
{
    const QCoreApplication application(argc, argv); // without it Qt sends no event
    raiseDescriptorLimit();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
}
