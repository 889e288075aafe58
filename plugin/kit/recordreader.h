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

    // Whether records of two plugins can be read at a time: of one with the running configuration,
    // which leaves, and of its successor. That takes "offsets" and "ends" in both, so that each
    // record says whose it is. If not, a reload ends the old plugin first. Default: not.
    virtual bool readsBoth(const QJsonObject & /*running*/, const QJsonObject & /*next*/) const
    {
        return false;
    }

    // A plugin with this configuration will be made. There is no other one, unless readsBoth() has
    // said that there may be: that one may also go on alone, if the new one does not start.
    virtual void begin(const QJsonObject & /*configuration*/) {}

    virtual void receive(const shared_parsedData &record) = 0;
    // A record is being read. Then plugins are neither started nor stopped.
    virtual bool isReading() const = 0;

    // False: the plugin is being stopped. The records that still come are to be read, and not
    // answered.
    virtual void setAnswering(bool enable) = 0;
    // The plugin is gone. Reads all records that wait, and forgets all connections.
    virtual void forgetAll() = 0;
    // The same for one of two plugins: the other one's connections have higher numbers. Called only
    // if readsBoth() has said yes.
    virtual void forgetUpTo(quint64 /*connection*/) {}
};

} // namespace inputkit
