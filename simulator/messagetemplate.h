// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/numberform.h"

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>

#include <optional>

namespace simulator {

struct Checksum;
class RandomSource;

//! What the placeholders of one message stand for.
struct MessageValues
{
    quint64 device = 0; // from 1
    quint64 number = 0; // of the device's message, from 1
    qint64 nowMs = 0; // since 1970
    quint32 seed = 0; // for {random}
    QByteArray line; // of a file or of standard input
};

/*!
    A payload with placeholders. docs/DEVICESIM.md says which there are.

    Thread: any, a value.
*/
class MessageTemplate
{
public:
    // text: UTF-8, with escapes. Nothing, and what is wrong in the error, if it cannot be read.
    static std::optional<MessageTemplate> read(const QByteArray &text, QString &error);

    // Whether {line} is in it.
    bool hasLine() const;
    // Whether anything but text is in it.
    bool hasPlaceholders() const;

    QByteArray payload(const MessageValues &values) const;

private:
    friend class TemplateReader;

    struct Part
    {
        enum Kind {
            Text,
            Line,
            Device,
            Number,
            Time,
            Seconds,
            Milliseconds,
            Random,
            Letters,
            Begin, // of what a check sum is made of
            End,
            Sum,
        };

        Kind kind = Text;
        QByteArray text = {};
        NumberForm form = {};
        QString timeFormat = {};
        qint64 least = 0; // Random; Letters: how many
        qint64 most = 0; // Random
        const Checksum *checksum = nullptr;
    };

    void append(QByteArray &out, const Part &part, const MessageValues &values,
                std::optional<RandomSource> &random) const;

    QList<Part> parts;
};

} // namespace simulator
