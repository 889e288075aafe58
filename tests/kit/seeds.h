// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QRandomGenerator>
#include <QtCore/QString>

/*!
    The seeds of a test that plays random runs: others each time, or the one in the environment
    variable TCPINPUT_SEED, to repeat a run that has failed.
*/
struct Seeds
{
    explicit Seeds(quint32 many)
    {
        bool given = false;
        const quint32 seed = qEnvironmentVariable("TCPINPUT_SEED").toUInt(&given);
        first = given ? seed : QRandomGenerator::global()->generate();
        count = given ? 1 : many;
    }

    quint32 first = 0;
    quint32 count = 0; // from the first on; wraps
};
