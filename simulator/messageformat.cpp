// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/messageformat.h"

#include "simulator/randomsource.h"

namespace simulator {
namespace {

constexpr int LetterCount = 26;

QByteArray manyLetters(int count)
{
    QByteArray letters(count, Qt::Uninitialized);
    for (int i = 0; i < count; ++i)
        letters[i] = static_cast<char>('a' + i % LetterCount);
    return letters;
}

} // namespace

MessageFormat::MessageFormat(const Options &options)
    : framing(options.framing),
      size(options.size),
      isGarbage(options.fault == Fault::Garbage),
      seed(options.seed),
      letters(manyLetters(options.size + LetterCount))
{}

bool MessageFormat::append(QByteArray &out, quint64 device, quint64 number) const
{
    if (!isGarbage)
        return framing.append(out, payload(device, number));
    out += garbage(device, number);
    return true;
}

qsizetype MessageFormat::usualBytes() const
{
    return qMax<qsizetype>(1, size + framing.overhead());
}

QByteArray MessageFormat::payload(quint64 device, quint64 number) const
{
    QByteArray text;
    text.reserve(size);
    text += 'd' + QByteArray::number(device) + '-' + QByteArray::number(number);
    if (text.size() >= size)
        return text;
    text += ' ';
    // The padding of neighbouring messages begins with different letters, so that a lost or doubled
    // byte shows.
    const auto start = static_cast<qsizetype>(number % LetterCount);
    text.append(letters.constData() + start, size - text.size());
    return text;
}

QByteArray MessageFormat::garbage(quint64 device, quint64 number) const
{
    RandomSource random({seed, device, number});
    QByteArray bytes(size, Qt::Uninitialized);
    for (char &byte : bytes)
        byte = static_cast<char>(random.below(256));
    // No TLS record and no old-style ClientHello begins with such a byte.
    bytes[0] = static_cast<char>(bytes[0] & 0x0f);
    return bytes;
}

} // namespace simulator
