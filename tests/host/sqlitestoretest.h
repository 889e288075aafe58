// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/sinks/makesink.h"
#include "tests/host/storetest.h"

#include <memory>

namespace storetest {

inline std::unique_ptr<host::Store> makeSqliteStore(const QString &file, const host::Keep &keep,
                                                    const QString &epoch)
{
    host::OutputOptions options;
    options.kind = host::OutputOptions::Sqlite;
    options.target = file;
    options.keep = keep;
    return host::makeStore(options, epoch);
}

} // namespace storetest
