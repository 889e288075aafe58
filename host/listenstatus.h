// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QString>

namespace host {

/*!
    Where the plugin listens, read from its status text.

    Its start() does not tell whether listening succeeded: where the port is in use it is true all
    the same. The first line of the status text tells: "Listen: 0.0.0.0:7446, timeout: 60s, pool
    size: 4", or "Listen: :0, ..." if nothing listens.
*/
struct ListenStatus
{
    QString address;
    int port = 0; // 0: nothing listens
    qint64 timeoutSeconds = 0;

    bool isListening() const { return port > 0; }

    // Not listening, if the text is of another form.
    static ListenStatus parse(const QString &statusText);
};

} // namespace host
