// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QString>

class QHostAddress;

namespace host {

/*!
    Whether a program of this user could listen there, without doing so: a socket is bound and
   closed again, and no connection is taken from anybody.

    Thread: any.
    Fails:  returns why, in the system's words; empty if it could.
*/
QString portRefusal(const QHostAddress &address, quint16 port);

} // namespace host
