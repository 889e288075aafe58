// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "trace.h"

#include <QtCore/QHash>

#include <vector>

//! A log line, and the connection for which its writer was calling discard(); -1: none.
struct RawLine
{
    TappedLine line;
    int calledFor = -1;
};

/*!
    Finds out which connection each line is about: by the port that it names, by the discard() call
    that it comes from, or by its thread if that has only one connection. Takes out of the texts
    what differs from run to run: the ports and the threads' ids.
*/
class LineSorter
{
public:
    // numbers: of the connections, by the devices' ports.
    LineSorter(quint16 listening, const QHash<quint16, int> &numbers, bool ownThreads);

    // Returns the calling thread's lines that belong to no connection. The other threads' lines of
    // that kind come in any order, and are left out.
    QStringList sort(const std::vector<RawLine> &lines, std::vector<Trace> &traces);
    // The status text, without what differs from run to run.
    QString sortedStatus(const QString &status) const;

private:
    int numberOf(const RawLine &raw) const;
    int numberByPort(const QString &text) const;
    QString withoutNumbers(const QString &text, int connection) const;

    const quint16 port;
    const QHash<quint16, int> byPort;
    QHash<int, quint16> ports; // of the devices, by number
    const bool own;
    QHash<Qt::HANDLE, int> byThread;
};
