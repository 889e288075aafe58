// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/tcpinput/connectedclient.h"

#include <QtCore/QRegularExpression>
#include <QtTest/QTest>

namespace readingtest {

inline constexpr qint64 HourMs = 60 * 60 * 1000;

inline QByteArray bytes(int size)
{
    QByteArray result(size, '.');
    for (int i = 0; i < size; ++i)
        result[i] = char('a' + i % 26);
    return result;
}

// Qt's warning of the surplus argument comes first; its punctuation differs between versions.
inline QStringList kickLines(int size)
{
    return {QStringLiteral("w: surplus %1").arg(size),
            QStringLiteral("I: TcpClient: inbuf parsing stopped, kicking")};
}

inline QStringList takeKick()
{
    static const QRegularExpression surplus(
            QStringLiteral("^w: QString::arg: Argument missing: "
                           "\"?TcpClient: inbuf parsing stopped, kicking\"? ?, (\\d+)$"));
    QStringList lines = EventLog::take();
    lines.replaceInStrings(surplus, QStringLiteral("w: surplus \\1"));
    return lines;
}

inline QString offerLine(int size, const ConnectedClient &connection)
{
    return QStringLiteral("offer of %1 bytes by %2").arg(size).arg(connection.derivedId());
}

inline void check(TcpClient2 &client)
{
    QVERIFY(QMetaObject::invokeMethod(&client, "checkData"));
}

} // namespace readingtest
