// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

/*!
    Counts the bytes and lines that a sink receives: the least that a receiver of lines must do.

    Thread: one at a time.
*/
struct LineCounter
{
    void add(const char *data, std::size_t size)
    {
        bytes += size;
        const char *const end = data + size;
        while (data < end) {
            const void *newline = std::memchr(data, '\n', static_cast<std::size_t>(end - data));
            if (!newline)
                return;
            ++lines;
            data = static_cast<const char *>(newline) + 1;
        }
    }

    void add(const LineCounter &other)
    {
        bytes += other.bytes;
        lines += other.lines;
        connections += other.connections;
    }

    // As inputhost writes it, except that bytes include the newlines.
    void print() const
    {
        std::printf("messages %llu bytes %llu connections %llu\n",
                    static_cast<unsigned long long>(lines), static_cast<unsigned long long>(bytes),
                    static_cast<unsigned long long>(connections));
    }

    std::uint64_t bytes = 0;
    std::uint64_t lines = 0;
    std::uint64_t connections = 0;
};
