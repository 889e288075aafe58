// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "hostcheck/library/checks.h"

namespace hostcheck {

std::vector<Check> allChecks()
{
    std::vector<Check> all;
    for (const auto *list : {&entryChecks(), &startChecks(), &recordChecks(), &offerChecks(),
                             &requestChecks(), &endChecks(), &optionChecks()})
        all.insert(all.end(), list->begin(), list->end());
    return all;
}

} // namespace hostcheck
