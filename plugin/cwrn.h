// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QDateTime>
#include <QtCore/QString>
#include <QtCore/qlogging.h>

#include <type_traits>
#include <utility>

/*!
    One log line: constructing it writes "hh:mm:ss.zzz message" to Qt's message output.

    The format's markers %1, %2, ... are filled by one QString::arg() call per argument, in order,
    so a marker that an earlier argument brought in is replaced by a later one. Arguments are
    strings, unsigned short, int, long or long long. Nothing is filtered here.

    Thread: any; no state is shared between threads.
*/
class CWRN
{
public:
    template<class... Args>
    CWRN(QtMsgType level, QString format, Args &&...args) : message(std::move(format))
    {
        (substitute(args), ...);
        // As QDebug does at its end, without its stream.
        qt_message_output(level, QMessageLogContext(), localTime() + QLatin1Char(' ') + message);
    }

private:
    // Now as hh:mm:ss.zzz. Each thread keeps its latest second: conversion to local time costs more
    // than all the rest of a line, and a device that comes and goes causes a dozen lines at once.
    static QString localTime()
    {
        thread_local qint64 secondShown = -1;
        thread_local QTime time;
        const qint64 now = QDateTime::currentMSecsSinceEpoch();
        if (now / 1000 != secondShown) {
            secondShown = now / 1000;
            time = QDateTime::fromMSecsSinceEpoch(now).time();
        }
        QString text = QStringLiteral("hh:mm:ss.zzz");
        QChar *const digits = text.data();
        putDigits(digits, 2, time.hour());
        putDigits(digits + 3, 2, time.minute());
        putDigits(digits + 6, 2, time.second());
        putDigits(digits + 9, 3, static_cast<int>(now % 1000));
        return text;
    }

    static void putDigits(QChar *first, int count, int value)
    {
        for (QChar *digit = first + count; digit != first; value /= 10)
            *--digit = QLatin1Char(static_cast<char>('0' + value % 10));
    }

    template<class T>
    void substitute(const T &value)
    {
        static_assert(std::is_convertible_v<T, QString> || std::is_integral_v<T>);
        if constexpr (std::is_convertible_v<T, QString>)
            message = message.arg(QString(value));
        else if constexpr (std::is_unsigned_v<T>)
            message = message.arg(static_cast<qulonglong>(value));
        else
            message = message.arg(static_cast<qlonglong>(value));
    }

    QString message;
};
