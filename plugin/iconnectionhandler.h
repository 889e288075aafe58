// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/connection.h"

#include <QtCore/QObject>

/*!
    An object that accepts connections.

    For hosts, with its meta-object: no class of this library derives from it. Binary interface: the
    order of the slots is fixed, as for IPlugin.
*/
class Q_DECL_EXPORT IConnectionHandler : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;
    ~IConnectionHandler() override = default;

public Q_SLOTS:
    virtual void handleConnection(Connection conn) = 0;
    virtual void stopAll() = 0;
};
