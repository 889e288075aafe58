// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/randomsource.h"

#include <QtCore/QByteArray>
#include <QtCore/QList>

namespace simulator {

/*!
    Damages what a device sends. One write in eight, by chance, has a bit flipped; one in eight
   loses a byte; one in eight has a byte twice; one in eight is sent as two writes. The others stay
   as they are.

    The same seed, device and writes give the same damage.
*/
class Mutation
{
public:
    Mutation(quint32 seed, quint64 device) : random({seed, device}) {}

    // The writes that stand for this one: one or two, or none if nothing is left of it.
    QList<QByteArray> of(const QByteArray &write);

private:
    RandomSource random;
};

} // namespace simulator
