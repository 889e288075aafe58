// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/linesource.h"
#include "simulator/options.h"

#include <QtCore/QByteArrayList>
#include <QtCore/QString>

#include <optional>

class QIODevice;

namespace simulator {

// The payload that a line stands for. Nothing, and what is wrong in the error, if it cannot be
// read.
std::optional<QByteArray> payloadOf(QByteArrayView line, MessageSyntax syntax, QString &error);

/*!
    The payloads of a file. Behind the last one the first one comes again.

    The file is in memory as a whole.

    Thread: any once it is loaded.
*/
class FileLines : public LineSource
{
public:
    // False if the file cannot be read, or has no message: see errorString(). framing: each payload
    // must fit it; null: that does not matter.
    bool load(QIODevice &file, const QString &name, MessageSyntax syntax, const Framing *framing);
    QString errorString() const { return error; }

    quint64 count() const { return static_cast<quint64>(payloads.size()); }
    QByteArray line(quint64 number) const override;

private:
    bool add(QByteArrayView text, MessageSyntax syntax, const Framing *framing);

    QByteArrayList payloads;
    QString error;
};

} // namespace simulator
