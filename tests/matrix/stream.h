// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QByteArrayView>

/*!
    The stream of a device: messages of one length, "<device> <number> <letters> <checksum>\n". So
    the place of each byte in its device's stream is known.
*/
namespace Stream {

constexpr qsizetype MessageBytes = 64;
constexpr qsizetype DeviceDigits = 6;
constexpr qsizetype NumberDigits = 6;
constexpr qsizetype HeadBytes = DeviceDigits + 1 + NumberDigits + 1;
constexpr qsizetype ChecksumBytes = 4;

inline QByteArray checksumOf(QByteArrayView covered)
{
    return QByteArray::number(qChecksum(covered), 16).rightJustified(ChecksumBytes, '0');
}

inline QByteArray message(int device, int number)
{
    constexpr int Letters = 26;
    constexpr qsizetype Covered = MessageBytes - ChecksumBytes - 2;
    QByteArray text = QByteArray::number(device).rightJustified(DeviceDigits, '0') + ' '
            + QByteArray::number(number).rightJustified(NumberDigits, '0') + ' ';
    for (int letter = number; text.size() < Covered; ++letter)
        text += static_cast<char>('a' + letter % Letters);
    return text + ' ' + checksumOf(text) + '\n';
}

inline QByteArray messages(int device, int count)
{
    QByteArray result;
    result.reserve(count * MessageBytes);
    for (int number = 0; number < count; ++number)
        result += message(device, number);
    return result;
}

// The number in a message's head; -1 if there is none.
inline int numberIn(QByteArrayView begin)
{
    if (begin.size() < HeadBytes)
        return -1;
    bool valid = false;
    const int number = begin.sliced(DeviceDigits + 1, NumberDigits).toByteArray().toInt(&valid);
    return valid ? number : -1;
}

// Whether the checksum of a whole message is correct.
inline bool isIntact(QByteArrayView message)
{
    constexpr qsizetype Covered = MessageBytes - ChecksumBytes - 2;
    return message.size() == MessageBytes && message.back() == '\n'
            && message.sliced(Covered + 1, ChecksumBytes) == checksumOf(message.first(Covered));
}

} // namespace Stream
