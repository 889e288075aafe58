// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QDateTime>
#include <QtCore/QString>
#include <QtCore/qlogging.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <type_traits>
#include <utility>

/*!
    One log line: constructing it writes "hh:mm:ss.zzz message" to Qt's message output.

    Each argument replaces the markers with the lowest number (%1, %2, ...), as one call of
    QString::arg() does. So a marker inside an argument's text is replaced by a later argument.
    Arguments are strings, unsigned short, int, long or long long. No line is filtered out.

    Thread: any; no state is shared between threads.
*/
class CWRN
{
public:
    template<class... Args>
    CWRN(QtMsgType level, const QString &format, Args &&...args)
    {
        message.reserve(TimeLength + 1 + format.size() + LengthOfMostArguments);
        message += format;
        (substitute(args), ...);
        prependTime();
        // QDebug's destructor does the same; this saves its stream.
        qt_message_output(level, QMessageLogContext(), message);
    }

private:
    // Prepends the time as hh:mm:ss.zzz. Each thread caches the local time of its latest second:
    // the conversion costs more than the rest of the line, and one short connection logs a dozen
    // lines.
    void prependTime()
    {
        thread_local qint64 secondShown = -1;
        thread_local QTime time;
        const qint64 now = QDateTime::currentMSecsSinceEpoch();
        if (now / 1000 != secondShown) {
            secondShown = now / 1000;
            time = QDateTime::fromMSecsSinceEpoch(now).time();
        }
        message.prepend(QLatin1String("hh:mm:ss.zzz "));
        QChar *const digits = message.data();
        putDigits(digits, 2, time.hour());
        putDigits(digits + 3, 2, time.minute());
        putDigits(digits + 6, 2, time.second());
        putDigits(digits + 9, 3, static_cast<int>(now % 1000));
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
            substituteText(value);
        else if constexpr (std::is_unsigned_v<T>)
            substituteNumber(static_cast<qulonglong>(value));
        else
            substituteNumber(static_cast<qlonglong>(value));
    }

    void substituteText(const QString &value)
    {
        if (!replaceSoleMarker(value))
            message = message.arg(value);
    }

    template<class T>
    void substituteNumber(T value)
    {
        char ascii[24];
        QChar text[sizeof ascii];
        char *const end = std::to_chars(std::begin(ascii), std::end(ascii), value).ptr;
        std::transform(ascii, end, text, [](char c) { return QLatin1Char(c); });
        if (!replaceSoleMarker(QStringView(text, end - ascii)))
            message = message.arg(value);
    }

    // Replaces the lowest marker in place, with the result that QString::arg() has. False for the
    // rare formats that need arg() itself: no marker or several with the lowest number, or an 'L'
    // or a non-ASCII character within two characters behind a '%'.
    bool replaceSoleMarker(QStringView value)
    {
        constexpr QLatin1Char Percent('%');
        qsizetype place = -1;
        qsizetype length = 0;
        int lowest = 100;
        for (qsizetype at = message.indexOf(Percent); at >= 0;
             at = message.indexOf(Percent, at + 1)) {
            const QStringView behind = QStringView(message).sliced(at + 1).first(
                    qMin<qsizetype>(2, message.size() - at - 1));
            const auto isOdd = [](QChar c) { return c.unicode() > 127 || c == QLatin1Char('L'); };
            if (std::any_of(behind.begin(), behind.end(), isOdd))
                return false;
            const auto digits =
                    static_cast<qsizetype>(std::find_if_not(behind.begin(), behind.end(),
                                                            [](QChar c) { return c.isDigit(); })
                                           - behind.begin());
            if (digits == 0)
                continue;
            int number = 0;
            for (const QChar digit : behind.first(digits))
                number = number * 10 + digit.digitValue();
            if (number < lowest) {
                lowest = number;
                place = at;
                length = 1 + digits;
            } else if (number == lowest) {
                place = -1;
            }
        }
        if (place < 0)
            return false;
        message.replace(place, length, value.data(), value.size());
        return true;
    }

    static constexpr qsizetype TimeLength = 12;
    static constexpr qsizetype LengthOfMostArguments = 100;

    QString message;
};
