// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/kit/offerconsumer.h"

#include <QtCore/QByteArrayView>
#include <QtCore/QString>

#include <functional>

namespace inputkit {

//! A message that a device has sent. Valid while its handler runs; what is to be kept is copied.
struct InputMessage
{
    const Origin &origin;
    QByteArrayView bytes; // without framing; not null if empty
    quint64 position = 0; // how many bytes of the connection lie before it
    quint64 end = 0; // before the first byte behind it; for InputSession::acknowledge()
    // The beginning of a message: the connection has ended in it, or it took too much memory.
    bool partial = false;
};

//! The end of a connection, behind all its messages. Valid while its handler runs.
struct InputEnd
{
    const Origin &origin;
    QString reason; // as subids::end()
    quint64 position = 0; // behind the connection's last byte
};

//! What a host does with what it is handed. A function that is not set is not called.
struct InputHandlers
{
    std::function<void(const InputMessage &)> message;
    std::function<void(const InputEnd &)> end;
};

} // namespace inputkit
