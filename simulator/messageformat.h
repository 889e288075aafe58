// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/options.h"

#include <QtCore/QByteArray>

namespace simulator {

/*!
    What the devices say: every message is a function of the options, the device and its number.

    Thread: any; const after construction.
*/
class MessageFormat
{
public:
    explicit MessageFormat(const Options &options);

    // Appends the message as it goes over the wire, framing included. number: from 1.
    void append(QByteArray &out, quint64 device, quint64 number) const;

    // Of a usual message, framing included: those with very long numbers are longer.
    qsizetype usualBytes() const;

private:
    QByteArray payload(quint64 device, quint64 number) const;
    QByteArray garbage(quint64 device, quint64 number) const;

    const Framing framing;
    const int size;
    const bool isGarbage;
    const quint32 seed;
    const QByteArray letters; // padding is cut out of these
};

} // namespace simulator
