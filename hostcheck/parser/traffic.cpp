// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "hostcheck/parser/traffic.h"

#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <random>

namespace hostcheck {
namespace {

constexpr int MostMessages = 1000000;
constexpr int LongestMessage = 1 << 20;
constexpr qint64 LongestDescribed = 1 << 28; // bytes of all messages of a line

void findEnds(Traffic &traffic)
{
    traffic.areEndsKnown = true;
    qsizetype position = 0;
    const QByteArrayView bytes(traffic.bytes);
    while (const qsizetype length = traffic.framing->next(bytes.sliced(position))) {
        position += length;
        traffic.ends.push_back(position);
    }
}

// Printable, now and then what framings trip over.
QByteArray randomContent(qsizetype size, std::minstd_rand &random)
{
    static const QByteArray special("\0\r\n\xff\x01\x02\x03\x10\x80", 9);
    QByteArray content;
    content.reserve(size);
    while (content.size() < size) {
        const auto number = static_cast<int>(random() % 1000);
        content += number < 50 ? special[number % special.size()]
                               : static_cast<char>('!' + number % 94);
    }
    return content;
}

} // namespace

Traffic TrafficReader::readStream(const QString &file, const QString &framing,
                                  const QString &lengthsFile)
{
    Traffic traffic;
    traffic.name = QFileInfo(file).fileName();
    traffic.bytes = readFile(file);
    if (!framing.isEmpty()) {
        traffic.framing = Framing::read(framing);
        if (traffic.framing)
            findEnds(traffic);
        else
            fail(QStringLiteral("no such framing: %1").arg(framing));
    }
    if (lengthsFile.isEmpty())
        return traffic;

    traffic.areEndsKnown = true;
    qsizetype position = 0;
    const QByteArrayList lengths = readFile(lengthsFile).simplified().split(' ');
    for (const QByteArray &text : lengths) {
        bool ok = false;
        const qlonglong length = text.toLongLong(&ok);
        if (!ok || length < 1 || length > traffic.bytes.size() - position) {
            fail(QStringLiteral("%1: no length, or beyond the stream: %2")
                         .arg(lengthsFile, QString::fromLocal8Bit(text)));
            return traffic;
        }
        position += static_cast<qsizetype>(length);
        traffic.ends.push_back(position);
    }
    return traffic;
}

Traffic TrafficReader::readDescription(const QString &file)
{
    Traffic traffic;
    traffic.name = QFileInfo(file).fileName();
    const QStringList lines = QString::fromUtf8(readFile(file)).split(QLatin1Char('\n'));
    for (const QString &line : lines) {
        if (!line.trimmed().isEmpty() && !line.startsWith(QLatin1Char('#')))
            describe(traffic, line);
    }
    if (!traffic.framing)
        fail(QStringLiteral("%1: no framing").arg(file));
    if (error.isEmpty())
        findEnds(traffic);
    return traffic;
}

void TrafficReader::describe(Traffic &traffic, const QString &line)
{
    const QString word = line.section(QLatin1Char(' '), 0, 0).trimmed();
    const QString rest = line.section(QLatin1Char(' '), 1);
    if (word == QLatin1String("framing")) {
        traffic.framing = Framing::read(rest);
        if (traffic.framing)
            return;
    } else if (!traffic.framing) {
        fail(QStringLiteral("the framing has to come first, before: %1").arg(line));
        return;
    } else if (word == QLatin1String("text")) {
        traffic.bytes += traffic.framing->wrap(rest.toUtf8());
        return;
    } else if (word == QLatin1String("hex")) {
        traffic.bytes += traffic.framing->wrap(QByteArray::fromHex(rest.toLatin1()));
        return;
    } else if (word == QLatin1String("messages")) {
        addMessages(traffic, rest.simplified().split(QLatin1Char(' ')));
        return;
    }
    fail(QStringLiteral("not understood: %1").arg(line));
}

void TrafficReader::addMessages(Traffic &traffic, const QStringList &words)
{
    const QStringList sizes = words.value(1).split(QLatin1Char('-'));
    bool isCount = false;
    bool isLeast = false;
    bool isMost = false;
    const int count = words.first().toInt(&isCount);
    const int least = sizes.first().toInt(&isLeast);
    const int most = sizes.last().toInt(&isMost);
    if (words.size() != 2 || sizes.size() > 2 || !isCount || !isLeast || !isMost || count < 1
        || count > MostMessages || least < 0 || most < least || most > LongestMessage) {
        fail(QStringLiteral("not COUNT SIZE or COUNT SIZE-SIZE: %1")
                     .arg(words.join(QLatin1Char(' '))));
        return;
    }
    if (qint64(count) * most > LongestDescribed) {
        fail(QStringLiteral("more than 256 MiB: %1").arg(words.join(QLatin1Char(' '))));
        return;
    }
    // The same bytes in each run. Another line of the description has others.
    std::minstd_rand random(static_cast<unsigned>(traffic.bytes.size()) + 1);
    for (int i = 0; i < count; ++i) {
        int size = least + static_cast<int>(random() % static_cast<unsigned>(most - least + 1));
        if (i < 2)
            size = i == 0 ? most : least; // both are there, the longest one first
        traffic.bytes += traffic.framing->wrap(randomContent(size, random));
    }
}

QByteArray TrafficReader::readFile(const QString &file)
{
    QFile opened(file);
    if (!opened.open(QIODevice::ReadOnly)) {
        fail(QStringLiteral("%1: %2").arg(file, opened.errorString()));
        return {};
    }
    return opened.readAll();
}

void TrafficReader::fail(const QString &text)
{
    if (error.isEmpty())
        error = text;
}

} // namespace hostcheck
