// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QtGlobal>

// The environment variable FULL_LOAD chooses how much the tests that take their time ask for: with
// it what the library has to stand, without it what suffices to see a mistake.
inline int load(int full, int usual)
{
    return qEnvironmentVariableIsSet("FULL_LOAD") ? full : usual;
}
