// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/sinks/sink.h"

namespace host {

/*!
    Throws messages away. What was counted of them can be written to standard output at the end.

    Thread: its creator's.
*/
class CountingSink : public Sink
{
    Q_OBJECT

public:
    // descriptor: for summarize(); stays the caller's. -1: nothing is written.
    explicit CountingSink(int descriptor) : fd(descriptor) {}

    bool showsOrigins() const override { return false; }
    bool acknowledges() const override { return false; }
    void write(const Message &) override {}
    qint64 finish(std::chrono::milliseconds) override { return 0; }
    // Waits for the reader of standard output.
    void summarize(const QString &line) override;

private:
    const int fd;
};

} // namespace host
