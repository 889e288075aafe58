// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QMap>
#include <QtCore/QString>
#include <QtCore/QStringView>

/*!
    The keys of a record's sub-ids, which route the host's answer back to the connection.

    Thread: any.
*/
namespace subids {

// The number of the task.
inline QString task()
{
    return QStringLiteral("task");
}

// The client id within the task.
inline QString client()
{
    return QStringLiteral("client");
}

// The number of the connection, unique in the process. Only with "offsets", like offset().
inline QString connection()
{
    return QStringLiteral("connection");
}

// How many of the connection's bytes lie before the first one of the record.
inline QString offset()
{
    return QStringLiteral("offset");
}

// Why the connection is over: "peer", "reset", "idle", "tls", "limit" or "stop". Only with "ends",
// in the last record of a connection, which has no bytes.
inline QString end()
{
    return QStringLiteral("end");
}

/*!
    The values of these keys, found in one walk. To search the map for each of them costs several
    times as much, and it is done for each record and each answer.

    Thread: one at a time.
    Owner:  the caller, who keeps the map unchanged meanwhile.
*/
struct Values
{
    explicit Values(QMap<QString, QString> &&) = delete; // it would be gone at once
    explicit Values(const QMap<QString, QString> &map)
    {
        for (auto entry = map.constBegin(); entry != map.constEnd(); ++entry) {
            const Known known = knownAs(entry.key());
            if (known.place && entry.key() == known.name)
                this->*known.place = &entry.value();
        }
    }

    // Null: the map does not have the key.
    const QString *client = nullptr;
    const QString *connection = nullptr;
    const QString *end = nullptr;
    const QString *offset = nullptr;
    const QString *task = nullptr;

private:
    struct Known
    {
        QStringView name;
        const QString *Values::*place = nullptr;
    };

    // The only one that the key can be: no two have the same first letter and the same length.
    static Known knownAs(QStringView key)
    {
        switch (key.isEmpty() ? u'\0' : key.front().unicode()) {
        case u'c':
            return key.size() == 6 ? Known{u"client", &Values::client}
                                   : Known{u"connection", &Values::connection};
        case u'e':
            return {u"end", &Values::end};
        case u'o':
            return {u"offset", &Values::offset};
        case u't':
            return {u"task", &Values::task};
        default:
            return {};
        }
    }
};

} // namespace subids
