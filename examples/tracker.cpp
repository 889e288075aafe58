// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// Decodes positions that trackers send, and prints them. A position is 18 bytes, big-endian, behind
// their number in two bytes:
//
//   device        4 bytes
//   time          4 bytes, seconds since 1970
//   latitude      4 bytes, signed, millionths of a degree
//   longitude     4 bytes, likewise
//   checksum      2 bytes, qChecksum() of the 16 bytes before
//
// Arguments: the address and the port to listen on.

#include <plugin/kit/inputsession.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDateTime>
#include <QtCore/QtEndian>

#include <cstdio>

namespace {

constexpr qsizetype PositionBytes = 18;
constexpr qsizetype ChecksumAt = 16;

bool isPosition(QByteArrayView message)
{
    return message.size() == PositionBytes
            && qChecksum(message.first(ChecksumAt))
            == qFromBigEndian<quint16>(message.data() + ChecksumAt);
}

double degrees(const char *bytes)
{
    return qFromBigEndian<qint32>(bytes) / 1e6;
}

void print(const inputkit::InputMessage &message)
{
    if (message.partial)
        return; // the connection has ended in it
    const char *bytes = message.bytes.data();
    const auto time = QDateTime::fromSecsSinceEpoch(qFromBigEndian<quint32>(bytes + 4)).toUTC();
    std::printf("%u %s %.6f %.6f\n", qFromBigEndian<quint32>(bytes),
                qPrintable(time.toString(Qt::ISODate)), degrees(bytes + 8), degrees(bytes + 12));
    std::fflush(stdout);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.size() != 3)
        qFatal("usage: tracker ADDRESS PORT");

    inputkit::InputSettings settings;
    settings.framing = inputkit::checked(
            inputkit::lengthPrefixed(2, QSysInfo::BigEndian, PositionBytes), isPosition);
    settings.handlers.message = print;
    inputkit::InputSession session(settings);
    if (!session.start({{"ipAddr", arguments[1]}, {"port", arguments[2].toInt()}}))
        qFatal("%s", qPrintable(session.errorString()));
    return QCoreApplication::exec();
}
