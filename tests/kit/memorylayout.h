// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QObject>

#include <cstddef>
#include <cstring>

// Hosts are built separately. They rely on the place of a member in an object, and on the slot of a
// function in the virtual table. Here both follow the Itanium C++ ABI.

//! The member of type T that lies offset bytes into the object.
template<class T, class Object>
T &memberAt(Object &object, std::size_t offset)
{
    return *reinterpret_cast<T *>(reinterpret_cast<char *>(&object) + offset);
}

//! The virtual table slot of a virtual member function.
template<class Function>
int virtualSlot(Function function)
{
    static_assert(sizeof(function) == 2 * sizeof(std::ptrdiff_t));
    std::ptrdiff_t words[2];
    std::memcpy(words, &function, sizeof(words));
    // The offset in the table, in bytes. On some processors, bit 0 marks a virtual function.
    const auto offset = static_cast<std::size_t>(words[0]) & ~std::size_t{1};
    return static_cast<int>(offset / sizeof(void *));
}

//! The first slot that a class derived from QObject adds to the table.
inline int firstSlotAfterQObject()
{
    struct Last : QObject
    {
        using QObject::disconnectNotify;
    };
    return virtualSlot(&Last::disconnectNotify) + 1;
}
