// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "hostcheck/program/hostrun.h"

#include "hostcheck/progress.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>

#include <algorithm>

#include <sys/resource.h>

namespace hostcheck {
namespace {

constexpr int TickMs = 10;
// A pause where there is nothing to wait for: long enough that the host sees the pieces apart.
constexpr int PauseMs = 20;
// Then no more devices are played: every further one would take as long.
constexpr int MostStalls = 20;
constexpr int StartMs = 30000;
constexpr int StopMs = 20000;
constexpr size_t MostDevices = 1500;
constexpr size_t OtherDescriptors = 64;
constexpr qsizetype LongestLog = 2000;

size_t possibleDevices()
{
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return OtherDescriptors;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    return std::clamp<size_t>(limit.rlim_cur - OtherDescriptors, 1, MostDevices);
}

quint16 freePort()
{
    QTcpServer probe;
    return probe.listen(QHostAddress::LocalHost) ? probe.serverPort() : quint16(0);
}

} // namespace

HostRun::HostRun(const QString &command, const Framing &messageFraming, int patienceMs)
    : commandText(command),
      framing(messageFraming),
      stallMs(patienceMs),
      mostDevices(possibleDevices())
{
    connect(&process, &QProcess::readyReadStandardOutput, this, &HostRun::readOutput);
    connect(&process, &QProcess::readyReadStandardError, this, &HostRun::readLog);
    connect(&process, &QProcess::finished, this, &HostRun::processEnded);
    connect(&ticker, &QTimer::timeout, this, &HostRun::tick);
}

HostRun::~HostRun()
{
    isStopping = true;
    if (process.state() == QProcess::NotRunning)
        return;
    process.kill();
    process.waitForFinished(StopMs);
}

std::vector<PlayResult> HostRun::run(const std::vector<Play> &all)
{
    plays = &all;
    results.assign(all.size(), {});
    port = freePort();
    QStringList words = QProcess::splitCommand(
            QString(commandText).replace(QLatin1String("{port}"), QString::number(port)));
    if (words.isEmpty())
        words += QString();
    const QString program = words.takeFirst();
    process.start(program, words);
    if (!process.waitForStarted(StartMs)) {
        complaint = QStringLiteral("%1: %2").arg(program, process.errorString());
        return results;
    }
    if (awaitListening()) {
        ticker.start(TickMs);
        tick();
        loop.exec();
        ticker.stop();
    }
    stopHost();
    return results;
}

bool HostRun::awaitListening()
{
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < StartMs && process.state() == QProcess::Running) {
        QTcpSocket probe;
        probe.connectToHost(QHostAddress(QHostAddress::LocalHost), port);
        if (probe.waitForConnected(StartMs))
            return true;
        process.waitForReadyRead(PauseMs);
    }
    if (complaint.isEmpty())
        complaint = QStringLiteral("the host does not listen on port %1: %2")
                            .arg(port)
                            .arg(QString::fromLocal8Bit(log).trimmed());
    return false;
}

void HostRun::tick()
{
    for (auto &device : devices) {
        if (advance(*device))
            device.reset();
    }
    devices.erase(std::remove(devices.begin(), devices.end(), nullptr), devices.end());
    if (stalls >= MostStalls)
        nextPlay = plays->size();
    openDevices();
    Progress::show(QStringLiteral("devices"), static_cast<qint64>(nextPlay - devices.size()),
                   static_cast<qint64>(plays->size()));
    if (devices.empty() || !complaint.isEmpty())
        loop.quit();
}

void HostRun::openDevices()
{
    while (devices.size() < mostDevices && nextPlay < plays->size())
        open(nextPlay++);
}

void HostRun::open(size_t play)
{
    auto device = std::make_unique<Device>();
    device->play = play;
    device->socket = std::make_unique<QTcpSocket>();
    QTcpSocket *socket = device->socket.get();
    connect(socket, &QTcpSocket::connected, this,
            [this, opened = device.get()] { connected(*opened); });
    device->sinceSent.start();
    socket->connectToHost(QHostAddress(QHostAddress::LocalHost), port);
    devices.push_back(std::move(device));
}

void HostRun::connected(Device &device)
{
    device.socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    device.isConnected = true;
    playOfPort[device.socket->localPort()] = device.play;
    results[device.play].wasPlayed = true;
    sendPiece(device);
}

void HostRun::sendPiece(Device &device)
{
    const Play &play = (*plays)[device.play];
    const qsizetype end =
            device.nextCut < play.cuts.size() ? play.cuts.at(device.nextCut) : play.bytes.size();
    ++device.nextCut;
    device.socket->write(play.bytes.constData() + device.sent, end - device.sent);
    device.socket->flush();
    device.sent = end;
    device.sinceSent.start();
}

// Whether the host has printed all that it could by now, or there was nothing to print.
bool HostRun::mayGoOn(const Device &device)
{
    const QByteArray sent = (*plays)[device.play].bytes.first(device.sent);
    const auto due = framing.contents(sent).size();
    return device.sinceSent.elapsed() >= PauseMs && results[device.play].messages.size() >= due;
}

bool HostRun::advance(Device &device)
{
    const bool isLate = device.sinceSent.elapsed() >= stallMs;
    if (!device.isConnected) {
        stalls += isLate ? 1 : 0;
        return isLate;
    }
    const Play &play = (*plays)[device.play];
    const bool isAllSent = device.sent == play.bytes.size();
    if (isAllSent && play.closesAtOnce && !device.isClosed) {
        device.isClosed = true;
        device.socket->disconnectFromHost();
    }
    if (!mayGoOn(device) && !isLate)
        return false;
    if (isLate) {
        results[device.play].hasStalled = true;
        ++stalls;
    }
    if (isAllSent || isLate)
        return true; // the socket's destructor closes it
    sendPiece(device);
    return false;
}

void HostRun::readOutput()
{
    output += process.readAllStandardOutput();
    qsizetype begin = 0;
    while (const qsizetype end = output.indexOf('\n', begin) + 1) {
        readLine(output.mid(begin, end - begin));
        begin = end;
    }
    output.remove(0, begin);
}

void HostRun::readLine(const QByteArray &line)
{
    const QJsonObject message = QJsonDocument::fromJson(line).object();
    const auto play = playOfPort.find(message.value(QLatin1String("port")).toInt(-1));
    if (play == playOfPort.end() || message.value(QLatin1String("partial")).toBool())
        return;
    const QJsonValue text = message.value(QLatin1String("text"));
    const QString base64 = message.value(QLatin1String("base64")).toString();
    results[play->second].messages +=
            text.isString() ? text.toString().toUtf8() : QByteArray::fromBase64(base64.toLatin1());
}

void HostRun::readLog()
{
    log = (log + process.readAllStandardError()).right(LongestLog);
}

void HostRun::processEnded()
{
    readOutput();
    readLog();
    if (isStopping)
        return;
    const QString how = process.exitStatus() == QProcess::CrashExit
            ? QStringLiteral("crashed")
            : QStringLiteral("ended with status %1").arg(process.exitCode());
    complaint =
            QStringLiteral("the host has %1: %2").arg(how, QString::fromLocal8Bit(log).trimmed());
    loop.quit();
}

// When the host has ended, it has printed all that it ever will.
void HostRun::stopHost()
{
    isStopping = true;
    devices.clear();
    if (process.state() == QProcess::NotRunning)
        return;
    process.terminate();
    if (process.waitForFinished(StopMs))
        return;
    complaint = QStringLiteral("the host does not end on SIGTERM");
    process.kill();
    process.waitForFinished(StopMs);
}

} // namespace hostcheck
