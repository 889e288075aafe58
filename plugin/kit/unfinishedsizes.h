// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/qglobal.h>

#include <set>
#include <utility>

namespace inputkit {

/*!
    How many bytes of unfinished messages there are, and which connection has the most of them.

    Thread: any one.
*/
class UnfinishedSizes
{
public:
    // The connection had so many bytes before, and has so many now.
    void change(quint64 connection, qsizetype before, qsizetype now)
    {
        if (before == now)
            return;
        sum += now - before;
        if (before > 0)
            sizes.erase({before, connection});
        if (now > 0)
            sizes.insert({now, connection});
    }

    qint64 total() const { return sum; }
    // Requires a total of more than 0.
    quint64 largest() const { return sizes.rbegin()->second; }

private:
    std::set<std::pair<qsizetype, quint64>> sizes;
    qint64 sum = 0;
};

} // namespace inputkit
