// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QDateTime>
#include <QtCore/QDebug>
#include <QtCore/QMap>
#include <QtCore/QMetaType>
#include <QtCore/QReadWriteLock>
#include <QtCore/QSharedPointer>
#include <QtCore/QString>
#include <QtCore/QTimeZone>

class Device; // the host's

/*!
    One offer to the host: the raw bytes, where they came from, and the ids that route the host's
    answer back. The host may add what its parser finds: fields, format, device, flags.

    Thread: any; each accessor takes the record's own lock, getters return copies. The exceptions
            are getTimestamp() and getField().
    Owner:  shared_parsedData; the last holder deletes the record.
*/
class Q_DECL_EXPORT ParsedData
{
public:
    ParsedData() = default;
    // Sets what an input plugin knows of an offer, without a lock per setter. time: of creation, in
    // local time.
    ParsedData(const QByteArray &message, const QString &from, const QString &address,
               unsigned short port, const QMap<QString, QString> &subIds, const QDateTime &time)
        : pluginSubIds(subIds),
          peerAddress(address),
          peerPort(port),
          originalMessage(message),
          timestamp(time),
          source(from)
    {}
    ParsedData(const ParsedData &) = delete;
    ParsedData &operator=(const ParsedData &) = delete;

    QString getFormat() const { return read(format); }
    void setFormat(const QString &value) { write(format, value); }

    // The id of the plugin that delivered the record.
    QString getPluginId() const { return read(pluginId); }
    void setPluginId(const QString &value) { write(pluginId, value); }

    // The whole map, to be handed back to IInputPlugin::discard().
    QMap<QString, QString> getPluginSubId() const { return read(pluginSubIds); }
    void setPluginSubId(const QMap<QString, QString> &value) { write(pluginSubIds, value); }
    // Replaces an existing value.
    void addPluginSubId(const QString &key, const QString &value)
    {
        QWriteLocker locker(&lock);
        pluginSubIds.insert(key, value);
    }
    // Empty if the key is absent.
    QString getPluginSubIdKey(const QString &key) const
    {
        QReadLocker locker(&lock);
        return pluginSubIds.value(key);
    }

    QString getPeerAddress() const { return read(peerAddress); }
    void setPeerAddress(const QString &value) { write(peerAddress, value); }

    unsigned short getPeerPort() const { return read(peerPort); }
    void setPeerPort(unsigned short value) { write(peerPort, value); }

    QByteArray getOriginalMessage() const { return read(originalMessage); }
    void setOriginalMessage(const QByteArray &value) { write(originalMessage, value); }

    // Bytes in the original message, truncated to int.
    int getDataLength() const
    {
        QReadLocker locker(&lock);
        return static_cast<int>(originalMessage.size());
    }

    QString getDeviceId() const { return read(deviceId); }
    void setDeviceId(const QString &value) { write(deviceId, value); }

    QString getSource() const { return read(source); }
    void setSource(const QString &value) { write(source, value); }

    QMap<QString, QString> getData() const { return read(data); }
    void setData(QMap<QString, QString> value)
    {
        QWriteLocker locker(&lock);
        data.swap(value);
    }

    // "<undef>" if the name is absent. Deliberate: no lock, since parsers call it for each field.
    // Do not call it while another thread is in setData().
    QString getField(const QString &name) const
    {
        return data.value(name, QStringLiteral("<undef>"));
    }

    bool isParsed() const { return read(parsed); }
    void setParsed(bool value) { write(parsed, value); }

    bool isGPSPosData() const { return read(gpsPosData); }
    void setGPSPosData(bool value) { write(gpsPosData, value); }

    // The host's object; the record never looks inside and never deletes it. Default: null.
    Device *getDevice() const { return read(device); }
    void setDevice(Device *value) { write(device, value); }

    // ISO 8601: in UTC if the zone is UTC, for any other zone in the stored local time. Deliberate:
    // no lock, the time never changes after construction.
    QString getTimestamp(const QTimeZone &zone) const
    {
        const QDateTime time = isUtc(zone) ? timestamp.toUTC() : timestamp;
        return time.toString(Qt::ISODate);
    }

    // The same moment as a value, in local time. No lock, either.
    QDateTime getTime() const { return timestamp; }

    // "<plugin id>-<peer address>:<peer port>". Each piece is read under a lock of its own.
    QString getDataId() const
    {
        return getPluginId() + QLatin1Char('-') + getPeerAddress() + QLatin1Char(':')
                + QString::number(getPeerPort());
    }

private:
    static bool isUtc(const QTimeZone &zone)
    {
#if QT_VERSION >= QT_VERSION_CHECK(6, 5, 0)
        // Since Qt 6.5 UTC also has a lightweight form, which does not equal the zone named UTC.
        if (zone == QTimeZone(QTimeZone::UTC))
            return true;
#endif
        return zone == QTimeZone::utc();
    }

    template<class T>
    T read(const T &member) const
    {
        QReadLocker locker(&lock);
        return member;
    }
    template<class T>
    void write(T &member, const T &value)
    {
        QWriteLocker locker(&lock);
        member = value;
    }

    // Guarded by lock, except timestamp (never changes). Binary interface: the order is fixed.
    QString format;
    QString pluginId;
    QMap<QString, QString> pluginSubIds;
    QString peerAddress;
    unsigned short peerPort = 0;
    QByteArray originalMessage;
    QDateTime timestamp = QDateTime::currentDateTime();
    QString deviceId;
    QString source;
    QMap<QString, QString> data;
    mutable QReadWriteLock lock;
    bool parsed = false;
    bool gpsPosData = false;
    Device *device = nullptr;
};

//! How records travel between threads.
using shared_parsedData = QSharedPointer<ParsedData>;
Q_DECLARE_METATYPE(shared_parsedData)
