// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "recording/compression.h"

#ifdef RECORDING_HAS_ZSTD

#include <zstd.h>

namespace recording {
namespace {
constexpr int Level = -5; // of the fast ones: recording must not cost much
} // namespace

struct Compressor::Context
{
    std::unique_ptr<ZSTD_CCtx, decltype(&ZSTD_freeCCtx)> zstd{ZSTD_createCCtx(), &ZSTD_freeCCtx};
};

Compressor::Compressor() = default;
Compressor::~Compressor() = default;

bool canCompress()
{
    return true;
}

bool Compressor::append(QByteArray &out, QByteArrayView block)
{
    if (!context)
        context = std::make_unique<Context>();
    if (!context->zstd)
        return false;
    const qsizetype before = out.size();
    const std::size_t room = ZSTD_compressBound(static_cast<std::size_t>(block.size()));
    out.resize(before + static_cast<qsizetype>(room));
    const std::size_t size =
            ZSTD_compressCCtx(context->zstd.get(), out.data() + before, room, block.data(),
                              static_cast<std::size_t>(block.size()), Level);
    const bool isDone = ZSTD_isError(size) == 0;
    out.resize(isDone ? before + static_cast<qsizetype>(size) : before);
    return isDone;
}

std::optional<QByteArray> decompress(QByteArrayView block, qsizetype size)
{
    QByteArray result(size, Qt::Uninitialized);
    const std::size_t got = ZSTD_decompress(result.data(), static_cast<std::size_t>(size),
                                            block.data(), static_cast<std::size_t>(block.size()));
    if (ZSTD_isError(got) != 0 || got != static_cast<std::size_t>(size))
        return {};
    return result;
}

} // namespace recording

#else

namespace recording {

struct Compressor::Context
{};

Compressor::Compressor() = default;
Compressor::~Compressor() = default;

bool canCompress()
{
    return false;
}

bool Compressor::append(QByteArray &, QByteArrayView)
{
    return false;
}

std::optional<QByteArray> decompress(QByteArrayView, qsizetype)
{
    return {};
}

} // namespace recording

#endif
