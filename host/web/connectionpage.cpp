// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/web/connectionpage.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace host {
namespace {

using Entry = ConnectionPage::Entry;

constexpr std::pair<const char *, ConnectionQuery::Order> OrderNames[] = {
        {"number", ConnectionQuery::Number}, {"device", ConnectionQuery::Device},
        {"since", ConnectionQuery::Since},   {"bytes", ConnectionQuery::Bytes},
        {"unsafe", ConnectionQuery::Unsafe}, {"last", ConnectionQuery::Last},
};

bool readOrder(QString name, ConnectionQuery &query)
{
    query.descending = name.startsWith(QLatin1Char('-'));
    if (query.descending)
        name.remove(0, 1);
    for (const auto &[known, order] : OrderNames) {
        if (name == QLatin1String(known)) {
            query.order = order;
            return true;
        }
    }
    return false;
}

bool readNumber(const QString &text, qsizetype maximum, qsizetype &value)
{
    bool ok = false;
    value = static_cast<qsizetype>(text.toLongLong(&ok));
    return ok && value >= 0 && value <= maximum;
}

// Negative, 0 or positive, as the first is before the second.
template<class Value>
int compared(const Value &one, const Value &other)
{
    return one < other ? -1 : int(other < one);
}

int compared(const ConnectionRow &one, const ConnectionRow &other, ConnectionQuery::Order order)
{
    switch (order) {
    case ConnectionQuery::Device: {
        const int addresses = one.peer.compare(other.peer);
        return addresses ? addresses : compared(one.port, other.port);
    }
    case ConnectionQuery::Since:
        return compared(one.sinceMs, other.sinceMs);
    case ConnectionQuery::Bytes:
        return compared(one.bytes, other.bytes);
    case ConnectionQuery::Unsafe:
        return compared(unsafeBytes(one), unsafeBytes(other));
    case ConnectionQuery::Last:
        return compared(one.lastMs, other.lastMs);
    case ConnectionQuery::Number:
        break;
    }
    return 0;
}

} // namespace

std::optional<ConnectionQuery> ConnectionQuery::parse(const QString &offset, const QString &limit,
                                                      const QString &sort, const QString &search,
                                                      QString &fault)
{
    ConnectionQuery query;
    if (!offset.isNull() && !readNumber(offset, std::numeric_limits<int>::max(), query.offset))
        fault = QStringLiteral("offset takes a number from 0 on");
    else if (!limit.isNull() && !readNumber(limit, MostRows, query.limit))
        fault = QStringLiteral("limit takes a number from 0 to %1").arg(MostRows);
    else if (!sort.isNull() && !readOrder(sort, query))
        fault = QStringLiteral("sort takes number, device, since, bytes, unsafe or last, or one of "
                               "these behind a minus");
    else if (search.size() > LongestSearch)
        fault = QStringLiteral("search takes up to %1 characters").arg(LongestSearch);
    if (!fault.isEmpty())
        return {};
    query.search = search;
    return query;
}

ConnectionPage pageOf(const ConnectionRows &rows, const ConnectionQuery &query)
{
    QList<Entry> found;
    found.reserve(rows.size());
    for (auto row = rows.constBegin(); row != rows.constEnd(); ++row) {
        if (query.search.isEmpty() || deviceText(*row).contains(query.search, Qt::CaseInsensitive))
            found.append({row.key(), &*row});
    }

    const auto isBefore = [&query](const Entry &one, const Entry &other) {
        const int order = compared(*one.row, *other.row, query.order);
        if (order == 0)
            return (one.number < other.number)
                    != (query.descending && query.order == ConnectionQuery::Number);
        return (order < 0) != query.descending;
    };
    const qsizetype begin = std::min(query.offset, found.size());
    const qsizetype end = std::min(begin + query.limit, found.size());
    std::partial_sort(found.begin(), found.begin() + end, found.end(), isBefore);
    return {rows.size(), found.size(), found.mid(begin, end - begin)};
}

QString deviceText(const ConnectionRow &row)
{
    const bool needsBrackets = row.peer.contains(QLatin1Char(':'));
    return (needsBrackets ? QStringLiteral("[%1]:%2") : QStringLiteral("%1:%2"))
            .arg(row.peer)
            .arg(row.port);
}

quint64 unsafeBytes(const ConnectionRow &row)
{
    return row.bytes - std::min(row.bytes, row.safe);
}

} // namespace host
