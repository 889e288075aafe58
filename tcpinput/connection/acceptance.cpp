// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/connection/acceptance.h"

#include <atomic>

Acceptance Acceptance::of(qintptr descriptor, const Serving &serving)
{
    static std::atomic<quint64> next = 1;
    return {Endpoints::of(descriptor), serving.offsets ? next.fetch_add(1) : 0, serving};
}
