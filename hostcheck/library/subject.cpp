// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "hostcheck/library/subject.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QElapsedTimer>
#include <QtCore/QTimer>
#include <QtNetwork/QTcpServer>

#include <unistd.h>

namespace hostcheck {
namespace {

constexpr int LookMs = 2; // how often a condition is looked at, besides after events

QHostAddress addressOfProcess()
{
    const auto pid = static_cast<quint32>(getpid());
    return QHostAddress((127U << 24U) | ((128U + ((pid >> 16U) & 63U)) << 16U) | (pid & 0xffffU));
}

} // namespace

Subject::Subject(const QString &file, int timeLimitMs)
    : library(file),
      guardMs(timeLimitMs),
      ownAddress(addressOfProcess())
{
    require(library.load(), library.errorString());
}

Subject::~Subject()
{
    destroy(); // its last records still find the members
}

CreatePluginFunction Subject::create()
{
    const auto createPlugin = reinterpret_cast<CreatePluginFunction>(library.resolve("create"));
    require(createPlugin, QStringLiteral("no entry point create"));
    return createPlugin;
}

RegisterPluginFunction Subject::registration()
{
    const auto registerPlugin =
            reinterpret_cast<RegisterPluginFunction>(library.resolve("registerPlugin"));
    require(registerPlugin, QStringLiteral("no entry point registerPlugin"));
    return registerPlugin;
}

quint16 Subject::freePort(const QHostAddress &address)
{
    QTcpServer probe;
    require(probe.listen(address), QStringLiteral("no free port on ") + address.toString());
    return probe.serverPort();
}

IInputPlugin &Subject::make(const QJsonObject &more)
{
    listenPort = freePort(ownAddress);
    QJsonObject config{{QStringLiteral("ipAddr"), ownAddress.toString()},
                       {QStringLiteral("port"), listenPort}};
    for (auto entry = more.begin(); entry != more.end(); ++entry)
        config.insert(entry.key(), entry.value());
    made.reset(create()(nullptr, config));
    require(made != nullptr, QStringLiteral("create() returned null"));
    made->pluginId = QStringLiteral("checked");
    connect(made.get(), &IInputPlugin::receivedData, this, &Subject::keep);
    connect(made.get(), &IInputPlugin::query, this, &Subject::reply, Qt::DirectConnection);
    return *made;
}

IInputPlugin &Subject::start(const QJsonObject &more)
{
    make(more);
    require(made->start(), QStringLiteral("start() returned false"));
    const QString status = made->getStatus();
    require(!status.startsWith(QLatin1String("Listen: :0,")),
            QStringLiteral("does not listen: ") + status.trimmed());
    return *made;
}

void Subject::destroy()
{
    IInputPlugin *plugin = made.release(); // records come while it is deleted
    delete plugin;
}

QList<shared_parsedData> Subject::recordsOf(const Device &device) const
{
    QList<shared_parsedData> result;
    for (const shared_parsedData &record : received) {
        if (record->getPeerPort() == device.port())
            result += record;
    }
    return result;
}

QByteArrayList Subject::offersOf(const Device &device) const
{
    QByteArrayList result;
    for (const shared_parsedData &record : recordsOf(device))
        result += record->getOriginalMessage();
    return result;
}

shared_parsedData Subject::waitForRecord(const Device &device, qsizetype count)
{
    waitFor([&] { return recordsOf(device).size() >= count; },
            QStringLiteral("record %1 of a device did not come").arg(count));
    return recordsOf(device).at(count - 1);
}

void Subject::discard(const shared_parsedData &record, int length)
{
    made->discard(length, record->getPluginSubId());
}

void Subject::waitFor(const std::function<bool()> &isTrue, const QString &text)
{
    QTimer look; // wakes the loop up
    look.start(LookMs);
    QElapsedTimer clock;
    clock.start();
    while (!isTrue()) {
        require(clock.elapsed() < guardMs, text);
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
}

void Subject::pause(int milliseconds)
{
    QElapsedTimer clock;
    clock.start();
    waitFor([&] { return clock.elapsed() >= milliseconds; }, QString());
}

void Subject::keep(const shared_parsedData &record)
{
    received += record;
}

QStringList Subject::reply(const QString &query)
{
    asked += query;
    return answer;
}

} // namespace hostcheck
