// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QByteArrayView>

#include <memory>
#include <optional>

namespace recording {

// False: built without the library zstd. Then nothing can be compressed or decompressed.
bool canCompress();

/*!
    Compresses blocks, each by itself.

    Thread: one at a time.
*/
class Compressor
{
public:
    Compressor();
    ~Compressor();
    Q_DISABLE_COPY_MOVE(Compressor)

    // Appends the block, compressed, to out. False if there is no library or no memory; then out
    // is as it was.
    bool append(QByteArray &out, QByteArrayView block);

private:
    struct Context;
    std::unique_ptr<Context> context; // made at the first use
};

// size: what the result must have. Nothing if the block is damaged, has another size, or there is
// no library.
std::optional<QByteArray> decompress(QByteArrayView block, qsizetype size);

} // namespace recording
