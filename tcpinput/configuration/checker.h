// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "plugin/cwrn.h"
#include "tcpinput/configuration/values.h"

#include <QtCore/QJsonObject>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <algorithm>

/*!
    Checks objects of the configuration against tables of keys, and logs what is wrong with them: a
    line for each key or value. A table is a range of any type with the members name, accepted and
    isAccepted().

    Thread: one.
*/
class Checker
{
public:
    // pluginId: for the lines.
    explicit Checker(const QString &pluginId) : id(pluginId) {}

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
                    complain(QStringLiteral("unknown key %1, accepted: %2")
                                     .arg(name, namesOf(table)));
            } else if (refusesBad(*key) && !key->isAccepted(*entry)) {
                complain(QStringLiteral("%1 is %2, accepted: %3")
                                 .arg(name, values::shown(*entry), QLatin1String(key->accepted)));
            }
        }
    }

    // Whether nothing was wrong so far.
    bool isGood() const { return good; }

private:
    template<class Table>
    static QString namesOf(const Table &table)
    {
        QStringList names;
        for (const auto &key : table)
            names += QLatin1String(key.name);
        return names.join(QLatin1String(", "));
    }

    void complain(const QString &text)
    {
        CWRN(QtWarningMsg, QStringLiteral("TcpInputPlugin2(%1): Configuration: %2"), id, text);
        good = false;
    }

    const QString id;
    bool good = true;
};
