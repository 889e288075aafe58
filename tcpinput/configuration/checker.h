// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/configuration/values.h"

#include <QtCore/QJsonObject>
#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <algorithm>

/*!
    Checks objects of the configuration against tables of keys. A table is a range of any type with
    the members name, accepted and isAccepted().

    Thread: one.
*/
class Checker
{
public:
    struct Fault
    {
        QString key; // with the path of its object before it: "ssl.Chain"
        bool isUnknown = false; // otherwise its value is not accepted
        QString text; // what is wrong, for a log line
    };

    // path: of the object, to be put before a key. refusesUnknown: whether an unknown key is wrong.
    // refusesBad: tells of a key whether a value that is not accepted is wrong.
    template<class Table, class RefusesBad>
    void check(const QString &path, const QJsonObject &object, const Table &table,
               bool refusesUnknown, RefusesBad refusesBad)
    {
        for (auto entry = object.begin(); entry != object.end(); ++entry) {
            const auto key = std::find_if(table.begin(), table.end(), [&entry](const auto &known) {
                return entry.key() == QLatin1String(known.name);
            });
            const QString name = path + entry.key();
            if (key == table.end()) {
                if (refusesUnknown)
                    faults += {name, true,
                               QStringLiteral("unknown key %1, accepted: %2")
                                       .arg(name, namesOf(table))};
            } else if (refusesBad(*key) && !key->isAccepted(*entry)) {
                faults += {name, false,
                           QStringLiteral("%1 is %2, accepted: %3")
                                   .arg(name, values::shown(*entry), QLatin1String(key->accepted))};
            }
        }
    }

    // What was wrong so far, in the order of the checks.
    QList<Fault> faults;

private:
    template<class Table>
    static QString namesOf(const Table &table)
    {
        QStringList names;
        for (const auto &key : table)
            names += QLatin1String(key.name);
        return names.join(QLatin1String(", "));
    }
};
