// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QJsonObject>
#include <QtCore/QObject>
#include <QtCore/QString>

/*!
    What a host knows of every plugin: an identity, a configuration and a life cycle.

    Thread: the thread that created it, all members and slots.
    Owner:  the caller of the factory, or the QObject parent.

    Binary interface: hosts are built separately, so the order of the members, of the virtual
    functions and of the slots must not change.
*/
class Q_DECL_EXPORT IPlugin : public QObject
{
    Q_OBJECT

public:
    explicit IPlugin(QObject *parent) : QObject(parent) {}
    IPlugin(QObject *parent, const QJsonObject &initial) : QObject(parent), config(initial) {}
    ~IPlugin() override = default;

    // Only stores the object, which takes effect at the next start().
    virtual void setConfig(const QJsonObject &object) { config = object; }

    // Set by the host right after construction; identity in log lines and records. Default: empty.
    QString pluginId;

    // Read at every start(). Default: empty.
    QJsonObject config;

public Q_SLOTS:
    // Tells the plugin that its configuration has changed.
    virtual void onConfigChanged() = 0;

    // False if the plugin cannot run with its configuration; the reason is in the log.
    virtual bool start() = 0;

    virtual bool stop() = 0;

    // A text for operators, lines end with CR LF.
    virtual QString getStatus() = 0;
};
