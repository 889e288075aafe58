// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/kit/listenstatus.h"

#include <QtCore/QRegularExpression>

namespace inputkit {

ListenStatus ListenStatus::parse(const QString &statusText)
{
    // The address may hold colons: the port follows the last one.
    static const QRegularExpression pattern(
            QStringLiteral("^Listen: ([^,\r\n]*):(\\d+), timeout: (\\d+)s"));
    const QRegularExpressionMatch match = pattern.match(statusText);
    return {match.captured(1), match.captured(2).toInt(), match.captured(3).toLongLong()};
}

} // namespace inputkit
