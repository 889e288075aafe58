// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>

#include <cstddef>

namespace hostcheck {

//! On which side of the bytes the closed page is.
enum class Fence { Behind, Before };

/*!
    Memory for a parser's input: whoever writes into it, or reads beyond the side that has the
   fence, is ended by the kernel at once.

    Thread: one at a time. Processes that were forked share the bytes.
    Owner:  the caller.
*/
class FencedBytes
{
public:
    // capacity: the most bytes that are placed. isUsable() is false without memory for them.
    explicit FencedBytes(size_t capacity);
    ~FencedBytes();
    FencedBytes(const FencedBytes &) = delete;
    FencedBytes &operator=(const FencedBytes &) = delete;

    bool isUsable() const { return readable; }
    // Copies the bytes, at most the capacity. What is returned stays good until the next call.
    const char *place(const char *bytes, size_t size, Fence fence);
    // Where place() puts so many bytes.
    const char *position(size_t size, Fence fence) const;

private:
    size_t length = 0; // of the memory between the two closed pages
    char *readable = nullptr; // never writable; null: there was no memory
    char *writable = nullptr; // the same bytes, for place()
    void *reserved = nullptr; // the addresses, closed pages included
    size_t reservedSize = 0;
};

} // namespace hostcheck
