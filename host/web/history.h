// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QList>

#include <chrono>
#include <optional>

namespace host {

struct Snapshot;

/*!
    How many connections there were, and how much they brought, over about the last hour: a sample
    each SampleInterval, MostSamples of them. A value.
*/
class History
{
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    struct Sample
    {
        TimePoint taken;
        quint64 connections = 0; // that a worker had
        double messagesPerSecond = 0; // since the sample before
        double bytesPerSecond = 0; // likewise; of complete messages, without framing
    };
    using Samples = QList<Sample>;

    static constexpr std::chrono::seconds SampleInterval{5};
    static constexpr qsizetype MostSamples = 720;

    // Makes a sample if the last one is SampleInterval old. The first call only begins.
    void note(const Snapshot &snapshot);

    // The oldest first. Shares its memory; the next sample then copies all once.
    Samples samples() const { return list; }

private:
    struct Counts
    {
        TimePoint taken;
        qint64 messages = 0;
        qint64 bytes = 0;
    };

    Samples list;
    std::optional<Counts> last; // nothing: note() was not called yet
};

// As columns, with the age of each sample at that time; docs/INPUTHOST.md lists the members.
// Thread: any; no shared state.
QByteArray historyJson(const History::Samples &samples, History::TimePoint now);

} // namespace host
