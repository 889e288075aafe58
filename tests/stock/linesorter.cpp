// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "linesorter.h"

#include <QtCore/QRegularExpression>

LineSorter::LineSorter(quint16 listening, const QHash<quint16, int> &numbers, bool ownThreads)
    : port(listening),
      byPort(numbers),
      own(ownThreads)
{
    for (auto entry = numbers.cbegin(); entry != numbers.cend(); ++entry)
        ports.insert(*entry, entry.key());
}

QStringList LineSorter::sort(const std::vector<RawLine> &lines, std::vector<Trace> &traces)
{
    for (const RawLine &raw : lines) {
        if (own && raw.line.text.startsWith(QLatin1String("D: TcpTask2: new connection")))
            byThread.insert(raw.line.thread, numberByPort(raw.line.text));
    }
    QStringList others;
    for (const RawLine &raw : lines) {
        const int number = numberOf(raw);
        const QString text = withoutNumbers(raw.line.text, number);
        if (number < 0 && raw.line.thread == QThread::currentThreadId())
            others += text;
        if (number >= 0)
            traces[std::size_t(number)].lines.append({raw.line.order, raw.line.at, text});
    }
    return others;
}

QString LineSorter::sortedStatus(const QString &status) const
{
    QStringList result;
    const QStringList parts = status.split(QStringLiteral("\r\n"));
    for (const QString &part : parts) {
        const int number = numberByPort(part);
        const QString text = withoutNumbers(part, number);
        result += number < 0 ? text : QStringLiteral("%1, connection %2").arg(text).arg(number);
    }
    result.sort(); // the order of the ids differs from run to run
    return result.join(QLatin1Char('\n'));
}

int LineSorter::numberOf(const RawLine &raw) const
{
    if (raw.calledFor >= 0)
        return raw.calledFor;
    const int byId = numberByPort(raw.line.text);
    return byId >= 0 ? byId : byThread.value(raw.line.thread, -1);
}

int LineSorter::numberByPort(const QString &text) const
{
    static const QRegularExpression ofDevice(
            QStringLiteral("tcp2:[0-9.]+:\\d+-[0-9.]+:(\\d+)|TCP READ: .*:(\\d+)\\)$"));
    const auto match = ofDevice.match(text);
    if (!match.hasMatch())
        return -1;
    return byPort.value((match.captured(1) + match.captured(2)).toUShort(), -1);
}

QString LineSorter::withoutNumbers(const QString &text, int connection) const
{
    static const QRegularExpression threadId(QStringLiteral("\\d{10,}$"));
    if (!text.isEmpty() && text.front().isLower())
        return text.left(3) + QStringLiteral("of Qt's own");
    QString result = text;
    if (connection >= 0)
        result.replace(QRegularExpression(QStringLiteral(":%1\\b").arg(ports.value(connection))),
                       QStringLiteral(":device"));
    result.replace(QRegularExpression(QStringLiteral("(:|port )%1\\b").arg(port)),
                   QStringLiteral("\\1port"));
    return result.replace(threadId, QStringLiteral("T"));
}
