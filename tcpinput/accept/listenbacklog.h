// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

// Length of the kernel's accept queue: a burst of 2,000 devices fits in. A device whose SYN finds
// the queue full waits a second or more for its retransmission. The kernel limits the length to
// net.core.somaxconn.
constexpr int ListenBacklog = 4096;
