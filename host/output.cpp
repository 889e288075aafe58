// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/output.h"

#include "plugin/cwrn.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QtEndian>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>

namespace host {
namespace {

constexpr qsizetype FlushAboveBytes = 64 * 1024;
constexpr int StallMs = 1000; // a warning comes if nothing was written for so long
constexpr qsizetype KeepAtMostBytes = 1024 * 1024; // of a batch's memory, for the next one

void appendNumber(QByteArray &json, qint64 number)
{
    std::array<char, 24> digits;
    const char *const end = std::to_chars(digits.begin(), digits.end(), number).ptr;
    json.append(digits.data(), end - digits.data());
}

void appendEscape(QByteArray &json, char byte)
{
    if (byte == '"' || byte == '\\') {
        json += '\\';
        json += byte;
    } else if (byte == '\n') {
        json += "\\n";
    } else if (byte == '\r') {
        json += "\\r";
    } else if (byte == '\t') {
        json += "\\t";
    } else {
        json += "\\u00";
        json += QByteArray(1, byte).toHex();
    }
}

// utf8: any valid UTF-8; it needs no other encoding in JSON.
void appendText(QByteArray &json, QByteArrayView utf8)
{
    const auto needsEscape = [](char byte) {
        return byte == '"' || byte == '\\' || static_cast<unsigned char>(byte) < 0x20;
    };
    json += '"';
    for (const char *begin = utf8.begin(); begin != utf8.end();) {
        const char *const end = std::find_if(begin, utf8.end(), needsEscape);
        json.append(QByteArrayView(begin, end));
        begin = end;
        if (begin != utf8.end())
            appendEscape(json, *begin++);
    }
    json += '"';
}

void appendJson(QByteArray &json, const Message &message)
{
    json += message.head;
    json += "\"bytes\":";
    appendNumber(json, message.bytes.size());
    if (message.bytes.isValidUtf8()) {
        json += ",\"text\":";
        appendText(json, message.bytes);
    } else {
        json += ",\"base64\":\"";
        json += message.bytes.toByteArray().toBase64();
        json += '"';
    }
    json += message.partial ? ",\"partial\":true}\n" : "}\n";
}

void appendRaw(QByteArray &destination, const Message &message, Framing framing)
{
    // A reader could not tell it from a whole message.
    if (message.partial)
        return;

    if (framing == Framing::Length) {
        const quint32 size = qToBigEndian(static_cast<quint32>(message.bytes.size()));
        destination.append(reinterpret_cast<const char *>(&size), sizeof size);
    }
    destination += message.bytes;
    if (framing == Framing::Lines)
        destination += '\n';
}

} // namespace

Output::Output(OutputFormat outputFormat, Framing inputFraming, int outputDescriptor)
    : format(outputFormat),
      framing(inputFraming),
      stream(outputDescriptor)
{}

QByteArray Output::headOf(const Origin &origin) const
{
    if (!showsOrigins())
        return {};

    QByteArray json = "{";
    const auto addText = [&json](const char *name, const QString &text) {
        json += name;
        appendText(json, text.toUtf8());
        json += ',';
    };
    const auto addNumber = [&json](const char *name, int number) {
        json += name;
        appendNumber(json, number);
        json += ',';
    };
    addText("\"time\":", origin.time.toUTC().toString(Qt::ISODate));
    addText("\"plugin\":", origin.plugin);
    addText("\"source\":", origin.source);
    addText("\"peer\":", origin.peer);
    addNumber("\"port\":", origin.port);
    addText("\"client\":", origin.client);
    addNumber("\"task\":", origin.task.toInt());
    return json;
}

void Output::write(const Message &message)
{
    if (format == OutputFormat::Json)
        appendJson(pending, message);
    else if (format == OutputFormat::Raw)
        appendRaw(pending, message, framing);
    scheduleFlush();
}

void Output::writeCount(const QString &line)
{
    if (format != OutputFormat::Count)
        return;

    pending += line.toUtf8() + '\n';
    scheduleFlush();
}

void Output::flush()
{
    flushScheduled = false;
    const int error = broken ? 0 : writeAll(pending);
    if (pending.capacity() > KeepAtMostBytes)
        pending.clear();
    else
        pending.resize(0);
    if (error == 0)
        return;

    broken = true;
    Q_EMIT failed(QString::fromLocal8Bit(std::strerror(error)));
}

// Returns 0 or the error number.
int Output::writeAll(QByteArrayView bytes)
{
    QElapsedTimer stalledSince; // valid while nothing can be written
    bool told = false;
    while (!bytes.isEmpty()) {
        const qsizetype written = stream.write(bytes);
        if (written < 0)
            return errno;
        bytes = bytes.sliced(written);
        if (written == 0) {
            if (!stalledSince.isValid())
                stalledSince.start();
            if (!stream.waitUntilWritable(told ? -1 : StallMs)) {
                told = true;
                CWRN(QtWarningMsg,
                     QStringLiteral("Nobody reads standard output: everything waits for that"));
            }
        } else {
            if (told)
                CWRN(QtWarningMsg, QStringLiteral("Standard output is read again, after %1 ms"),
                     stalledSince.elapsed());
            told = false;
            stalledSince.invalidate();
        }
    }
    return 0;
}

void Output::scheduleFlush()
{
    if (pending.size() > FlushAboveBytes)
        flush();
    if (pending.isEmpty() || flushScheduled)
        return;

    // The queued flush() comes after the records that wait already.
    flushScheduled = true;
    QMetaObject::invokeMethod(this, &Output::flush, Qt::QueuedConnection);
}

} // namespace host
