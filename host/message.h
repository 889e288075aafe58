// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/kit/offerconsumer.h"

#include <QtCore/QByteArrayView>

namespace host {

using inputkit::Origin;

//! One message to be written. It does not own the bytes, so it must not be kept.
struct Message
{
    QByteArrayView head; // as Output::headOf() made it for the origin
    QByteArrayView bytes; // without framing
    bool partial = false; // the beginning of a message whose end never came
};

} // namespace host
