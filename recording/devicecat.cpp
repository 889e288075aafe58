// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// The program devicecat: shows a recording.

#include "programs/encoding.h"
#include "recording/entryprinter.h"
#include "recording/recordingreader.h"

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QFile>

#include <cstdio>
#include <optional>

using namespace recording;

namespace {

enum ExitStatus {
    Clean = 0,
    NotReadable = 1,
    Usage = 2,
    Torn = 3,
    Damaged = 4,
    OutputFailed = 5,
};

const char Notes[] = R"(
Each line has the time in UTC, what it was, and for most the number of the connection and how many of
its bytes came before. Bytes that are not printable ASCII are shown as \n, \r, \t, or \x and two
hexadecimal digits; a quote or backslash has a backslash before it. With --json:
    session  time, continues, payload
    begin    time, connection, position, peer, peerPort, local, localPort, wasOpen
    bytes    time, connection, position, bytes, and text (valid UTF-8) or base64
    length   time, connection, position, bytes
    end      time, connection, position, reason
    gap      time, bytes, entries: what the recorder could not write
Connections have their numbers within a session.

Exit status: 0 the recording is whole; 1 it cannot be read, or is no recording; 2 wrong command line;
3 it ends within an entry: it is still being written, or the recorder was killed; 4 it is damaged;
5 standard output failed. With 3 and 4, all that is whole was shown.
)";

//! What the command line asks for.
struct Request
{
    QString fileName;
    EntryStyle style = EntryStyle::Text;
    std::optional<quint64> connection; // nothing: all
    QString answer; // to be printed instead: help or version
    QString error; // likewise: what is wrong with the command line
};

Request parse(const QStringList &arguments)
{
    const QCommandLineOption hex(QStringLiteral("hex"),
                                 QStringLiteral("Shows bytes in hexadecimal."));
    const QCommandLineOption json(QStringLiteral("json"), QStringLiteral("One object a line."));
    const QCommandLineOption only(QStringLiteral("connection"),
                                  QStringLiteral("Shows only this one."), QStringLiteral("number"));
    const QCommandLineOption help({QStringLiteral("h"), QStringLiteral("help")},
                                  QStringLiteral("Shows this text."));
    const QCommandLineOption version({QStringLiteral("v"), QStringLiteral("version")},
                                     QStringLiteral("Shows the version."));
    QCommandLineParser parser;
    parser.setApplicationDescription(
            QStringLiteral("Shows a recording that inputhost --record has made."));
    parser.addPositionalArgument(QStringLiteral("file"), QStringLiteral("The recording."));
    parser.addOptions({hex, json, only, help, version});

    Request request;
    if (!parser.parse(arguments))
        request.error = parser.errorText();
    else if (parser.isSet(help))
        request.answer = parser.helpText() + QLatin1String(Notes);
    else if (parser.isSet(version))
        request.answer = QCoreApplication::applicationName() + QLatin1Char(' ')
                + QCoreApplication::applicationVersion() + QLatin1Char('\n');
    else if (parser.positionalArguments().size() != 1)
        request.error = QStringLiteral("One file, please.");
    else if (parser.isSet(hex) && parser.isSet(json))
        request.error = QStringLiteral("Either --hex or --json.");
    if (!request.error.isEmpty() || !request.answer.isEmpty())
        return request;

    request.fileName = parser.positionalArguments().constFirst();
    if (parser.isSet(hex))
        request.style = EntryStyle::Hex;
    else if (parser.isSet(json))
        request.style = EntryStyle::Json;
    if (parser.isSet(only)) {
        bool isNumber = false;
        request.connection = parser.value(only).toULongLong(&isNumber);
        if (!isNumber)
            request.error = QStringLiteral("--connection wants a number.");
    }
    return request;
}

int complain(const QString &text, ExitStatus status)
{
    std::fputs(("devicecat: " + text.toLocal8Bit() + '\n').constData(), stderr);
    return status;
}

bool isWanted(const Entry &entry, const Request &request)
{
    const bool isOfAll = entry.type == Entry::Session || entry.type == Entry::Gap;
    return !request.connection || isOfAll || entry.connection == *request.connection;
}

ExitStatus statusOf(RecordingReader::State state)
{
    switch (state) {
    case RecordingReader::State::CleanEnd:
        return Clean;
    case RecordingReader::State::TornEnd:
        return Torn;
    case RecordingReader::State::Damaged:
        return Damaged;
    default:
        return NotReadable;
    }
}

int show(const Request &request)
{
    QFile file(request.fileName);
    if (!file.open(QIODevice::ReadOnly))
        return complain(request.fileName + QStringLiteral(": ") + file.errorString(), NotReadable);
    RecordingReader reader(file);
    while (const auto entry = reader.next()) {
        if (!isWanted(*entry, request))
            continue;
        const QByteArray text = printed(*entry, request.style);
        const auto size = static_cast<std::size_t>(text.size());
        if (std::fwrite(text.constData(), 1, size, stdout) != size)
            return complain(QStringLiteral("cannot write to standard output"), OutputFailed);
    }
    if (std::fflush(stdout) != 0)
        return complain(QStringLiteral("cannot write to standard output"), OutputFailed);
    if (reader.state() == RecordingReader::State::CleanEnd)
        return Clean;
    return complain(request.fileName + QStringLiteral(": ") + reader.errorString(),
                    statusOf(reader.state()));
}

} // namespace

int main(int argc, char **argv)
{
    programs::settleEncoding();
    const QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("devicecat"));
    QCoreApplication::setApplicationVersion(QStringLiteral(DEVICECAT_VERSION));

    const Request request = parse(QCoreApplication::arguments());
    if (!request.error.isEmpty())
        return complain(request.error + QStringLiteral(" Try devicecat --help."), Usage);
    if (!request.answer.isEmpty()) {
        std::fputs(request.answer.toLocal8Bit().constData(), stdout);
        return Clean;
    }
    return show(request);
}
