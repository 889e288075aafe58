// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "recording/finishedfiles.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <algorithm>

namespace recording {
namespace {

// 0 if it is none of ours.
int numberOf(QStringView suffix)
{
    const int number = suffix.toInt();
    const bool isOurs = number > 0 && number <= FinishedFiles::LastNumber
            && suffix == QString::number(number); // no sign, no zero before it
    return isOurs ? number : 0;
}

} // namespace

FinishedFiles::FinishedFiles(const QString &name) : fileName(name)
{
    const QFileInfo info(fileName);
    const QString prefix = info.fileName() + QLatin1Char('.');
    const QStringList names = info.dir().entryList(QDir::AllEntries | QDir::Hidden | QDir::System);
    for (const QString &other : names) {
        const int number =
                other.startsWith(prefix) ? numberOf(QStringView(other).sliced(prefix.size())) : 0;
        if (number == 0)
            continue;
        numbers.append(number);
        newest = std::max(newest, number);
    }
}

QString FinishedFiles::next() const
{
    return newest < LastNumber ? numbered(newest + 1) : QString();
}

void FinishedFiles::removeAllBut(int keep) const
{
    for (const int number : numbers) {
        if (newest + 1 - number >= keep)
            QFile::remove(numbered(number));
    }
}

QString FinishedFiles::numbered(int number) const
{
    return fileName + QLatin1Char('.') + QString::number(number);
}

} // namespace recording
