// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "hostcheck/library/device.h"
#include "hostcheck/library/logtap.h"
#include "hostcheck/library/require.h"
#include "plugin/factory.h"
#include "plugin/iinputplugin.h"

#include <QtCore/QJsonObject>
#include <QtCore/QLibrary>
#include <QtCore/QObject>
#include <QtNetwork/QHostAddress>

#include <functional>
#include <memory>

namespace hostcheck {

/*!
    The library under check, loaded as a host loads it, and a host for one plugin of it: keeps its
    records, queries and log lines.

    Thread: the main thread, whose events run only in waitFor() and turn().
    Owner:  the process, one for each check.
*/
class Subject : public QObject
{
    Q_OBJECT

public:
    // file: loaded at once; throws a Failure if it cannot be. timeLimitMs: how long something may
    // take that must come.
    Subject(const QString &file, int timeLimitMs);
    ~Subject() override;

    // The entry points. They throw a Failure if the library does not have them.
    CreatePluginFunction create();
    RegisterPluginFunction registration();

    // Makes the plugin, with the id "checked", on this process's address and a free port, unless
    // the configuration says something else. It is not started.
    IInputPlugin &make(const QJsonObject &more = {});
    // The same, and starts it; throws unless it listens.
    IInputPlugin &start(const QJsonObject &more = {});
    void destroy();
    IInputPlugin &plugin() const { return *made; }

    // An address in 127.0.0.0/8 that no other process uses, and a port that is free on it.
    const QHostAddress &address() const { return ownAddress; }
    quint16 port() const { return listenPort; }
    static quint16 freePort(const QHostAddress &address);

    // Records of all connections, or of one device.
    const QList<shared_parsedData> &records() const { return received; }
    QList<shared_parsedData> recordsOf(const Device &device) const;
    // Lets go of all records: while a host keeps one, it counts for the limits of its connection.
    void forgetRecords() { received.clear(); }
    // The bytes of each.
    QByteArrayList offersOf(const Device &device) const;
    // Waits until there are so many, and returns the last one.
    shared_parsedData waitForRecord(const Device &device, qsizetype count);
    // Discards so many bytes as an answer to the record.
    void discard(const shared_parsedData &record, int length);

    const QStringList &queries() const { return asked; }
    void setAnswer(const QStringList &answers) { answer = answers; }

    LogTap &log() { return tap; }

    // Handles events until it is true. Throws a Failure with the text if it takes too long.
    void waitFor(const std::function<bool()> &isTrue, const QString &text);
    void pause(int milliseconds);

private Q_SLOTS:
    void keep(const shared_parsedData &record);
    QStringList reply(const QString &query);

private:
    LogTap tap;
    QLibrary library;
    std::unique_ptr<IInputPlugin> made;
    int guardMs;
    QHostAddress ownAddress;
    quint16 listenPort = 0;
    QList<shared_parsedData> received;
    QStringList asked;
    QStringList answer; // to each query
};

} // namespace hostcheck
