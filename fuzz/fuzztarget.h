// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArrayView>
#include <QtCore/QString>

#include <cstdio>
#include <cstdlib>

/*!
    What all fuzz targets have in common. The fuzzer calls initialise() once, and then fuzz() for
    every input; each target defines both. An input passes if it neither crashes nor breaks a
    promise.
*/
void initialise();
void fuzz(QByteArrayView input);

// Checks a promise of the code under test. A broken promise ends the process, so that the fuzzer
// keeps the input.
inline void require(bool kept, const QString &promise)
{
    if (kept)
        return;
    std::fprintf(stderr, "Broken: %s\n", qPrintable(promise));
    std::abort();
}
