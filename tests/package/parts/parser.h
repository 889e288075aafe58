// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <plugin/parseddata.h>

// How many bytes at the front are complete lines.
int completeLines(const ParsedData &record);
