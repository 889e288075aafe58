// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

namespace host {

//! What a program that serves many connections asks of the system. Call each once, at the start.

// Raises the soft limit of descriptors to the hard limit. Every connection takes a descriptor, and
// the usual soft limit of 1,024 is soon reached. The program must not use select().
void raiseDescriptorLimit();

// Writing to a closed pipe then fails instead of ending the program.
void ignoreBrokenPipes();

// Opens /dev/null for each standard stream that the caller has closed. Otherwise a socket or pipe
// would get the stream's number, and all that is written to the stream. Writing to standard output
// still fails: it is opened for reading.
void occupyStandardDescriptors();

// Keeps the local time zone with which the process has started, unless TZ names one. Otherwise the
// C library looks for a changed time zone at every conversion, and each record needs a conversion.
// Call before threads exist.
void settleTimeZone();

// Large blocks of memory go back to the system when they are freed. Otherwise the C library would
// keep such blocks once it has freed some, and after a burst the process would stay large. Call
// before threads exist.
void settleMemory();

} // namespace host
