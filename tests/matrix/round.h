// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "cell.h"

#include <QtCore/QList>

//! The bytes that the devices of one cell sent, and what happened to them. In bytes, unless stated.
struct CellResult
{
    explicit CellResult(const Cell &measured) : cell(measured) {}

    // Adds the result of another cell, for a row or a column of the table.
    void add(const CellResult &other);
    bool isClean() const;

    Cell cell;
    int connections = 0;
    qint64 accepted = 0; // by the devices' kernels
    qint64 missing = 0; // not offered, although the plugin could have
    qint64 outOfOrder = 0; // offered where the device had something else
    qint64 repeated = 0; // given to the host's parser after it had consumed them
    qint64 thrownAway = 0; // dropped by the device's own kernel
    qint64 inKernel = 0; // unread when the host stopped the plugin; connections with a client only
    int notTaken = 0; // connections that had no client then
    qint64 notTakenBytes = 0;
    int wrongEnds = 0; // connections whose end was not reported exactly once, as the last record
    int failed = 0; // devices that could not connect although the plugin listened
};

struct RoundPlan
{
    Ending ending = Ending::Fin;
    Transport transport = Transport::Tcp;
    QString engine; // see enginesOf()
    Keys keys = Keys::None;
    int repeats = 1; // devices for each cell
    int wholeMessages = 2000; // messages of a device that writes once
    int lateComers = 4; // devices that connect right before the host stops the plugin
};

// Plays the cells of all segmentations and hosts at once, against one new plugin.
QList<CellResult> playRound(const RoundPlan &plan);
