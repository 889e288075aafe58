// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/filelines.h"

#include "simulator/escapes.h"

#include <QtCore/QIODevice>

namespace simulator {
namespace {

std::optional<QByteArray> fromHex(QByteArrayView line, QString &error)
{
    QByteArray digits;
    for (const char c : line) {
        if (c != ' ' && c != '\t')
            digits += c;
    }
    const QByteArray bytes = QByteArray::fromHex(digits);
    if (bytes.toHex() == digits.toLower())
        return bytes;
    error = QStringLiteral("not pairs of hexadecimal digits");
    return std::nullopt;
}

} // namespace

std::optional<QByteArray> payloadOf(QByteArrayView line, MessageSyntax syntax, QString &error)
{
    if (syntax == MessageSyntax::Whole)
        return line.toByteArray();
    if (line.endsWith('\r'))
        line.chop(1);
    if (syntax == MessageSyntax::Text)
        return withoutEscapes(line, error);
    return syntax == MessageSyntax::Hex ? fromHex(line, error) : line.toByteArray();
}

bool FileLines::load(QIODevice &file, const QString &name, MessageSyntax syntax,
                     const Framing *framing)
{
    const QByteArray text = file.readAll();
    if (syntax == MessageSyntax::Whole && !text.isEmpty() && !add(text, syntax, framing)) {
        error = QStringLiteral("%1: %2").arg(name, error);
        return false;
    }
    qsizetype at = syntax == MessageSyntax::Whole ? text.size() : 0;
    while (at < text.size()) {
        const qsizetype found = text.indexOf('\n', at);
        const qsizetype end = found < 0 ? text.size() : found;
        if (!add(QByteArrayView(text).sliced(at, end - at), syntax, framing)) {
            error = QStringLiteral("%1, line %2: %3").arg(name).arg(count() + 1).arg(error);
            return false;
        }
        at = end + 1;
    }
    if (payloads.isEmpty())
        error = QStringLiteral("%1: there is no message in it").arg(name);
    return error.isEmpty();
}

bool FileLines::add(QByteArrayView text, MessageSyntax syntax, const Framing *framing)
{
    const auto payload = payloadOf(text, syntax, error);
    if (!payload)
        return false;
    if (framing && !framing->fits(payload->size())) {
        error = QStringLiteral("%1 bytes do not fit the framing").arg(payload->size());
        return false;
    }
    payloads += *payload;
    return true;
}

QByteArray FileLines::line(quint64 number) const
{
    return payloads.at(static_cast<qsizetype>((number - 1) % count()));
}

} // namespace simulator
