// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QString>

namespace inputkit {

/*!
    Where the plugin listens, read from its status text.

    start() does not tell whether listening succeeded: it returns true even if the port is in use.
    The first line of the status text tells: "Listen: 0.0.0.0:7446, timeout: 60s, pool size: 4", or
    "Listen: :0, ..." if nothing listens.
*/
struct ListenStatus
{
    QString address;
    int port = 0; // 0: nothing listens
    qint64 timeoutSeconds = 0;

    bool isListening() const { return port > 0; }

    // If the text has another form, the result is: not listening.
    static ListenStatus parse(const QString &statusText);
};

} // namespace inputkit
