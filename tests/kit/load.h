// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QtGlobal>

// The size of a slow test. If the environment variable FULL_LOAD is set: the load that the library
// has to stand. Otherwise: a load that is large enough to show a mistake.
inline int load(int full, int usual)
{
    return qEnvironmentVariableIsSet("FULL_LOAD") ? full : usual;
}
