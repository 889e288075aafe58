// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

// How long a test waits before it says that something hangs: guards, which no test reaches.

// For one thing to happen.
inline constexpr int HangGuardMs = 60000;

// For a load of thousands of connections or messages, also with sanitizers on a busy machine.
inline constexpr int LoadHangGuardMs = 300000;
