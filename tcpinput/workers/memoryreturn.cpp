// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/workers/memoryreturn.h"

#include <QtCore/QTimerEvent>

#include <cstdlib>
#ifdef __GLIBC__
#include <malloc.h>
#endif

void MemoryReturn::timerEvent(QTimerEvent *event)
{
    if (event->timerId() != timer.timerId())
        return QObject::timerEvent(event);
    timer.stop();
    if (!isWorthIt()) // they have come back
        return;
    most = open;
    giveBack();
}

// Of all threads: a connection's memory comes from several. Each thread's part is locked while it
// is looked through.
void MemoryReturn::freeUnused()
{
#ifdef __GLIBC__
    malloc_trim(0);
#endif
}
