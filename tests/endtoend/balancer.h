// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/kit/hangguard.h"
#include "tests/kit/serving.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QProcess>
#include <QtCore/QTemporaryDir>
#include <QtCore/QtEndian>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QLocalSocket>

#include <memory>

// Whether a process of this machine listens on the IPv4 address and port. Finds out without a
// connection.
inline bool isListening(const QHostAddress &address, quint16 port)
{
    QFile table(QStringLiteral("/proc/net/tcp"));
    if (!table.open(QIODevice::ReadOnly))
        return false;
    const QString local = QStringLiteral(" %1:%2 00000000:0000 0A ")
                                  .arg(qToBigEndian(address.toIPv4Address()), 8, 16, QChar(u'0'))
                                  .arg(port, 4, 16, QChar(u'0'));
    return QString::fromLatin1(table.readAll()).contains(local, Qt::CaseInsensitive);
}

/*!
    A load balancer from a Debian package. It runs as one process in the foreground, with a
    configuration in a temporary folder. The destructor kills it.
*/
class Balancer
{
public:
    Balancer() : folder(QDir::tempPath() + QStringLiteral("/balancer-XXXXXX")) {}
    ~Balancer()
    {
        process.kill();
        process.waitForFinished(HangGuardMs);
    }
    Q_DISABLE_COPY_MOVE(Balancer)

    QString path(const QString &name) const { return folder.filePath(name); }

    // Returns when the balancer listens. False if it ends before.
    bool start(const QString &program, const QStringList &arguments, const QString &configuration,
               const QHostAddress &address, quint16 port)
    {
        QFile file(path(QStringLiteral("configuration")));
        if (!file.open(QIODevice::WriteOnly) || file.write(configuration.toUtf8()) < 0)
            return false;
        file.close();
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(program, arguments + QStringList(file.fileName()));
        const bool came = serveUntil([&] {
            return isListening(address, port) || process.state() == QProcess::NotRunning;
        });
        return came && process.state() == QProcess::Running;
    }
    QByteArray output() { return process.readAll(); }

    // The answer of haproxy to a command at its command socket.
    QByteArray ask(const QByteArray &command) const
    {
        QLocalSocket socket;
        socket.connectToServer(path(QStringLiteral("commands")));
        socket.write(command + '\n');
        QByteArray answer;
        while (socket.waitForReadyRead(HangGuardMs))
            answer += socket.readAll();
        return answer + socket.readAll();
    }

private:
    QTemporaryDir folder;
    QProcess process;
};
