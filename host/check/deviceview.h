// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/certificates.h"

#include <QtCore/QStringList>

/*!
    What devices make of a server's certificate.

    Thread: any; no shared state.
*/
namespace host {

// What a device says that trusts the system's CAs and looks at no name, in OpenSSL's words. list:
// the server's certificate first, then what is sent along.
QString verdictOf(const std::vector<certificates::Certificate> &list);

// Whether it has begun, and has not expired.
bool isValidNow(const certificates::Certificate &certificate);

// The DNS names and addresses for which devices that check names accept it.
QStringList serverNamesOf(const certificates::Certificate &certificate);

} // namespace host
