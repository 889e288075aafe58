// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/limits/bufferbudget.h"

#include <memory>

//! How connections are served, where the configuration asks for more than the contract gives.
struct Serving
{
    //! Which connections tell their end to the host.
    enum class Ends { None, WithRecords, All };

    bool offsets = false; // offers carry their positions
    bool prompt = false; // no byte waits longer than the interval between offers
    Ends ends = Ends::None;
    std::shared_ptr<BufferBudget> budget; // null: buffers are not limited
};
