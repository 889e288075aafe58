// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/streamformat.h"

#include "host/harmless.h"

#include <QtCore/QtEndian>

#include <algorithm>
#include <array>
#include <charconv>

namespace host {
namespace {

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

// The first byte, or a character that begins with it. Returns how many bytes were taken.
qsizetype appendOther(QByteArray &json, QByteArrayView utf8)
{
    const char byte = utf8.front();
    if (const qsizetype size = sizeOfHarmful(utf8); size > 0) {
        json += jsonEscape(utf8.first(size));
        return size;
    }
    if (static_cast<unsigned char>(byte) >= 0x80)
        json += byte;
    else
        appendEscape(json, byte);
    return 1;
}

// utf8: any valid UTF-8. What a terminal would obey is escaped beside what JSON wants.
void appendText(QByteArray &json, QByteArrayView utf8)
{
    const auto isAscii = [](char byte) {
        return byte != '"' && byte != '\\' && byte >= 0x20 && byte < 0x7f;
    };
    json += '"';
    for (const char *begin = utf8.begin(); begin != utf8.end();) {
        const char *const end = std::find_if_not(begin, utf8.end(), isAscii);
        json.append(QByteArrayView(begin, end));
        begin = end;
        if (begin != utf8.end())
            begin += appendOther(json, QByteArrayView(begin, utf8.end()));
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

} // namespace

QByteArray StreamFormat::headOf(const Origin &origin) const
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

void StreamFormat::append(QByteArray &destination, const Message &message) const
{
    if (kind == Json)
        appendJson(destination, message);
    else if (!message.partial)
        appendRaw(destination, message);
}

void StreamFormat::appendRaw(QByteArray &destination, const Message &message) const
{
    if (framing == Framing::Length) {
        const quint32 size = qToBigEndian(static_cast<quint32>(message.bytes.size()));
        destination.append(reinterpret_cast<const char *>(&size), sizeof size);
    }
    destination += message.bytes;
    if (framing == Framing::Lines)
        destination += '\n';
}

} // namespace host
