// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

// Connections that the kernel keeps ready for accept(): a burst of 2,000 devices fits in. With
// less, a device whose SYN finds the queue full waits a second and more for its retransmission.
// The kernel caps it at net.core.somaxconn.
constexpr int ListenBacklog = 4096;
