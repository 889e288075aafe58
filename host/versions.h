// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QLatin1String>

#include <openssl/crypto.h>

namespace host {

// OpenSSL's, as it runs. Thread: any; unlike Qt's function for it, this sets up nothing in OpenSSL
// that the thread would have to free at its end.
inline QLatin1String opensslVersion()
{
    return QLatin1String(OpenSSL_version(OPENSSL_VERSION));
}

} // namespace host
