// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QtGlobal>

#include <atomic>
#include <memory>

/*!
    What the limits of a plugin and its successor count together, see SharedPort.

    Thread: any, a value.
*/
struct CommonCounts
{
    std::shared_ptr<std::atomic<int>> connections; // that are open; null: own ones
    std::shared_ptr<std::atomic<qint64>> bytes; // that are held; likewise
};
