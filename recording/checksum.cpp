// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "recording/checksum.h"

#include <QtCore/QtEndian>

#include <array>

#ifdef __x86_64__
#include <nmmintrin.h>
#endif

namespace recording {
namespace {

constexpr quint32 Polynomial32 = 0x82f63b78; // bits in reverse order
constexpr quint8 Polynomial8 = 0x07;
constexpr qsizetype StepBytes = 8; // looked up at once

using Table32 = std::array<std::array<quint32, 256>, static_cast<std::size_t>(StepBytes)>;
using Table8 = std::array<quint8, 256>;

// In table k: what a byte contributes that has k more bytes behind it.
constexpr Table32 makeTable32()
{
    Table32 table{};
    for (quint32 byte = 0; byte < 256; ++byte) {
        quint32 value = byte;
        for (int bit = 0; bit < 8; ++bit)
            value = (value >> 1) ^ ((value & 1) != 0 ? Polynomial32 : 0);
        table[0][byte] = value;
    }
    for (std::size_t behind = 1; behind < table.size(); ++behind) {
        for (std::size_t byte = 0; byte < 256; ++byte) {
            const quint32 before = table[behind - 1][byte];
            table[behind][byte] = (before >> 8) ^ table[0][before & 0xff];
        }
    }
    return table;
}

constexpr Table8 makeTable8()
{
    Table8 table{};
    for (unsigned byte = 0; byte < 256; ++byte) {
        unsigned value = byte;
        for (int bit = 0; bit < 8; ++bit)
            value = (value << 1) ^ ((value & 0x80) != 0 ? Polynomial8 : 0);
        table[byte] = static_cast<quint8>(value);
    }
    return table;
}

constexpr Table32 Crc32 = makeTable32();
constexpr Table8 Crc8 = makeTable8();

#ifdef __x86_64__
// A tenth of the tables' instructions.
__attribute__((target("sse4.2"))) quint32 crc32cByInstruction(QByteArrayView bytes, quint32 begun)
{
    quint64 value = static_cast<quint32>(~begun);
    const char *at = bytes.data();
    qsizetype left = bytes.size();
    for (; left >= StepBytes; left -= StepBytes, at += StepBytes)
        value = _mm_crc32_u64(value, qFromUnaligned<quint64>(at));
    auto last = static_cast<quint32>(value);
    for (; left > 0; --left, ++at)
        last = _mm_crc32_u8(last, static_cast<quint8>(*at));
    return ~last;
}
#endif

} // namespace

quint32 crc32c(QByteArrayView bytes, quint32 begun)
{
#ifdef __x86_64__
    static const bool hasInstruction = __builtin_cpu_supports("sse4.2") != 0;
    if (hasInstruction)
        return crc32cByInstruction(bytes, begun);
#endif
    return crc32cByTables(bytes, begun);
}

quint32 crc32cByTables(QByteArrayView bytes, quint32 begun)
{
    quint32 value = ~begun;
    const char *at = bytes.data();
    qsizetype left = bytes.size();
    for (; left >= StepBytes; left -= StepBytes, at += StepBytes) {
        const quint32 low = value ^ qFromLittleEndian<quint32>(at);
        const quint32 high = qFromLittleEndian<quint32>(at + 4);
        value = Crc32[7][low & 0xff] ^ Crc32[6][(low >> 8) & 0xff] ^ Crc32[5][(low >> 16) & 0xff]
                ^ Crc32[4][low >> 24] ^ Crc32[3][high & 0xff] ^ Crc32[2][(high >> 8) & 0xff]
                ^ Crc32[1][(high >> 16) & 0xff] ^ Crc32[0][high >> 24];
    }
    for (; left > 0; --left, ++at)
        value = (value >> 8) ^ Crc32[0][(value ^ static_cast<quint8>(*at)) & 0xff];
    return ~value;
}

quint8 crc8(QByteArrayView bytes)
{
    quint8 value = 0xff;
    for (const char byte : bytes)
        value = Crc8[value ^ static_cast<quint8>(byte)];
    return value;
}

} // namespace recording
