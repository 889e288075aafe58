// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

namespace host {

//! What the program tells its caller; listed in its --help text.
enum ExitCode {
    ExitOk = 0,
    ExitBadArguments = 2,
    ExitNoLibrary = 3, // missing, not loadable, without its entry points, or of another release
    ExitBadConfiguration = 4, // unreadable, not JSON, no object, or verifies by no CA
    ExitStartFailed = 5, // start() was false
    ExitNotListening = 6, // start() was true, but nothing listens: the port is in use
    ExitOutputFailed = 7, // standard output is closed or full
    ExitRecordingFailed = 8, // the file for --record cannot be written
    ExitMonitorFailed = 9, // the address for --http is taken, or --metrics-file cannot be written
    ExitBadCertificates = 10, // --check-config: certificates or keys do not work
};

} // namespace host
