// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/checksums.h"

#include <QtCore/QStringList>

namespace simulator {
namespace {

constexpr int BitsOfAByte = 8;

quint32 xor8(QByteArrayView bytes)
{
    quint32 value = 0;
    for (const char byte : bytes)
        value ^= static_cast<quint8>(byte);
    return value;
}

quint32 sum8(QByteArrayView bytes)
{
    quint32 value = 0;
    for (const char byte : bytes)
        value += static_cast<quint8>(byte);
    return value & 0xff;
}

// Of the lowest bit first. polynomial: with its bits in reverse.
template<quint32 polynomial, quint32 initial, quint32 finalXor>
quint32 reflected(QByteArrayView bytes)
{
    quint32 value = initial;
    for (const char byte : bytes) {
        value ^= static_cast<quint8>(byte);
        for (int bit = 0; bit < BitsOfAByte; ++bit)
            value = value >> 1U ^ ((value & 1U) != 0 ? polynomial : 0);
    }
    return value ^ finalXor;
}

// Of 16 bits, the highest bit first.
template<quint32 polynomial, quint32 initial>
quint32 straight(QByteArrayView bytes)
{
    quint32 value = initial;
    for (const char byte : bytes) {
        value ^= static_cast<quint32>(static_cast<quint8>(byte)) << 8U;
        for (int bit = 0; bit < BitsOfAByte; ++bit)
            value = value << 1U ^ ((value & 0x8000U) != 0 ? polynomial : 0);
    }
    return value & 0xffff;
}

// docs/DEVICESIM.md has a table of them, with what "123456789" gives.
constexpr Checksum Checksums[] = {
        {"xor8", 1, xor8},
        {"sum8", 1, sum8},
        {"crc16", 2, reflected<0x8408, 0xffff, 0xffff>}, // that of qChecksum()
        {"crc16-arc", 2, reflected<0xa001, 0, 0>},
        {"crc16-modbus", 2, reflected<0xa001, 0xffff, 0>},
        {"crc16-ccitt", 2, straight<0x1021, 0xffff>},
        {"crc16-xmodem", 2, straight<0x1021, 0>},
        {"crc32", 4, reflected<0xedb88320, 0xffffffff, 0xffffffff>},
};

} // namespace

const Checksum *findChecksum(QByteArrayView name)
{
    for (const Checksum &checksum : Checksums) {
        if (name == QByteArrayView(checksum.name))
            return &checksum;
    }
    return nullptr;
}

QString checksumNames()
{
    QStringList names;
    for (const Checksum &checksum : Checksums)
        names += QLatin1String(checksum.name);
    return names.join(QStringLiteral(", "));
}

} // namespace simulator
