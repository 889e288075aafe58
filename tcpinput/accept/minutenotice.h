// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QString>
#include <QtCore/QTimer>

/*!
    Tells how often something has happened, at most once a minute: at the first time at once, of
    what follows when the minute is over.

    Thread: one.
    Owner:  as a member.
*/
class MinuteNotice : public QObject
{
    Q_OBJECT

public:
    static constexpr int MinuteMs = 60000;

    // intervalMs: a minute, but for tests.
    explicit MinuteNotice(int intervalMs = MinuteMs);

    // details: of this time. Emits due() at once, or later.
    void add(const QString &details);
    // Emits due() now, if anything is untold; then begins anew.
    void finish();

    // How often it has happened since this was made.
    quint64 total() const { return all; }

Q_SIGNALS:
    // count: how often since the last time that this was emitted; more than 0. latest: its details.
    void due(quint64 count, const QString &latest);

private:
    void tell();

    QTimer timer; // runs for a minute after each notice
    quint64 all = 0;
    quint64 untold = 0;
    QString latest;
};
