// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "parser.h"

int completeLines(const ParsedData &record)
{
    return static_cast<int>(record.getOriginalMessage().lastIndexOf('\n') + 1);
}
