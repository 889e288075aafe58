// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/sinks/sink.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <vector>

namespace host {

/*!
    The subject of each message: a text with placeholders, such as dev.{peer}.{connection}.

    What replaces a placeholder is one word of the subject, or a part of one: its dots, blanks,
    wildcards and control characters are percent-encoded.

    Thread: any, once it was read.
*/
class SubjectTemplate
{
public:
    // {connection}, {peer}, {port}, {source}, {client}, {plugin}, {epoch} or {stream}. Returns what
    // is wrong with the text; empty: nothing.
    QString read(const QString &text, const QString &stream, const QByteArray &thisEpoch);

    QByteArray subjectOf(const Origin &origin) const;
    // What matches all of these subjects: words with a placeholder are wildcards.
    QString pattern() const;

private:
    enum class Field { None, Connection, Peer, Port, Source, Client, Plugin, Epoch };

    struct Part
    {
        QByteArray text; // before the field
        Field field = Field::None;
    };

    bool addPlaceholder(const QString &name, const QString &stream);
    QByteArray &tail();
    QByteArray valueOf(Field field, const Origin &origin) const;

    std::vector<Part> parts;
    QByteArray epoch;
};

// One word of a subject that stands for the text.
QByteArray subjectWord(const QString &text);

} // namespace host
