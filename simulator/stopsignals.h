// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QObject>
#include <QtCore/QSocketNotifier>

/*!
    Makes SIGINT and SIGTERM Qt signals.

    Construct before any other thread exists: the signals are blocked in the calling thread, and in
    those it starts, so that they can be read from a descriptor.
*/
class StopSignals : public QObject
{
    Q_OBJECT

public:
    StopSignals();
    ~StopSignals() override;

Q_SIGNALS:
    void stopRequested(); // once for each signal

private Q_SLOTS:
    void onReadable();

private:
    int fd = -1;
    QSocketNotifier readable{QSocketNotifier::Read};
};
