// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/iinputplugin.h"

#include <QtCore/QByteArray>
#include <QtCore/QHash>

// "<stream> <number>\n": numbers begin at 0 and never repeat. Each connection has its stream.
inline QByteArray numberedMessage(int stream, int number)
{
    return QByteArray::number(stream) + ' ' + QByteArray::number(number) + '\n';
}

/*!
    A host that frames numbered messages and discards each once. An offer that was made before a cut
    repeats messages; the host recognises them by their numbers.
*/
class NumberedHost
{
public:
    // Discards the new messages of the offer at once.
    void receive(IInputPlugin &plugin, const shared_parsedData &record)
    {
        const QByteArray buffer = record->getOriginalMessage();
        qsizetype begin = 0;
        qsizetype fresh = 0;
        for (qsizetype end = 0; (end = buffer.indexOf('\n', begin)) >= 0; begin = end + 1) {
            if (take(buffer.mid(begin, end - begin)))
                fresh += end + 1 - begin;
        }
        if (fresh > 0)
            plugin.discard(static_cast<int>(fresh), record->getPluginSubId());
    }

    qsizetype received() const { return receivedCount; }
    qsizetype missing() const { return missingCount; } // skipped over, or mangled
    qsizetype repeated() const { return repeatedCount; }

private:
    bool take(const QByteArray &message)
    {
        const qsizetype blank = message.indexOf(' ');
        bool streamValid = false;
        bool numberValid = false;
        const int stream = message.left(blank).toInt(&streamValid);
        const int number = message.mid(blank + 1).toInt(&numberValid);
        if (blank < 0 || !streamValid || !numberValid) {
            ++missingCount;
            return true;
        }
        int &next = expected[stream];
        if (number < next) {
            ++repeatedCount;
            return false;
        }
        missingCount += number - next;
        next = number + 1;
        ++receivedCount;
        return true;
    }

    QHash<int, int> expected; // next number by stream
    qsizetype receivedCount = 0;
    qsizetype missingCount = 0;
    qsizetype repeatedCount = 0;
};
