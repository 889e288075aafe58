// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/messageformat.h"
#include "simulator/options.h"

#include <QtCore/QElapsedTimer>
#include <QtNetwork/QHostAddress>

namespace simulator {

class TlsContext;

/*!
    What all devices of a run share. Set before the first one starts and not changed then.
*/
struct Run
{
    const Options &options;
    QHostAddress peer;
    const MessageFormat &format;
    const TlsContext *tls = nullptr; // null: no handshake is to be done
    QElapsedTimer clock; // all times reported are since its start
};

} // namespace simulator
