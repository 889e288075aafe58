// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QString>

/*!
    What somebody has meant who has written an unknown key.

    Thread: any; no shared state.
*/
namespace host {

// unknown: with the path of its object, as in "ssl.certfile". The known key that is nearest, with
// its path; empty if none is near. A key of another object counts, too.
QString nearestKey(const QString &unknown);

} // namespace host
