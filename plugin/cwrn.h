// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QDebug>
#include <QtCore/QString>
#include <QtCore/QTime>

#include <type_traits>
#include <utility>

/*!
    One log line: constructing it writes "hh:mm:ss.zzz message" to Qt's message output.

    The format's markers %1, %2, ... are filled by one QString::arg() call per argument, in order,
    so a marker that an earlier argument brought in is replaced by a later one. Arguments are
    strings, unsigned short, int, long or long long. Nothing is filtered here.

    Thread: any; no shared state.
*/
class CWRN
{
public:
    template<class... Args>
    CWRN(QtMsgType level, QString format, Args &&...args) : message(std::move(format))
    {
        (substitute(args), ...);
        const QTime now = QTime::currentTime();
        QDebug(level).noquote() << now.toString(QStringLiteral("hh:mm:ss.zzz")) << message;
    }

private:
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
