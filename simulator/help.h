// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QCommandLineOption>
#include <QtCore/QList>
#include <QtCore/QString>

namespace simulator {

// What --help says above the list of options.
QString description();

// The options that the program knows, in the order of --help.
QList<QCommandLineOption> knownOptions();

} // namespace simulator
