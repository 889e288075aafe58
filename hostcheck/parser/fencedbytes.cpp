// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "hostcheck/parser/fencedbytes.h"

#include <cstring>

#include <sys/mman.h>
#include <unistd.h>

namespace hostcheck {

FencedBytes::FencedBytes(size_t capacity)
{
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    length = (capacity / page + 1) * page;
    reservedSize = length + 2 * page;

    const int file = memfd_create("hostcheck", MFD_CLOEXEC);
    if (file < 0 || ftruncate(file, static_cast<off_t>(length)) != 0)
        return;
    reserved = mmap(nullptr, reservedSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    void *writes = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    void *reads = MAP_FAILED;
    if (reserved != MAP_FAILED)
        reads = mmap(static_cast<char *>(reserved) + page, length, PROT_READ,
                     MAP_SHARED | MAP_FIXED, file, 0);
    close(file);
    if (writes != MAP_FAILED)
        writable = static_cast<char *>(writes);
    if (reads != MAP_FAILED && writable)
        readable = static_cast<char *>(reads);
}

FencedBytes::~FencedBytes()
{
    if (writable)
        munmap(writable, length);
    if (reserved && reserved != MAP_FAILED)
        munmap(reserved, reservedSize);
}

const char *FencedBytes::position(size_t size, Fence fence) const
{
    return fence == Fence::Behind ? readable + (length - size) : readable;
}

const char *FencedBytes::place(const char *bytes, size_t size, Fence fence)
{
    const char *place = position(size, fence);
    if (size > 0)
        std::memcpy(writable + (place - readable), bytes, size);
    return place;
}

} // namespace hostcheck
