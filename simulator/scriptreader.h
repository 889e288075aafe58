// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/framing.h"
#include "simulator/script.h"

#include <QtCore/QList>
#include <QtCore/QString>

#include <optional>

class QIODevice;

namespace simulator {

/*!
    Reads a script, a step a line.

    Thread: any. For one call of read().
*/
class ScriptReader
{
public:
    // sendFraming: texts of send without placeholders have to fit it.
    explicit ScriptReader(const Framing &sendFraming) : framing(sendFraming) {}

    // Nothing, and the file's name, the line and what is wrong in errorString(), if it cannot be
    // read.
    std::optional<Script> read(QIODevice &file, const QString &name);
    QString errorString() const { return error; }

private:
    bool take(const QByteArray &text);
    bool takeSend(const QByteArray &text, bool isFramed);
    bool takePause(const QString &time);
    bool takeRepeat(const QString &count);
    bool takeEnd(const QString &rest);
    bool takeClosing(Script::Step::Kind kind, const QString &rest);
    bool takeWaiting(Script::Step::Kind kind, const QString &time);
    bool isBehindHalfClose() const;
    bool fail(const QString &text);

    const Framing framing;
    Script script;
    QList<qsizetype> open; // indexes of the repeats that have no end yet
    QList<int> openLines;
    int line = 0;
    QString error;
};

} // namespace simulator
