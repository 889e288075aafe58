// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/reentry.h"

#include <QtCore/QList>
#include <QtCore/QObject>
#include <QtCore/QPointer>

#include <utility>

namespace {

thread_local int callsOnStack = 0;
thread_local QList<QPointer<QObject>> waiting; // for the outermost call's end

} // namespace

Reentry::Reentry()
{
    ++callsOnStack;
}

// Qt deletes when control is back in the event loop that deleteLater() was called from: here, that
// of the outermost call.
Reentry::~Reentry()
{
    if (--callsOnStack > 0 || waiting.isEmpty())
        return;
    const auto objects = std::exchange(waiting, {});
    for (const QPointer<QObject> &object : objects) {
        if (object)
            object->deleteLater();
    }
}

bool Reentry::isOnStack()
{
    return callsOnStack > 0;
}

void Reentry::deleteLater(QObject *object)
{
    if (isOnStack())
        waiting.append(object);
    else
        object->deleteLater();
}
