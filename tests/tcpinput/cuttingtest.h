// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/tcpinput/connectedclient.h"

#include <QtCore/QThread>

#include <memory>

namespace cuttingtest {

inline QByteArray bytes(int size)
{
    QByteArray result;
    for (int i = 0; result.size() < size; ++i)
        result += QByteArray::number(i, 36) + '.';
    result.truncate(size);
    return result;
}

template<class Function>
void inAnotherThread(Function function)
{
    const std::unique_ptr<QThread> thread(QThread::create(function));
    thread->start();
    thread->wait();
}

//! Counts the calls that are posted to an object.
class PostedCalls : public QObject
{
public:
    explicit PostedCalls(QObject *receiver) { receiver->installEventFilter(this); }
    int count = 0;

protected:
    bool eventFilter(QObject *, QEvent *event) override
    {
        count += event->type() == QEvent::MetaCall ? 1 : 0;
        return false;
    }
};

// What the client holds now. Makes an offer of it.
inline QByteArray heldBy(ConnectedClient &connection)
{
    connection.takeOffers();
    connection.client->emitData();
    return connection.takeOffers().constFirst();
}

} // namespace cuttingtest
