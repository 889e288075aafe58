// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/iplugin.h"
#include "plugin/parseddata.h"

#include <QtCore/QList>
#include <QtCore/QMap>

/*!
    A plugin that receives data and hands it to the host as records.

    The host connects at least receivedData(), calls start(), and answers each record with
    discard(): how many bytes at the front of the offered buffer it has consumed.

    Thread: its creator's, except discard(), which any thread may call.
    Owner:  the caller of the factory, or the QObject parent.

    Binary interface: as for IPlugin, the order of everything here is fixed. Pointer-to-member
    connections match signals by their index.
*/
class Q_DECL_EXPORT IInputPlugin : public IPlugin
{
    Q_OBJECT

public:
    explicit IInputPlugin(QObject *parent) : IPlugin(parent) {}
    IInputPlugin(QObject *parent, const QJsonObject &initial) : IPlugin(parent, initial) {}
    ~IInputPlugin() override = default;

Q_SIGNALS:
    void sError(const QString &msg);
    void sConnect();
    void sDisconnect();

    // One record per offer; emitted in the plugin's thread.
    void receivedData(shared_parsedData data);

    void terminate();

    // Asks the host. The answer is what the slot connected last returns; empty if none is
    // connected. Connect directly: the return value of a queued slot is lost.
    QList<QString> query(QString q);

public Q_SLOTS:
    void onConfigChanged() override = 0;
    bool start() override = 0;
    bool stop() override = 0;
    QString getStatus() override = 0;

public:
    // Not a slot: hosts call it directly.
    virtual void drop(int len) = 0;

public Q_SLOTS:
    // len: bytes consumed at the front of the offered buffer; subid: the record's own sub-id map.
    virtual void discard(int len, const QMap<QString, QString> &subid) = 0;

private:
    // Never read or written here. Binary interface: it keeps the object's size.
    [[maybe_unused]] quintptr reserved = 0;
};
