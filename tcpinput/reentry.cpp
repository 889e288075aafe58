// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/reentry.h"

#include <utility>

namespace {

// A pointer alone: hosts may delete the plugin when the thread's objects have been destroyed.
thread_local Reentry *outermost = nullptr;

} // namespace

Reentry::Reentry()
{
    if (!outermost)
        outermost = this;
}

// Qt deletes when control is back in the event loop that deleteLater() was called from: here, that
// of the outermost call.
Reentry::~Reentry()
{
    if (outermost != this)
        return;
    outermost = nullptr;
    for (const QPointer<QObject> &object : std::as_const(waiting)) {
        if (object)
            object->deleteLater();
    }
}

bool Reentry::isOnStack()
{
    return outermost;
}

void Reentry::deleteLater(QObject *object)
{
    if (outermost)
        outermost->waiting.append(object);
    else
        object->deleteLater();
}
