// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "recording/format.h"

#include "recording/checksum.h"

#include <QtCore/QtEndian>

#include <algorithm>

namespace recording {
namespace {

// The first byte is no text in any encoding; the line end shows that the file was copied as text.
constexpr char Magic[] = "\x89TCPREC\n";
constexpr qsizetype MagicBytes = sizeof Magic - 1;
constexpr qsizetype CheckedBytes = 12; // of the header

template<class T>
void appendLittleEndian(QByteArray &out, T value)
{
    char bytes[sizeof value];
    qToLittleEndian(value, bytes);
    out.append(bytes, sizeof bytes);
}

} // namespace

QByteArray fileHeader()
{
    QByteArray header(Magic, MagicBytes);
    appendLittleEndian<quint16>(header, Version);
    appendLittleEndian<quint16>(header, 0);
    appendLittleEndian<quint32>(header, crc32c(header));
    return header;
}

HeaderCheck checkHeader(QByteArrayView bytes)
{
    const QByteArrayView magic(Magic, MagicBytes);
    const qsizetype common = qMin(bytes.size(), magic.size());
    if (bytes.first(common) != magic.first(common))
        return HeaderCheck::Foreign;
    if (bytes.size() < HeaderBytes)
        return HeaderCheck::Cut;
    if (crc32c(bytes.first(CheckedBytes))
        != qFromLittleEndian<quint32>(bytes.sliced(CheckedBytes).data()))
        return HeaderCheck::Damaged;
    const auto version = qFromLittleEndian<quint16>(bytes.sliced(MagicBytes).data());
    return version == Version ? HeaderCheck::Good : HeaderCheck::OtherVersion;
}

void appendFrame(QByteArray &out, const RawEntry &entry)
{
    const QByteArrayView head = entry.whole.first(EntryHeadBytes);
    const qsizetype begin = out.size();
    out.resize(begin + FrameHeadBytes + entry.body.size());
    char *at = std::copy(head.begin(), head.end(), out.data() + begin);
    *at++ = static_cast<char>(crc8(head));
    qToLittleEndian(crc32c(entry.whole), at);
    std::copy(entry.body.begin(), entry.body.end(), at + sizeof(quint32));
}

bool isFrameHead(QByteArrayView head)
{
    if (head.size() >= EntryHeadBytes && bodySizeOf(head) > MaxBodyBytes)
        return false;
    return head.size() <= EntryHeadBytes
            || static_cast<quint8>(head[EntryHeadBytes]) == crc8(head.first(EntryHeadBytes));
}

bool isBodyOf(QByteArrayView head, QByteArrayView body)
{
    const quint32 begun = crc32c(head.first(EntryHeadBytes));
    return crc32c(body, begun) == qFromLittleEndian<quint32>(head.data() + EntryHeadBytes + 1);
}

} // namespace recording
