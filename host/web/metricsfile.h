// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QObject>
#include <QtCore/QString>
#include <QtCore/QTimer>

#include <chrono>

namespace host {

class Bulletin;

/*!
    Writes the metrics to a file, again and again: for a collector that reads files. The file is
    replaced at once, so no reader sees half of it. It is removed at the end: what it says is no
    longer so.

    Thread: its creator's, with an event loop; not the host's, since disks are slow.
    Owner:  the caller, also of the bulletin, which has a snapshot.
*/
class MetricsFile : public QObject
{
    Q_OBJECT

public:
    static constexpr std::chrono::milliseconds DefaultInterval{5000};

    MetricsFile(Bulletin &published, QString file);
    ~MetricsFile() override;

    // Writes the first one. False: errorString() says why. Later failures are told of once each
    // time, and tried again.
    bool start(std::chrono::milliseconds interval = DefaultInterval);
    QString errorString() const { return error; }

private:
    bool write();
    void writeAgain();

    Bulletin &bulletin;
    const QString fileName;
    QTimer timer{this};
    QString error;
    bool failing = false;
};

} // namespace host
