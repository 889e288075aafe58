// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QtGlobal>

#include <chrono>

//! What the configuration limits. 0: no limit.
struct Limits
{
    qint64 connectionBuffer = 0; // bytes that one connection may hold
    qint64 totalBuffer = 0; // bytes that all connections together may hold
    std::chrono::seconds stalledTimeout{0}; // a paused connection of which nothing is consumed

    bool limitBuffers() const { return connectionBuffer > 0 || totalBuffer > 0; }
};
