// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QByteArrayView>
#include <QtCore/QRandomGenerator>

#include <initializer_list>

/*!
    Reads a row of bytes as decisions. The same bytes make the same decisions, whether they come
    from a generator with a known seed or from a fuzzer. After the last byte, each decision is the
    first of its options.
*/
class Choices
{
public:
    explicit Choices(QByteArrayView row) : script(row) {}

    static QByteArray random(quint32 seed)
    {
        QRandomGenerator generator(seed);
        QByteArray row(generator.bounded(40, 240), Qt::Uninitialized);
        for (char &byte : row)
            byte = static_cast<char>(generator.bounded(256));
        return row;
    }

    bool isEmpty() const { return script.isEmpty(); }

    // A number from 0 to limit - 1. limit: 256 at most.
    int below(int limit)
    {
        if (script.isEmpty())
            return 0;
        const int byte = static_cast<uchar>(script.front());
        script = script.sliced(1);
        return byte % limit;
    }

    template<class T>
    T of(std::initializer_list<T> values)
    {
        return values.begin()[below(static_cast<int>(values.size()))];
    }

private:
    QByteArrayView script;
};
