// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/countersevent.h"
#include "plugin/kit/listenstatus.h"
#include "plugin/kit/recordreader.h"

#include <QtCore/QDeadlineTimer>
#include <QtCore/QJsonObject>
#include <QtCore/QMap>
#include <QtCore/QString>

#include <chrono>
#include <memory>
#include <optional>

class IInputPlugin;

namespace inputkit {

/*!
    One plugin of a PluginRunner, from its making to its end. It listens; then it may leave: it
    accepts nothing more, and serves its connections until their devices have closed them.

    Thread: its creator's.
    Owner:  the runner.
*/
class RunningPlugin
{
public:
    // made: not started; its records go to the reader from now on. logLevel: what it is told that
    // is.
    RunningPlugin(std::unique_ptr<IInputPlugin> made, const QJsonObject &given,
                  const QString &logLevel, RecordReader &reader);
    ~RunningPlugin();
    Q_DISABLE_COPY_MOVE(RunningPlugin)

    // Until it has ended.
    IInputPlugin &plugin() { return *input; }
    bool hasEnded() const { return !input; }
    const QJsonObject &configuration() const { return given; }
    // Where it listens.
    const ListenStatus &listens() const { return listensOn; }

    // False: it refuses, or does not listen: see hasStarted().
    bool start();
    bool hasStarted() const { return started; }

    // Its devices are told within the first time, and have the second one to close. False: the
    // plugin does not know how, and goes on.
    bool leave(std::chrono::milliseconds spread, std::chrono::milliseconds closing);
    // Connections that are left.
    quint64 connections() const;
    bool isLate() const { return deadline.hasExpired(); }
    // None of its connections has a higher number. Only of one that leaves.
    quint64 lastConnection() const { return last; }

    // Once it has ended, nothing.
    void answer(int length, const QMap<QString, QString> &subId);

    // Ends all connections and deletes the plugin. The reader gets its last records before this
    // returns.
    void end();

    // Nothing, or empty: it has ended.
    std::optional<InputCounters> counters() const;
    QString status() const;

private:
    void connectPlugin(const QString &logLevel, RecordReader &reader);

    const QJsonObject given;
    std::unique_ptr<IInputPlugin> input; // null: it has ended
    bool ending = false;
    bool started = false;
    ListenStatus listensOn;
    quint64 last = 0;
    QDeadlineTimer deadline{QDeadlineTimer::Forever};
};

} // namespace inputkit
