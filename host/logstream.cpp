// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/logstream.h"

#include <QtCore/QTime>

#include <chrono>
#include <system_error>
#include <thread>

namespace host {
namespace {

using namespace std::chrono_literals;

// A smaller backlog takes one more text of any length, a status text for example.
constexpr qsizetype FullBacklogBytes = 1024 * 1024;
constexpr auto MostPatience = 1s; // with a reader that stands still, at the end

} // namespace

void LogStream::write(const QByteArray &text)
{
    const std::lock_guard lock(mutex);
    append(text);
    // If there is a writer thread, it writes the backlog.
    if (!hasWriter && !writeBacklog())
        startWriter();
}

void LogStream::append(const QByteArray &text)
{
    if (backlog.size() >= FullBacklogBytes) {
        dropped += text.count('\n');
        return;
    }
    tellDropped();
    backlog += text;
}

void LogStream::tellDropped()
{
    if (dropped == 0)
        return;
    backlog += "warning: "
            + QTime::currentTime().toString(QStringLiteral("hh:mm:ss.zzz")).toLatin1() + ' '
            + QByteArray::number(dropped) + " log lines dropped: standard error was not read\n";
    dropped = 0;
}

// Writes what the stream takes now. True if nothing is left.
bool LogStream::writeBacklog()
{
    qsizetype written = 0;
    while (written < backlog.size()) {
        const qsizetype size = stream.write(QByteArrayView(backlog).sliced(written));
        if (size == 0)
            break;
        written = size < 0 ? backlog.size() : written + size; // nobody can be told of an error
    }
    if (written > 0)
        ++writes;
    backlog.remove(0, written);
    if (backlog.isEmpty() && dropped > 0) {
        tellDropped();
        return writeBacklog();
    }
    return backlog.isEmpty();
}

void LogStream::startWriter()
{
    try {
        std::thread(&LogStream::writeUntilDone, this).detach();
        hasWriter = true;
    } catch (const std::system_error &) { // the next line tries again
    }
}

void LogStream::writeUntilDone()
{
    for (bool done = false; !done;) {
        stream.waitUntilWritable(-1);
        const std::lock_guard lock(mutex);
        done = writeBacklog();
        hasWriter = !done;
        progress.notify_all();
    }
}

bool LogStream::finish()
{
    std::unique_lock lock(mutex);
    while (hasWriter) {
        const quint64 before = writes;
        const auto hasGoneOn = [this, before] { return !hasWriter || writes != before; };
        if (!progress.wait_for(lock, MostPatience, hasGoneOn))
            return false;
    }
    return backlog.isEmpty();
}

} // namespace host
