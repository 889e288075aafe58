// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QtGlobal>

#include <utility>

#include <unistd.h>

/*!
    A descriptor, closed with this.

    Thread: any.
    Owner:  whoever it was moved to.
*/
class Descriptor
{
public:
    Descriptor() = default;
    explicit Descriptor(qintptr owned) : number(static_cast<int>(owned)) {}
    Descriptor(Descriptor &&other) noexcept : number(other.release()) {}
    Descriptor &operator=(Descriptor &&other) noexcept
    {
        std::swap(number, other.number);
        return *this;
    }
    Q_DISABLE_COPY(Descriptor)
    ~Descriptor()
    {
        if (number >= 0)
            ::close(number);
    }

    int get() const { return number; }
    // The caller closes it.
    int release() { return std::exchange(number, -1); }

private:
    int number = -1;
};
