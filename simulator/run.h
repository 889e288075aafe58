// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/messagesource.h"
#include "simulator/options.h"

#include <QtCore/QElapsedTimer>
#include <QtNetwork/QHostAddress>

namespace simulator {

class InputLines;
class Replay;
struct Script;
class TlsContext;

/*!
    What all devices of a run share. Set before the first device starts, and not changed later.
*/
struct Run
{
    const Options &options;
    QHostAddress peer;
    const MessageSource &messages;
    const TlsContext *tls = nullptr; // null: no TLS handshake
    const Replay *replay = nullptr; // null: the messages are made, and not from a recording
    const Script *script = nullptr; // null: there is none
    InputLines *input = nullptr; // null: standard input is not read
    QElapsedTimer clock; // all reported times count from its start
};

} // namespace simulator
