// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/connection/acceptance.h"

#include <atomic>

Acceptance Acceptance::of(qintptr descriptor, bool stamped)
{
    static std::atomic<quint64> next = 1;
    return {Endpoints::of(descriptor), stamped ? next.fetch_add(1) : 0};
}
