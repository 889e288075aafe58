// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QList>
#include <QtCore/QString>

namespace recording {

/*!
    The files that a recording had before its present one: "name.1", "name.2" and so on. Other
    names, "name.0", "name.01" or "name.20261123" for example, are others' files.

    Thread: one at a time.
*/
class FinishedFiles
{
public:
    static constexpr int LastNumber = 9'999'999; // a date has more digits

    // Looks them up once.
    explicit FinishedFiles(const QString &fileName);

    // The name behind the newest. Empty: no number is left.
    QString next() const;

    // Deletes all but the newest. keep: how many of them stay, next() included; at least 1.
    void removeAllBut(int keep) const;

private:
    QString numbered(int number) const;

    const QString fileName;
    QList<int> numbers;
    int newest = 0; // 0: none
};

} // namespace recording
