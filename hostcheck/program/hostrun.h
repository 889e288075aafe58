// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "hostcheck/parser/framing.h"
#include "hostcheck/program/play.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QEventLoop>
#include <QtCore/QHash>
#include <QtCore/QObject>
#include <QtCore/QProcess>
#include <QtCore/QTimer>

#include <memory>
#include <unordered_map>
#include <vector>

class QTcpSocket;

namespace hostcheck {

/*!
    One run of a host program: starts it, plays devices on it, many side by side, and ends it. What
   it prints until it has ended is taken as its answer.

    Thread: the main thread, with an event loop.
    Owner:  the caller.
*/
class HostRun : public QObject
{
    Q_OBJECT

public:
    // command: {port} in it becomes a free port of 127.0.0.1. patienceMs: after so long without
    // what is due, the host has stalled.
    HostRun(const QString &command, const Framing &messageFraming, int patienceMs);
    ~HostRun() override;

    // Returns when all is over. The results are in the order of the plays.
    std::vector<PlayResult> run(const std::vector<Play> &plays);
    // Empty, or why the host is to blame for plays that were not played.
    QString error() const { return complaint; }

private Q_SLOTS:
    void readOutput();
    void readLog();
    void processEnded();
    void tick();

private:
    //! A connection that is open, or is being opened.
    struct Device
    {
        size_t play = 0;
        std::unique_ptr<QTcpSocket> socket;
        qsizetype sent = 0; // bytes
        qsizetype nextCut = 0; // index
        QElapsedTimer sinceSent;
        bool isConnected = false;
        bool isClosed = false;
    };

    bool awaitListening();
    void openDevices();
    void open(size_t play);
    void connected(Device &device);
    // Does what is next for a device. True if it is done.
    bool advance(Device &device);
    void sendPiece(Device &device);
    bool mayGoOn(const Device &device);
    void readLine(const QByteArray &line);
    void stopHost();

    QString commandText;
    Framing framing;
    int stallMs;
    quint16 port = 0;
    QProcess process;
    QTimer ticker;
    QEventLoop loop; // runs while devices are played
    QByteArray output; // an unfinished line
    QByteArray log; // the end of what the host has written to standard error
    QString complaint;
    bool isStopping = false;

    const std::vector<Play> *plays = nullptr;
    std::vector<PlayResult> results;
    std::vector<std::unique_ptr<Device>> devices;
    std::unordered_map<int, size_t> playOfPort; // the latest one
    size_t nextPlay = 0;
    size_t mostDevices = 0;
    int stalls = 0;
};

} // namespace hostcheck
