// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QMap>
#include <QtCore/QString>
#include <QtCore/QStringView>

#include <cstddef>
#include <cstring>

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
            if (const QString **const place = placeOf(entry.key()))
                *place = &entry.value();
        }
    }

    // Null: the map does not have the key.
    const QString *client = nullptr;
    const QString *connection = nullptr;
    const QString *end = nullptr;
    const QString *offset = nullptr;
    const QString *task = nullptr;

private:
    // Null: none of them. Comparing texts of a known length takes a few instructions, a call of
    // Qt's comparison some twenty.
    const QString **placeOf(QStringView key)
    {
        switch (key.isEmpty() ? u'\0' : key.front().unicode()) {
        case u'c':
            if (equals(key, u"client"))
                return &client;
            return equals(key, u"connection") ? &connection : nullptr;
        case u'e':
            return equals(key, u"end") ? &end : nullptr;
        case u'o':
            return equals(key, u"offset") ? &offset : nullptr;
        case u't':
            return equals(key, u"task") ? &task : nullptr;
        default:
            return nullptr;
        }
    }

    template<std::size_t SizeWithNull>
    static bool equals(QStringView key, const char16_t (&name)[SizeWithNull])
    {
        constexpr std::size_t size = SizeWithNull - 1;
        return key.size() == static_cast<qsizetype>(size)
                && std::memcmp(key.utf16(), name, size * sizeof(char16_t)) == 0;
    }
};

} // namespace subids
