// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/connection/acceptance.h"

#include <atomic>

Acceptance Acceptance::of(qintptr descriptor, const Serving &serving)
{
    return {Endpoints::of(descriptor), serving.offsets ? nextNumber() : 0, serving};
}

quint64 Acceptance::nextNumber()
{
    static std::atomic<quint64> next = 1;
    return next.fetch_add(1);
}
