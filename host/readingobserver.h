// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/message.h"

#include <QtCore/QByteArrayView>
#include <QtCore/QString>
#include <QtCore/QtGlobal>

namespace host {

//! Sees what a reader reads of each connection: every byte once, in order, and the end.
class ReadingObserver
{
public:
    ReadingObserver() = default;
    virtual ~ReadingObserver() = default;
    Q_DISABLE_COPY_MOVE(ReadingObserver)

    // origin: at least connection, source, peer and port. position: how many of the connection's
    // bytes come before. bytes: not empty; valid until the function returns.
    virtual void read(const Origin &origin, quint64 position, QByteArrayView bytes) = 0;
    // reason: as subids::end().
    virtual void ended(const Origin &origin, const QString &reason, quint64 position) = 0;
};

} // namespace host
