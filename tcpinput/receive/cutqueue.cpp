// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receive/cutqueue.h"

#include <QtCore/QThread>

void CutQueue::ask(const Cut &asked)
{
    if (unconsumed.cutAhead(asked, QThread::currentThread() == client.thread()))
        return;
    const auto posted = [this, asked] {
        carryOut(asked);
        unconsumed.endPostedCut();
    };
    QMetaObject::invokeMethod(&client, posted, Qt::QueuedConnection);
}

void CutQueue::carryOut(const Cut &asked)
{
    Q_ASSERT(QThread::currentThread() == client.thread());
    if (const auto left = unconsumed.cut(asked))
        tell(*left);
}
