// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QList>
#include <QtCore/QObject>
#include <QtCore/QPointer>

/*!
    Marks, while it lives, a call on the stack that runs code of the host, which may run the event
    loop: the message handler that a log line goes to. Whatever comes to its end in there may be
    what the calls on the stack belong to, and Qt would delete it before they return.

    Thread: any; each has its own calls and deletions.
    Owner:  the stack.
*/
class Reentry
{
public:
    Reentry();
    ~Reentry();
    Reentry(const Reentry &) = delete;
    Reentry &operator=(const Reentry &) = delete;

    static bool isOnStack();

    // As object->deleteLater(), once no call is on the stack any more. The object belongs to the
    // calling thread and may be deleted by others before.
    static void deleteLater(QObject *object);

private:
    QList<QPointer<QObject>> waiting; // in the outermost one
};
