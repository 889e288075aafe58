// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/parseddata.h"

#include <QtCore/QJsonObject>
#include <QtCore/QString>

namespace inputkit {

/*!
    What a PluginRunner's plugin hands its records to.

    Thread: the runner's.
    Owner:  the caller; it outlives the runner.
*/
class RecordReader
{
public:
    RecordReader() = default;
    virtual ~RecordReader() = default;
    Q_DISABLE_COPY_MOVE(RecordReader)

    // Why records of a plugin with this configuration cannot be read. Empty: they can.
    virtual QString refusal(const QJsonObject & /*configuration*/) const { return {}; }

    // A plugin with this configuration will be made. There is no other one.
    virtual void begin(const QJsonObject & /*configuration*/) {}

    virtual void receive(const shared_parsedData &record) = 0;
    // A record is being read. Then plugins are neither started nor stopped.
    virtual bool isReading() const = 0;

    // False: the plugin is being stopped. The records that still come are to be read, and not
    // answered.
    virtual void setAnswering(bool enable) = 0;
    // The plugin is gone. Reads all records that wait, and forgets all connections.
    virtual void forgetAll() = 0;
};

} // namespace inputkit
