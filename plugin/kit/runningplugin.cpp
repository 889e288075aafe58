// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/kit/runningplugin.h"

#include "plugin/drain.h"
#include "plugin/iinputplugin.h"

#include <QtCore/QCoreApplication>

#include <utility>

namespace inputkit {

RunningPlugin::RunningPlugin(std::unique_ptr<IInputPlugin> made, const QJsonObject &configuration,
                             const QString &logLevel, RecordReader &reader)
    : given(configuration),
      input(std::move(made))
{
    connectPlugin(logLevel, reader);
}

RunningPlugin::~RunningPlugin()
{
    end();
}

void RunningPlugin::connectPlugin(const QString &logLevel, RecordReader &reader)
{
    QObject::connect(input.get(), &IInputPlugin::receivedData, input.get(),
                     [&reader](const shared_parsedData &record) { reader.receive(record); });
    // Direct: otherwise the answer does not reach the plugin.
    QObject::connect(
            input.get(), &IInputPlugin::query, input.get(),
            [logLevel](const QString &question) -> QList<QString> {
                return question == QLatin1String("loglevel") ? QList<QString>{logLevel}
                                                             : QList<QString>();
            },
            Qt::DirectConnection);
}

bool RunningPlugin::start()
{
    started = input->start();
    if (started)
        listensOn = ListenStatus::parse(input->getStatus());
    return listensOn.isListening();
}

bool RunningPlugin::leave(std::chrono::milliseconds spread, std::chrono::milliseconds closing)
{
    const auto highest = Drain::ask(*input, spread);
    if (!highest)
        return false;
    listensOn = {};
    last = *highest;
    deadline.setRemainingTime(spread + closing);
    return true;
}

quint64 RunningPlugin::connections() const
{
    const auto counted = counters();
    return counted ? counted->waiting + counted->open : 0;
}

void RunningPlugin::answer(int length, const QMap<QString, QString> &subId)
{
    if (input && !ending)
        input->discard(length, subId);
}

// Offers are still on their way after stop(), and the plugin hands over the last of them while it
// is destroyed. So the posted offers are delivered first: the reader needs offers in the order in
// which they were made.
void RunningPlugin::end()
{
    if (!input || std::exchange(ending, true))
        return;
    listensOn = {};
    input->stop();
    QCoreApplication::sendPostedEvents(input.get());
    input.reset(); // nobody uses the pointer any more: see answer()
}

std::optional<InputCounters> RunningPlugin::counters() const
{
    return input ? CountersEvent::countersOf(*input) : std::nullopt;
}

QString RunningPlugin::status() const
{
    return input ? input->getStatus() : QString();
}

} // namespace inputkit
