// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/configuration/checker.h"

#include <QtCore/QJsonObject>
#include <QtCore/QStringList>

/*!
    Unknown keys and bad values of a configuration, and what may have been meant.

    Thread: any; no shared state.
*/
namespace host {

// Everything that "strict" refuses. A file is read only if reading takes nothing from it.
QList<Checker::Fault> keyFaults(const QJsonObject &configuration);

// For people: the fault's text, and the key that has been meant.
QString shown(const Checker::Fault &fault);

// What an operator should hear at the start: faults that the plugin ignores; and of those that it
// refuses and tells itself, what has been meant. One line each.
QStringList keyWarnings(const QJsonObject &configuration);

} // namespace host
