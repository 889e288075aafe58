// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

namespace host {

//! What a program that serves many connections asks of the system, once, at its start.

// Every connection takes a descriptor, and the usual soft limit of 1,024 is soon reached: raises it
// to the hard limit. The program must not use select().
void raiseDescriptorLimit();

// Writing to a closed pipe then fails instead of ending the program.
void ignoreBrokenPipes();

// A standard stream that was closed by the caller: keeps its number from a socket or pipe, which
// would get what is written to that stream. Writing to standard output still fails.
void occupyStandardDescriptors();

// Keeps the local time zone that the process has started with, unless TZ names one: the C library
// looks for a changed one at every conversion otherwise, and each record needs one. Before threads.
void settleTimeZone();

// Large blocks of memory go back to the system when they are freed. The C library keeps them
// otherwise, once it has seen some: after a burst the process would stay as large as it was then.
// Before threads.
void settleMemory();

// Texts are in UTF-8, also where the locale is another one, or none. Qt sees to that by itself, but
// newer versions complain of such a locale, over several lines. Before the application object.
void settleEncoding();

} // namespace host
