// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QDateTime>

/*!
    The local time to the second; a record shows no more. The conversion takes the C library's time
    zone lock, which all threads of the process share, and more time than the rest of a record. So
    it is done once a second.

    Thread: one.
*/
class LocalSecond
{
public:
    const QDateTime &now() { return at(QDateTime::currentSecsSinceEpoch()); }

    const QDateTime &at(qint64 secondsSinceEpoch)
    {
        if (time.isNull() || secondsSinceEpoch != second)
            time = QDateTime::fromSecsSinceEpoch(secondsSinceEpoch);
        second = secondsSinceEpoch;
        return time;
    }

private:
    qint64 second = 0;
    QDateTime time;
};
