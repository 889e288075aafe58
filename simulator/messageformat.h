// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/options.h"

#include <QtCore/QByteArray>

namespace simulator {

/*!
    Makes the devices' messages. A message depends only on the options, the device and the message's
    number.

    Thread: any; const after construction.
*/
class MessageFormat
{
public:
    explicit MessageFormat(const Options &options);

    // Appends the message as it goes over the wire, framing included. number: from 1.
    void append(QByteArray &out, quint64 device, quint64 number) const;

    // The size of a usual message, framing included. Messages with very long numbers are longer.
    qsizetype usualBytes() const;

private:
    QByteArray payload(quint64 device, quint64 number) const;
    QByteArray garbage(quint64 device, quint64 number) const;

    const Framing framing;
    const int size;
    const bool isGarbage;
    const quint32 seed;
    const QByteArray letters; // the padding is a part of these
};

} // namespace simulator
