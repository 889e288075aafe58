// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>

namespace simulator {

/*!
    Payloads that are given from outside, line by line.

    Thread: the main thread.
*/
class LineSource
{
public:
    LineSource() = default;
    virtual ~LineSource() = default;
    Q_DISABLE_COPY_MOVE(LineSource)

    // The payload of the device's message of that number, from 1.
    virtual QByteArray line(quint64 number) const = 0;
};

} // namespace simulator
