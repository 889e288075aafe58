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
        message.reserve(front().size() + format.size() + LengthOfMostArguments);
        message += front();
        message += format;
        (substitute(args), ...);
        writeTime();
        // QDebug's destructor does the same; this saves its stream.
        qt_message_output(level, QMessageLogContext(), message);
    }

private:
    // Where the time will stand.
    static constexpr QLatin1String front() { return QLatin1String("hh:mm:ss.zzz "); }

    // Writes the time in its place at the front. Each thread caches the local time of its latest
    // second: the conversion costs more than the rest of the line, and one short connection logs a
    // dozen lines.
    void writeTime()
    {
        thread_local qint64 secondShown = -1;
        thread_local QTime time;
        const qint64 now = QDateTime::currentMSecsSinceEpoch();
        if (now / 1000 != secondShown) {
            secondShown = now / 1000;
            time = QDateTime::fromMSecsSinceEpoch(now).time();
        }
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
            substituteByQt(value);
    }

    template<class T>
    void substituteNumber(T value)
    {
        char ascii[24];
        QChar text[sizeof ascii];
        char *const end = std::to_chars(std::begin(ascii), std::end(ascii), value).ptr;
        std::transform(ascii, end, text, [](char c) { return QLatin1Char(c); });
        if (!replaceSoleMarker(QStringView(text, end - ascii)))
            substituteByQt(value);
    }

    // Qt's warning of a missing marker shows the text, without a time.
    template<class T>
    void substituteByQt(const T &value)
    {
        message = front() + message.sliced(front().size()).arg(value);
    }

    // Replaces the lowest marker in place, with the result that QString::arg() has. False for the
    // rare formats that need arg() itself: no marker or several with the lowest number, or an 'L'
    // or a non-ASCII character within two characters behind a '%'.
    bool replaceSoleMarker(QStringView value)
    {
        const char16_t *const begin = QStringView(message).utf16();
        const char16_t *const end = begin + message.size();
        const char16_t *marker = nullptr;
        const char16_t *behindMarker = nullptr;
        int lowest = 100;
        for (const char16_t *at = std::find(begin + front().size(), end, u'%'); at != end;
             at = std::find(at + 1, end, u'%')) {
            const char16_t *const longest = at + 1 + qMin<qsizetype>(2, end - at - 1);
            const auto isOdd = [](char16_t c) { return c > 127 || c == u'L'; };
            if (std::any_of(at + 1, longest, isOdd))
                return false;
            int number = 0;
            const char16_t *digit = at + 1;
            for (; digit != longest && *digit >= u'0' && *digit <= u'9'; ++digit)
                number = number * 10 + (*digit - u'0');
            if (digit == at + 1)
                continue;
            if (number < lowest) {
                lowest = number;
                marker = at;
                behindMarker = digit;
            } else if (number == lowest) {
                marker = nullptr;
            }
        }
        if (!marker)
            return false;
        message.replace(marker - begin, behindMarker - marker, value.data(), value.size());
        return true;
    }

    static constexpr qsizetype LengthOfMostArguments = 100;

    QString message;
};
