// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/messagesource.h"
#include "simulator/options.h"

namespace simulator {

class LineSource;

/*!
    Messages of a file, of standard input or of a template.

    Thread: the main thread; const after construction.
*/
class ComposedMessages : public MessageSource
{
public:
    // options: with a template, if there are no lines. lines: null if there are none.
    ComposedMessages(const Options &given, const LineSource *lineSource);

    bool append(QByteArray &out, quint64 device, quint64 number) const override;
    qsizetype usualBytes() const override;

private:
    QByteArray payload(quint64 device, quint64 number) const;

    const Options &options;
    const LineSource *const lines;
};

} // namespace simulator
