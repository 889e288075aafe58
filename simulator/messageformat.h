// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/messagesource.h"
#include "simulator/options.h"

#include <QtCore/QByteArray>

namespace simulator {

/*!
    Makes the devices' messages. A message depends only on the options, the device and the message's
    number.

    Thread: any; const after construction.
*/
class MessageFormat : public MessageSource
{
public:
    explicit MessageFormat(const Options &options);

    // Framing included.
    bool append(QByteArray &out, quint64 device, quint64 number) const override;
    qsizetype usualBytes() const override; // messages with very long numbers are longer

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
