// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QtGlobal>

#include <initializer_list>
#include <random>

namespace simulator {

/*!
    Reproducible numbers, the same from any compiler and library.

    Every device has a source of its own, so that its numbers do not depend on when other devices
    draw theirs. So a source is only a few bytes large.
*/
class RandomSource
{
public:
    explicit RandomSource(std::initializer_list<quint64> seeds)
    {
        std::seed_seq mixed(seeds.begin(), seeds.end());
        engine.seed(mixed);
    }

    // From 0 to limit - 1. limit: from 1.
    quint32 below(quint32 limit) { return static_cast<quint32>(engine() % limit); }

private:
    std::minstd_rand engine;
};

} // namespace simulator
