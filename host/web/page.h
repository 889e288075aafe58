// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>

/*!
    The page for browsers: host/web/page.html, which is compiled in.

    Thread: any; no shared state.
*/
namespace host {

QByteArray pageHtml();

// The value of its Content-Security-Policy: only the page's own script and style, known by their
// hashes, are run and applied, and only this server is asked.
QByteArray pagePolicy();

} // namespace host
