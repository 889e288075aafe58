// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QProcess>
#include <QtCore/QRegularExpression>
#include <QtCore/QStringList>
#include <QtTest/QTest>

// Data rows with environments for a program. Each names the locale in another way, or not at all.
// In none of them may the program complain about the locale.
inline void localeRows()
{
    const QStringList none = QProcess::systemEnvironment().filter(
            QRegularExpression(QStringLiteral("^(?!LC_|LANG=)")));
    QTest::addColumn<QStringList>("environment");
    QTest::newRow("none") << none;
    for (const char *given :
         {"LANG=C", "LC_CTYPE=POSIX", "LC_ALL=C", "LC_ALL=nowhere", "LC_ALL=C.UTF-8", "LC_ALL="})
        QTest::newRow(given) << none + QStringList(QString::fromLatin1(given));
}
