// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QtGlobal>

namespace stock {

// Whether the environment asks for this fault: STOCK_FAULT=NAME. So the tests of hostcheck have a
// library that is wrong in one point, many times over. Without it there is none.
inline bool isPlanted(const char *fault)
{
    static const QByteArray planted = qgetenv("STOCK_FAULT");
    return planted == fault;
}

// One value, or with that fault another.
template<class Value>
Value plantedOr(const char *fault, Value wrong, Value right)
{
    return isPlanted(fault) ? wrong : right;
}

} // namespace stock
