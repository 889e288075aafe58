// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/options.h"

namespace partstest {

using namespace simulator;

inline ParsedOptions parse(const QStringList &arguments)
{
    return parseOptions(QStringList(QStringLiteral("devicesim")) + arguments);
}

inline ParsedOptions parse(const char *commandLine)
{
    return parse(QString::fromLatin1(commandLine).split(QLatin1Char(' '), Qt::SkipEmptyParts));
}

} // namespace partstest
