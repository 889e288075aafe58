// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QRandomGenerator>
#include <QtCore/QString>

/*!
    The seeds of a test with random runs. They differ each time. To repeat a failed run, set the
    environment variable TCPINPUT_SEED to its seed.
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
    quint32 count = 0; // consecutive numbers from the first on; they wrap at 2^32
};
