// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/kit/offerconsumer.h"
#include "recording/entry.h"

namespace inputkit {

// Both ends of the connection. The local one is a part of the source; empty if that has another
// form than the plugin's.
recording::Endpoints endpointsOf(const Origin &origin);

} // namespace inputkit
