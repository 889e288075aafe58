// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "hostcheck/parser/framing.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <optional>
#include <vector>

namespace hostcheck {

/*!
    What one device sends, and where its messages end as far as that is known.

    Thread: any, a value.
*/
struct Traffic
{
    QString name; // for reports
    QByteArray bytes;
    std::optional<Framing> framing; // unknown: none
    // The end of each whole message, in order. Empty and !areEndsKnown: only the parser knows.
    std::vector<qsizetype> ends;
    bool areEndsKnown = false;
};

//! Reads traffic. error: empty unless a reader has failed.
struct TrafficReader
{
    // A file of raw bytes. framing: a text for Framing::read(), or empty. lengthsFile: a file of
    // message lengths, numbers with white space between, or empty. Not both.
    Traffic readStream(const QString &file, const QString &framing, const QString &lengthsFile);
    // A description: docs/HOSTCHECK.md says what is in it.
    Traffic readDescription(const QString &file);

    QString error;

private:
    QByteArray readFile(const QString &file);
    void describe(Traffic &traffic, const QString &line);
    void addMessages(Traffic &traffic, const QStringList &words);
    void fail(const QString &text);
};

} // namespace hostcheck
