// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QByteArrayView>
#include <QtCore/QtEndian>

#include <optional>

namespace host {

//! An array of one dimension in PostgreSQL's binary form, for a parameter of a statement.
class PostgresArray
{
public:
    // The types' numbers, which are the same on all servers.
    enum Type { Bool = 16, Bytes = 17, Integer = 20, Text = 25, Time = 1184 };

    explicit PostgresArray(Type elementType)
    {
        appendNumber(qint32(1)); // dimension
        appendNumber(qint32(1)); // there may be nulls
        appendNumber(static_cast<qint32>(elementType));
        appendNumber(qint32(0)); // elements: see bytes()
        appendNumber(qint32(1)); // the first one's index
    }

    void appendNull()
    {
        appendNumber(qint32(-1));
        ++count;
    }
    void append(QByteArrayView element)
    {
        appendNumber(static_cast<qint32>(element.size()));
        content += element;
        ++count;
    }
    void appendBool(bool element)
    {
        const char byte = element ? 1 : 0;
        append(QByteArrayView(&byte, 1));
    }
    void appendInteger(qint64 element)
    {
        appendNumber(qint32(sizeof element));
        appendNumber(element);
        ++count;
    }
    // Milliseconds since the beginning of 1970; PostgreSQL counts microseconds since that of 2000.
    void appendTime(qint64 element)
    {
        constexpr qint64 Year2000 = 946684800000;
        appendInteger((element - Year2000) * 1000);
    }
    void appendTime(const std::optional<qint64> &element)
    {
        if (element)
            appendTime(*element);
        else
            appendNull();
    }

    // The whole of it. Nothing is appended any more.
    const QByteArray &bytes()
    {
        qToBigEndian(count, content.data() + CountOffset);
        return content;
    }

private:
    static constexpr qsizetype CountOffset = 3 * sizeof(qint32);

    template<class Number>
    void appendNumber(Number number)
    {
        char bytes[sizeof number];
        qToBigEndian(number, bytes);
        content.append(bytes, sizeof bytes);
    }

    QByteArray content;
    qint32 count = 0;
};

} // namespace host
