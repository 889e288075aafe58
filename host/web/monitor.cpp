// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/web/monitor.h"

#include "host/web/health.h"
#include "host/web/metricsfile.h"
#ifdef HOST_HAS_HTTP
#include "host/web/webthread.h"
#endif

#include <utility>

namespace host {

#ifdef HOST_HAS_HTTP
bool Monitor::startWeb()
{
    web = std::make_unique<WebThread>(bulletin);
    if (web->start(*options.http))
        return true;
    error = web->errorString();
    return false;
}
#else
class WebThread
{};

// The command line refuses what needs it.
bool Monitor::startWeb()
{
    return false;
}
#endif

Monitor::Monitor(MonitorOptions given, std::function<Snapshot()> describeNow)
    : options(std::move(given)),
      describe(std::move(describeNow)),
      bulletin([this] {
          QMetaObject::invokeMethod(this, &Monitor::publishRows, Qt::QueuedConnection);
      })
{
    fileThread.setObjectName(QStringLiteral("metrics"));
    connect(&timer, &QTimer::timeout, this, &Monitor::publish);
}

Monitor::~Monitor()
{
    web.reset(); // its thread uses the bulletin
    if (file)
        QMetaObject::invokeMethod(
                file.get(), [this] { file.reset(); }, Qt::BlockingQueuedConnection);
    fileThread.quit();
    fileThread.wait();
}

bool Monitor::start()
{
    publish();
    timer.start(SnapshotInterval);
    return (!options.http || startWeb()) && (options.metricsFile.isEmpty() || startFile());
}

void Monitor::publish()
{
    Snapshot snapshot = describe();
    snapshot.taken = std::chrono::steady_clock::now();
    Q_EMIT published(snapshot);
    bulletin.publish(std::move(snapshot));
}

inputkit::TrafficObserver *Monitor::observer(bool acknowledged)
{
    table.setAcknowledged(acknowledged);
    return options.http ? &table : nullptr;
}

void Monitor::publishRows()
{
    bulletin.publish(table.rows());
}

bool Monitor::startFile()
{
    file = std::make_unique<MetricsFile>(bulletin, options.metricsFile);
    file->moveToThread(&fileThread);
    fileThread.start();
    bool works = false;
    const auto begin = [&] { works = file->start(); };
    QMetaObject::invokeMethod(file.get(), begin, Qt::BlockingQueuedConnection);
    if (!works)
        error = file->errorString();
    return works;
}

} // namespace host
