// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <vector>

namespace hostcheck {

class Subject;

//! A check of the contract. The function throws a Failure if the library does not keep it,
//! and a Skip if that cannot be checked.
struct Check
{
    const char *name;
    void (*function)(Subject &);
};

// In the order of the report. Each list is in the file of its name.
const std::vector<Check> &entryChecks();
const std::vector<Check> &startChecks();
const std::vector<Check> &recordChecks();
const std::vector<Check> &offerChecks();
const std::vector<Check> &requestChecks();
const std::vector<Check> &endChecks();
const std::vector<Check> &optionChecks();

// All of these.
std::vector<Check> allChecks();

} // namespace hostcheck
