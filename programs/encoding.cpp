// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "programs/encoding.h"

#include <clocale>
#include <cstdlib>
#include <cstring>

#include <langinfo.h>

namespace programs {

void settleEncoding()
{
    constexpr int Replace = 1;
    std::setlocale(LC_ALL, "");
    if (std::strcmp(::nl_langinfo(CODESET), "UTF-8") != 0)
        ::setenv(std::getenv("LC_ALL") ? "LC_ALL" : "LC_CTYPE", "C.UTF-8", Replace);
}

} // namespace programs
