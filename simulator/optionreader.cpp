// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/optionreader.h"

namespace simulator {
namespace {

constexpr double MaxSpeed = 100;
constexpr double AsFastAsItGoes = 0; // as a speed
constexpr quint32 MaxSources = 65536;

} // namespace

void OptionReader::pause(int &min, int &max)
{
    if (!isSet("pause-ms"))
        return;
    const QStringList limits = text("pause-ms").split(QLatin1Char('-'));
    const auto from = toNumber<int>(limits.first(), 0, std::numeric_limits<int>::max());
    const auto to = toNumber<int>(limits.last(), 0, std::numeric_limits<int>::max() - 1);
    if (limits.size() > 2 || !from || !to || *from > *to)
        return fail(QStringLiteral("--pause-ms: not MIN-MAX: %1").arg(text("pause-ms")));
    min = *from;
    max = *to;
}

void OptionReader::speed(double &factor)
{
    if (text("speed") == QLatin1String("max"))
        factor = AsFastAsItGoes;
    else
        number<double>("speed", factor, 1, MaxSpeed);
}

void OptionReader::mutation(std::optional<quint32> &seed)
{
    quint32 value = 0;
    number<quint32>("mutate", value, 0);
    if (isSet("mutate"))
        seed = value;
}

void OptionReader::framing(Framing &framing)
{
    if (!isSet("framing"))
        return;
    if (const auto read = Framing::read(text("framing")))
        framing = *read;
    else
        fail(QStringLiteral("--framing: unknown value: %1; it takes lines, crlf, length [BYTES "
                            "[big|little [all]]], fixed BYTES [FILL], marks START END [ESCAPE "
                            "[FLIP]], hdlc, none")
                     .arg(text("framing")));
}

void OptionReader::messageTemplate(std::optional<MessageTemplate> &read)
{
    if (!isSet("template"))
        return;
    QString error;
    read = MessageTemplate::read(text("template").toUtf8(), error);
    if (!read)
        fail(QStringLiteral("--template: %1").arg(error));
}

void OptionReader::sources(QList<QHostAddress> &addresses)
{
    const QStringList ranges = parser.values(QStringLiteral("bind"));
    for (const QString &range : ranges)
        sourceRange(range, addresses);
}

void OptionReader::sourceRange(const QString &range, QList<QHostAddress> &addresses)
{
    const QStringList limits = range.split(QLatin1Char('-'));
    const QHostAddress first(limits.first());
    if (limits.size() == 1 && !first.isNull()) {
        addresses.append(first);
        return;
    }
    bool firstOk = false;
    bool lastOk = false;
    const quint32 from = first.toIPv4Address(&firstOk);
    const quint32 to = QHostAddress(limits.last()).toIPv4Address(&lastOk);
    if (limits.size() != 2 || !firstOk || !lastOk || from > to || to - from >= MaxSources)
        return fail(
                QStringLiteral("--bind: neither an address nor a range of them: %1").arg(range));
    for (quint32 offset = 0; offset <= to - from; ++offset)
        addresses.append(QHostAddress(from + offset));
}

} // namespace simulator
