// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QObject>
#include <QtCore/QTimer>

namespace simulator {

class Fleet;
struct Run;

/*!
    Shows on standard error how far a run is: in the last line of a terminal, elsewhere as a line a
    second.

    Thread: the main thread.
*/
class Progress : public QObject
{
    Q_OBJECT

public:
    // Whether the options ask for it. Without them: on a terminal, unless messages are typed there.
    static bool isWanted(const Run &run);

    // The rate as the line shows it: a whole number, in digits alone.
    static QString rateText(double perSecond);

    // Begins at once. Both outlive it.
    Progress(const Run &sharedRun, const Fleet &shownFleet);

private Q_SLOTS:
    void show();

private:
    QString text();

    const Run &run;
    const Fleet &fleet;
    const double allMessages; // 0: nobody knows
    QTimer timer;
    qint64 lastMs = 0; // when the rate was measured, and what had been sent by then
    quint64 lastMessages = 0;
    double perSecond = 0;
};

} // namespace simulator
