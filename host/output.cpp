// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/output.h"

#include <QtCore/QtEndian>

#include <cerrno>
#include <cstring>

#include <poll.h>
#include <unistd.h>

namespace host {
namespace {

constexpr qsizetype FlushAboveBytes = 64 * 1024;

//! One JSON object as a line. Its members keep the order in which they are added.
class JsonLine
{
public:
    explicit JsonLine(QByteArray &destination) : line(destination) { line += '{'; }
    ~JsonLine() { line += "}\n"; }
    Q_DISABLE_COPY(JsonLine)

    // value: JSON, a number or a literal
    void addPlain(const char *name, QByteArrayView value)
    {
        addName(name);
        line += value;
    }

    // utf8: any valid UTF-8; it needs no other encoding in JSON.
    void addText(const char *name, QByteArrayView utf8)
    {
        addName(name);
        line += '"';
        for (const char byte : utf8)
            addEscaped(byte);
        line += '"';
    }

private:
    void addName(const char *name)
    {
        if (!line.endsWith('{'))
            line += ',';
        line += '"';
        line += name;
        line += "\":";
    }

    void addEscaped(char byte)
    {
        if (byte == '"' || byte == '\\') {
            line += '\\';
            line += byte;
        } else if (byte == '\n') {
            line += "\\n";
        } else if (byte == '\r') {
            line += "\\r";
        } else if (byte == '\t') {
            line += "\\t";
        } else if (static_cast<unsigned char>(byte) < 0x20) {
            line += "\\u00";
            line += QByteArray(1, byte).toHex();
        } else {
            line += byte;
        }
    }

    QByteArray &line;
};

void addContent(JsonLine &json, QByteArrayView bytes)
{
    json.addPlain("bytes", QByteArray::number(bytes.size()));
    if (bytes.isValidUtf8())
        json.addText("text", bytes);
    else
        json.addText("base64", bytes.toByteArray().toBase64());
}

void appendJson(QByteArray &destination, const Message &message)
{
    const Origin &origin = message.origin;
    JsonLine json(destination);
    json.addText("time", origin.time.toUtf8());
    json.addText("plugin", origin.plugin.toUtf8());
    json.addText("source", origin.source.toUtf8());
    json.addText("peer", origin.peer.toUtf8());
    json.addPlain("port", QByteArray::number(origin.port));
    json.addText("client", origin.client.toUtf8());
    json.addPlain("task", QByteArray::number(origin.task.toInt()));
    addContent(json, message.bytes);
    if (message.partial)
        json.addPlain("partial", "true");
}

void appendRaw(QByteArray &destination, const Message &message, Framing framing)
{
    // Among whole messages a reader could not tell it.
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

// Standard output may be shared with a program that has made it non-blocking.
void waitUntilWritable(int descriptor)
{
    pollfd request = {descriptor, POLLOUT, 0};
    ::poll(&request, 1, -1);
}

// 0, or the error number.
int writeAll(int descriptor, QByteArrayView bytes)
{
    while (!bytes.isEmpty()) {
        const ssize_t written =
                ::write(descriptor, bytes.data(), static_cast<size_t>(bytes.size()));
        if (written >= 0)
            bytes = bytes.sliced(written);
        else if (errno == EAGAIN)
            waitUntilWritable(descriptor);
        else if (errno != EINTR)
            return errno;
    }
    return 0;
}

} // namespace

Output::Output(OutputFormat outputFormat, Framing inputFraming, int outputDescriptor)
    : format(outputFormat),
      framing(inputFraming),
      descriptor(outputDescriptor)
{}

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
    const QByteArray batch = std::exchange(pending, {});
    if (broken)
        return;

    if (const int error = writeAll(descriptor, batch)) {
        broken = true;
        Q_EMIT failed(QString::fromLocal8Bit(std::strerror(error)));
    }
}

void Output::scheduleFlush()
{
    if (pending.size() > FlushAboveBytes)
        flush();
    if (pending.isEmpty() || flushScheduled)
        return;

    // Its turn comes when the records that wait already are handled.
    flushScheduled = true;
    QMetaObject::invokeMethod(this, &Output::flush, Qt::QueuedConnection);
}

} // namespace host
