// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/kit/loadedplugin.h"

#include <array>

//! The two plugins that are compared. Both are loaded, and used only through what hosts see.
struct Side
{
    const char *name;
    LoadedLibrary library;
    QString engine = {}; // of TLS, see tests/kit/tlsengines.h
};

inline Side &stockSide()
{
    static Side side{"stock", LoadedLibrary(QStringLiteral(STOCK_PLUGIN_FILE))};
    return side;
}
// file: another build of the library; only the first call can choose it.
inline Side &librarySide(const QString &file = QStringLiteral(PLUGIN_FILE))
{
    static Side side{"library", LoadedLibrary(file)};
    return side;
}
inline std::array<Side *, 2> bothSides()
{
    return {&stockSide(), &librarySide()};
}
