// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArrayView>
#include <QtCore/QString>

#include <cstdio>
#include <cstdlib>

/*!
    What all fuzz targets have in common: the fuzzer calls initialise() once and then fuzz(), which
    each target defines, for every input. An input that does not crash, and breaks no promise, is a
    good one.
*/
void initialise();
void fuzz(QByteArrayView input);

// A promise of the code under test. What breaks it ends the process, so that the fuzzer keeps the
// input.
inline void require(bool kept, const QString &promise)
{
    if (kept)
        return;
    std::fprintf(stderr, "Broken: %s\n", qPrintable(promise));
    std::abort();
}
