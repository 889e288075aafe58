// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>

namespace simulator {

/*!
    What devices say: numbered messages.

    Thread: any; const after construction.
*/
class MessageSource
{
public:
    MessageSource() = default;
    virtual ~MessageSource() = default;
    Q_DISABLE_COPY_MOVE(MessageSource)

    // Appends the message as it goes over the wire. device, number: from 1. False if it does not
    // fit its framing: then nothing is appended.
    virtual bool append(QByteArray &out, quint64 device, quint64 number) const = 0;

    // The size of a usual message; at least 1.
    virtual qsizetype usualBytes() const = 0;
};

} // namespace simulator
