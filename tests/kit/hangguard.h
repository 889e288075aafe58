// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

// How long a test waits before it fails because something hangs. A good run never waits so long.

// For a single event.
inline constexpr int HangGuardMs = 60000;

// For a load of thousands of connections or messages, also with sanitizers on a busy machine.
inline constexpr int LoadHangGuardMs = 300000;
