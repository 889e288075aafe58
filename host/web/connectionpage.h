// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/web/connectionrow.h"

#include <QtCore/QList>
#include <QtCore/QString>

#include <optional>

namespace host {

//! Which connections somebody wants to see, in which order.
struct ConnectionQuery
{
    enum Order { Number, Device, Since, Bytes, Unsafe, Last };

    static constexpr qsizetype MostRows = 500;
    static constexpr qsizetype DefaultRows = 100;
    static constexpr qsizetype LongestSearch = 100;

    qsizetype offset = 0;
    qsizetype limit = DefaultRows; // up to MostRows; 0: only the number
    Order order = Number;
    bool descending = false;
    QString search; // part of "address:port", upper and lower case alike; empty: all

    // The values of offset=, limit=, sort= and search=; a null text was not given. sort: the name
    // of a column, with "-" before it for the largest first. Nothing, and fault says why: one
    // cannot be understood.
    static std::optional<ConnectionQuery> parse(const QString &offset, const QString &limit,
                                                const QString &sort, const QString &search,
                                                QString &fault);
};

//! What is shown of them.
struct ConnectionPage
{
    struct Entry
    {
        quint64 number = 0;
        const ConnectionRow *row = nullptr; // of the rows that were given
    };

    qsizetype total = 0; // all rows
    qsizetype matching = 0; // those that the search finds
    QList<Entry> entries;
};

// rows: outlives the page. Rows that are alike in the column that is sorted by are in the order of
// their numbers.
ConnectionPage pageOf(const ConnectionRows &rows, const ConnectionQuery &query);

// "address:port", an IPv6 address in brackets.
QString deviceText(const ConnectionRow &row);
// Bytes that were read and are not known to be safe.
quint64 unsafeBytes(const ConnectionRow &row);

} // namespace host
