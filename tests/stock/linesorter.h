// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "trace.h"

#include <QtCore/QHash>

#include <vector>

//! A line as it came, and the connection that its writer was calling discard() for; -1: none.
struct RawLine
{
    TappedLine line;
    int calledFor = -1;
};

/*!
    Finds out which connection each line is about, by the port that it names, by the call that it
    comes from, and by its thread if that has only one connection. And takes out of the texts what
    differs from run to run: the ports and the threads' ids.
*/
class LineSorter
{
public:
    // numbers: of the connections, by the devices' ports.
    LineSorter(quint16 listening, const QHash<quint16, int> &numbers, bool ownThreads);

    // Returns what is of no connection, of the calling thread's lines: those of the others come in
    // any order.
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
