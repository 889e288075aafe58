// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "cell.h"

#include <QtCore/QList>

//! What the devices of one cell say and what became of it. Bytes, unless stated.
struct CellResult
{
    explicit CellResult(const Cell &measured) : cell(measured) {}

    // Of cells that stand in one row or column.
    void add(const CellResult &other);
    bool isClean() const;

    Cell cell;
    int connections = 0;
    qint64 accepted = 0; // by the devices' kernels
    qint64 missing = 0; // not offered, although the plugin could have
    qint64 outOfOrder = 0; // offered where the device had something else
    qint64 repeated = 0; // given to the host's parser after it had consumed them
    qint64 thrownAway = 0; // by the device's own kernel
    qint64 inKernel = 0; // of connections that had a client when the host stopped the plugin
    int notTaken = 0; // connections that had none
    qint64 notTakenBytes = 0;
    int wrongEnds = 0; // connections of which the host was told otherwise than once, at last
    int failed = 0; // devices that could not connect, although nobody kept them from it
};

struct RoundPlan
{
    Ending ending = Ending::Fin;
    Transport transport = Transport::Tcp;
    Keys keys = Keys::None;
    int repeats = 1; // devices a cell
    int wholeMessages = 2000; // messages of a device that writes once
    int lateComers = 4; // that connect right before the host stops the plugin
};

// Plays all cells that differ in segmentation and host, at once, against a plugin of their own.
QList<CellResult> playRound(const RoundPlan &plan);
