// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "fuzz/fuzztarget.h"

#include <cstdint>

// What libFuzzer calls, by these names.

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    initialise();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    fuzz(QByteArrayView(data, static_cast<qsizetype>(size)));
    return 0;
}
