// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "simulator/framing.h"
#include "simulator/messagetemplate.h"

#include <QtCore/QList>
#include <QtCore/QString>
#include <QtCore/QStringList>
#include <QtNetwork/QHostAddress>

#include <optional>

namespace simulator {

// How a line of a file stands for a payload.
enum class MessageSyntax {
    Text, // with escapes
    Plain, // as it is
    Hex,
    Whole, // the whole file is one payload, line ends included
};
enum class Segments { Whole, Byte, Random, Blocks };
enum class CloseMode { Close, HalfClose, Abort, Stay };
enum class OutputFormat { Text, Json };
enum class TlsVersion { Any, OneTwo, OneThree };
enum class Fault { None, Silent, Garbage, AbortHandshake, CloseNotifyOnly, CloseWithoutReading };

struct TlsOptions
{
    bool enabled = false;
    QString caFile; // empty: the system's certificate authorities
    QString certFile; // empty: no client certificate
    QString keyFile;
    QString serverName; // empty: the host as it was given
    TlsVersion version = TlsVersion::Any;
    bool insecure = false;
    bool resume = false;
    int recordSize = 0; // most plaintext bytes of a record; 0: as large as TLS allows
};

/*!
    What a run of the simulator does: the command line as values, checked for contradictions.
*/
struct Options
{
    QString host = QStringLiteral("127.0.0.1");
    quint16 port = 7446;
    QList<QHostAddress> sources; // bound to in turn; empty: the kernel chooses

    quint64 connections = 1;
    quint64 parallel = 0; // at most so many open at once; 0: no limit
    quint64 opening = 0; // at most so many devices connecting at once; 0: no limit
    double connectRate = 0; // per second; 0: no limit
    int connectTimeoutMs = 30000; // connecting and TLS handshake together

    quint64 messages = 1; // per device; 0: until stopped
    quint64 reconnect = 0;
    bool countsMessages = false; // the count was given
    int size = 64;
    Framing framing;
    QString messagesFrom; // a file, or - for standard input; empty: none
    MessageSyntax messagesAs = MessageSyntax::Text;
    std::optional<MessageTemplate> messageTemplate;
    QString scriptFile; // empty: none
    double rate = 0; // messages per second and device; 0: no limit

    Segments segments = Segments::Whole;
    quint32 seed = 1;
    int pauseMinMs = 0;
    int pauseMaxMs = 0;

    CloseMode close = CloseMode::Close;
    int lingerMs = -1; // -1: no limit
    Fault fault = Fault::None;
    TlsOptions tls;

    QString replayFile; // empty: the devices' messages are made
    double speed = 1; // of the replay; 0: as fast as it goes
    std::optional<quint32> mutateSeed; // nothing: the bytes are as recorded

    OutputFormat output = OutputFormat::Text;
    bool quiet = false;
    std::optional<bool> progress; // nothing: on a terminal
    bool checksum = true;

    bool readsInput() const { return messagesFrom == QLatin1String("-"); }

    // Devices that send garbage or nothing make no handshake.
    bool startsTls() const
    {
        return tls.enabled && fault != Fault::Silent && fault != Fault::Garbage;
    }
};

struct ParsedOptions
{
    Options options;
    QString text; // to be printed instead of a run: help or version
    QString error; // to be printed instead of a run: what is wrong with the command line
};

// arguments: with the program's name first. Needs the application object.
ParsedOptions parseOptions(const QStringList &arguments);

} // namespace simulator
