// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QDebug>
#include <QtCore/QString>

#include <type_traits>

namespace hostcheck {

//! Thrown by a check that has found a fault: what is wrong, in one line.
struct Failure
{
    QString text;
};

//! Thrown by a check that cannot be made here: why, in one line.
struct Skip
{
    QString text;
};

inline void require(bool isGood, const QString &otherwise)
{
    if (!isGood)
        throw Failure{otherwise};
}

// what: what was compared.
template<class T>
void requireEqual(const T &got, const std::common_type_t<T> &expected, const QString &what)
{
    require(got == expected,
            QStringLiteral("%1: %2 instead of %3")
                    .arg(what, QDebug::toString(got), QDebug::toString(expected)));
}

} // namespace hostcheck
