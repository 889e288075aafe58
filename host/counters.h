// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QSet>
#include <QtCore/QString>
#include <QtCore/QStringView>

namespace host {

/*!
    What the program has seen so far, over all its plugin objects.

    Thread: any one.
*/
class Counters
{
public:
    // Remembers a hash of 8 bytes for each id, not the id. Exact for the first million ids. Then it
    // forgets them all, and an id that comes again counts again.
    void addConnection(QStringView clientId);
    qint64 connections() const { return earlierIds + seenIds.size(); }

    // "messages N bytes B connections C": bytes are those of the messages, without framing.
    QString line() const;
    // The same, and what else an operator wants to know.
    QString longLine() const;

    qint64 messages = 0; // complete ones
    qint64 bytes = 0; // of complete messages
    qint64 partial = 0; // beginnings of messages whose end never came
    qint64 tooLong = 0; // messages that were skipped
    qint64 offers = 0;

private:
    QSet<size_t> seenIds;
    qint64 earlierIds = 0;
};

} // namespace host
