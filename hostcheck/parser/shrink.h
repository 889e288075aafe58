// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "hostcheck/parser/framing.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <functional>

namespace hostcheck {

// The smallest input that still shows a fault: leaves out what it can, in ever smaller pieces.
// shows: whether an input shows it; true for the one given. mostTries: how often it is asked.
QByteArray shrink(QByteArray input, const std::function<bool(const QByteArray &)> &shows,
                  int mostTries);
// The same for messages: leaves out whole ones, then what it can of each content, and frames them
// again. So a count fits what it counts.
QByteArray shrinkMessages(const QByteArray &input, const Framing &framing,
                          const std::function<bool(const QByteArray &)> &shows, int mostTries);

// Bytes in hex and as text, 16 a line; of long ones the beginning.
QString hexDump(const QByteArray &bytes);

} // namespace hostcheck
