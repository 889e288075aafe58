// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QMap>
#include <QtCore/QString>

#include <functional>

namespace host {

//! Passes an answer on to IInputPlugin::discard(). Must not lead back into the reader of the offer.
using Answer = std::function<void(int bytes, const QMap<QString, QString> &subId)>;

} // namespace host
