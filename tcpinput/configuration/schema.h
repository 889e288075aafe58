// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QJsonObject>

/*!
    The configuration's keys as a JSON Schema (draft 2020-12), for editors and programs that check
    files: type, range, default and an example of each key. It accepts what "strict" accepts; what a
    schema cannot say it leaves out: whether an interface exists, what a file holds, which ciphers
    OpenSSL knows.

    Thread: any; no shared state.
*/
namespace schema {

// Defaults are the plugin's own; a host's may differ.
QJsonObject configuration();

} // namespace schema
