// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/framing.h"
#include "simulator/messagetemplate.h"

#include <QtCore/QCommandLineParser>
#include <QtCore/QList>
#include <QtCore/QString>
#include <QtNetwork/QHostAddress>

#include <cmath>
#include <limits>
#include <optional>

namespace simulator {

//! A name on the command line, and what it stands for.
template<class T>
struct Choice
{
    const char *name;
    T value;
};

/*!
    Takes typed values out of the parsed command line, and remembers the first error.
*/
class OptionReader
{
public:
    explicit OptionReader(const QCommandLineParser &source) : parser(source) {}

    bool isSet(const char *name) const { return parser.isSet(QLatin1String(name)); }
    QString text(const char *name) const { return parser.value(QLatin1String(name)); }
    QString error() const { return firstError; }

    void fail(const QString &message)
    {
        if (firstError.isEmpty())
            firstError = message;
    }

    template<class T>
    void number(const char *name, T &value, T min, T max = std::numeric_limits<T>::max())
    {
        if (!isSet(name))
            return;
        if (const auto parsed = toNumber(text(name), min, max))
            value = *parsed;
        else
            fail(QStringLiteral("--%1: not a number in range: %2")
                         .arg(QLatin1String(name), text(name)));
    }

    void string(const char *name, QString &value)
    {
        if (isSet(name))
            value = text(name);
    }

    template<class T, std::size_t N>
    void choice(const char *name, T &value, const Choice<T> (&choices)[N])
    {
        if (!isSet(name))
            return;
        QStringList names;
        for (const Choice<T> &one : choices) {
            names.append(QLatin1String(one.name));
            if (text(name) == names.last()) {
                value = one.value;
                return;
            }
        }
        fail(QStringLiteral("--%1: unknown value: %2; it takes %3")
                     .arg(QLatin1String(name), text(name), names.join(QStringLiteral(", "))));
    }

    void pause(int &min, int &max);
    void speed(double &factor);
    void mutation(std::optional<quint32> &seed);
    void framing(Framing &framing);
    void messageTemplate(std::optional<MessageTemplate> &read);
    void sources(QList<QHostAddress> &addresses);

private:
    template<class T>
    static std::optional<T> toNumber(const QString &text, T min, T max)
    {
        bool ok = false;
        if constexpr (std::is_floating_point_v<T>) {
            const T value = text.toDouble(&ok);
            return ok && std::isfinite(value) && value >= min && value <= max
                    ? std::optional<T>(value)
                    : std::nullopt;
        } else if constexpr (std::is_signed_v<T>) {
            const qlonglong value = text.toLongLong(&ok);
            return ok && value >= min && value <= max ? std::optional<T>(static_cast<T>(value))
                                                      : std::nullopt;
        } else {
            const qulonglong value = text.toULongLong(&ok);
            return ok && value >= min && value <= max ? std::optional<T>(static_cast<T>(value))
                                                      : std::nullopt;
        }
    }

    void sourceRange(const QString &range, QList<QHostAddress> &addresses);

    const QCommandLineParser &parser;
    QString firstError;
};

} // namespace simulator
