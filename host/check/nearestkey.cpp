// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/check/nearestkey.h"

#include "tcpinput/configuration/schema.h"

#include <QtCore/QJsonObject>
#include <QtCore/QStringList>

#include <algorithm>
#include <numeric>
#include <vector>

namespace host {
namespace {

constexpr QChar Separator = u'.';

// Of an object and the objects in it.
QStringList keysOf(const QJsonObject &schema, const QString &path)
{
    QStringList keys;
    const QJsonObject properties = schema.value(QLatin1String("properties")).toObject();
    for (auto property = properties.begin(); property != properties.end(); ++property) {
        const QString key = path + property.key();
        keys += key;
        keys += keysOf(property->toObject(), key + Separator);
    }
    return keys;
}

QString nameOf(const QString &key)
{
    return key.section(Separator, -1);
}

// How many characters have to be added, left out or replaced (V. I. Levenshtein, 1966).
qsizetype distance(const QString &from, const QString &to)
{
    std::vector<qsizetype> row(static_cast<std::size_t>(to.size()) + 1);
    std::iota(row.begin(), row.end(), qsizetype(0));
    for (const QChar character : from) {
        qsizetype diagonal = row.front()++;
        for (std::size_t i = 1; i < row.size(); ++i) {
            const qsizetype replaced = diagonal + (to[qsizetype(i) - 1] != character);
            diagonal = row[i];
            row[i] = std::min({row[i] + 1, row[i - 1] + 1, replaced});
        }
    }
    return row.back();
}

// Upper and lower case are mixed up most of all, and hardly count.
qsizetype differenceOf(const QString &unknown, const QString &known)
{
    constexpr qsizetype LetterWeight = 4;
    const QString one = nameOf(unknown).toLower();
    const QString other = nameOf(known).toLower();
    const bool isElsewhere =
            unknown.chopped(nameOf(unknown).size()) != known.chopped(nameOf(known).size());
    return distance(one, other) * LetterWeight + isElsewhere;
}

// Of words that programs like this one use for the same thing.
QString synonymOf(const QString &unknown)
{
    static const std::vector<std::pair<QLatin1String, QLatin1String>> all{
            {QLatin1String("address"), QLatin1String("ipAddr")},
            {QLatin1String("bind"), QLatin1String("ipAddr")},
            {QLatin1String("ca"), QLatin1String("ssl.CAFile")},
            {QLatin1String("cert"), QLatin1String("ssl.CertFile")},
            {QLatin1String("host"), QLatin1String("ipAddr")},
            {QLatin1String("key"), QLatin1String("ssl.KeyFile")},
            {QLatin1String("listen"), QLatin1String("ipAddr")},
            {QLatin1String("threads"), QLatin1String("threadpoolSize")},
            {QLatin1String("tls"), QLatin1String("ssl")},
            {QLatin1String("workers"), QLatin1String("threadpoolSize")},
    };
    const QString name = nameOf(unknown).toLower();
    const auto found = std::find_if(all.begin(), all.end(),
                                    [&name](const auto &each) { return each.first == name; });
    return found == all.end() ? QString() : QString(found->second);
}

} // namespace

QString nearestKey(const QString &unknown)
{
    QString synonym = synonymOf(unknown);
    if (!synonym.isEmpty())
        return synonym;
    const QStringList keys = keysOf(schema::configuration(), {});
    const auto best = std::min_element(
            keys.begin(), keys.end(), [&unknown](const QString &left, const QString &right) {
                return differenceOf(unknown, left) < differenceOf(unknown, right);
            });
    // A third of it may be wrong, or a letter.
    const QString name = nameOf(unknown).toLower();
    const qsizetype most = std::max<qsizetype>(1, name.size() / 3);
    return distance(name, nameOf(*best).toLower()) <= most ? *best : QString();
}

} // namespace host
