// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QObject>
#include <QtCore/QSocketNotifier>

namespace simulator {

/*!
    Makes SIGINT, SIGTERM and SIGUSR1 Qt signals.

    Construct it before any other thread exists. It blocks the signals in the calling thread and in
    threads that this one starts, so that they can be read from a descriptor.
*/
class UnixSignals : public QObject
{
    Q_OBJECT

public:
    UnixSignals();
    ~UnixSignals() override;

Q_SIGNALS:
    void stopRequested(); // once for each SIGINT and SIGTERM
    void progressRequested(); // SIGUSR1

private Q_SLOTS:
    void onReadable();

private:
    int fd = -1;
    QSocketNotifier readable{QSocketNotifier::Read};
};

} // namespace simulator
