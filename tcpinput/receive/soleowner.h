// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>

// Whether nobody else has the block, so that it may be changed in place, and what the others did
// with it is done. QByteArray::isDetached() alone orders nothing between threads; these two calls
// do, with the last other's giving up of the block. They are public, though undocumented.
inline bool isSoleOwner(QByteArray &block)
{
    if (!block.isDetached())
        return false;
    block.data_ptr()->ref();
    block.data_ptr()->deref();
    return true;
}
