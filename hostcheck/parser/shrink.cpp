// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "hostcheck/parser/shrink.h"

#include <QtCore/QStringList>

#include <algorithm>

namespace hostcheck {
namespace {

constexpr qsizetype MostDumped = 256;
constexpr qsizetype BytesALine = 16;

QString lineOf(const QByteArray &bytes, qsizetype position)
{
    const QByteArray part = bytes.mid(position, BytesALine);
    QString text;
    for (const char c : part)
        text += c >= ' ' && c <= '~' ? QLatin1Char(c) : QLatin1Char('.');
    return QStringLiteral("    %1  %2  %3")
            .arg(position, 4, 16, QLatin1Char('0'))
            .arg(QString::fromLatin1(part.toHex(' ')), -3 * static_cast<int>(BytesALine) + 1)
            .arg(text);
}

} // namespace

QByteArray shrink(QByteArray input, const std::function<bool(const QByteArray &)> &shows,
                  int mostTries)
{
    int tries = 0;
    for (qsizetype piece = std::max<qsizetype>(input.size() / 2, 1); piece > 0; piece /= 2) {
        bool hasShrunk = true;
        while (hasShrunk) {
            hasShrunk = false;
            // From the end: what comes behind the fault goes first.
            for (qsizetype at = input.size() - piece; at >= 0; at -= piece) {
                if (++tries > mostTries)
                    return input;
                QByteArray smaller = input;
                smaller.remove(at, piece);
                if (!shows(smaller))
                    continue;
                input = smaller;
                hasShrunk = true;
            }
        }
    }
    return input;
}

QByteArray shrinkMessages(const QByteArray &input, const Framing &framing,
                          const std::function<bool(const QByteArray &)> &shows, int mostTries)
{
    QByteArrayList contents = framing.contents(input);
    qsizetype whole = 0;
    while (const qsizetype length = framing.next(QByteArrayView(input).sliced(whole)))
        whole += length;
    const QByteArray rest = input.mid(whole);
    const auto framed = [&](const QByteArrayList &all) {
        QByteArray bytes;
        for (const QByteArray &content : all)
            bytes += framing.wrap(content);
        return bytes + rest;
    };
    if (!shows(framed(contents))) // escaped in another way than we do it
        return input;

    for (qsizetype i = contents.size(); i-- > 0;) {
        QByteArrayList others = contents;
        others.removeAt(i);
        if (shows(framed(others))) {
            contents = others;
            continue;
        }
        const auto showsWith = [&](const QByteArray &content) {
            contents[i] = content;
            return shows(framed(contents));
        };
        contents[i] = shrink(QByteArray(contents.at(i)), showsWith, mostTries);
    }
    return framed(contents);
}

QString hexDump(const QByteArray &bytes)
{
    QStringList lines;
    for (qsizetype at = 0; at < std::min(bytes.size(), MostDumped); at += BytesALine)
        lines += lineOf(bytes, at);
    if (bytes.size() > MostDumped)
        lines += QStringLiteral("    ... %1 bytes more").arg(bytes.size() - MostDumped);
    return lines.join(QLatin1Char('\n'));
}

} // namespace hostcheck
