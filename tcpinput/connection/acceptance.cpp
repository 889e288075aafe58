// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/connection/acceptance.h"

#include <atomic>

namespace {

std::atomic<quint64> nextOne = 1; // of the process

} // namespace

Acceptance Acceptance::of(qintptr descriptor, const Serving &serving)
{
    return {Endpoints::of(descriptor), serving.offsets ? nextNumber() : 0, serving};
}

quint64 Acceptance::nextNumber()
{
    return nextOne.fetch_add(1);
}

quint64 Acceptance::latestNumber()
{
    return nextOne.load() - 1;
}
