// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/mutation.h"

namespace simulator {
namespace {

constexpr quint32 Kinds = 8; // of which half change nothing
constexpr quint32 BitsOfAByte = 8;

} // namespace

QList<QByteArray> Mutation::of(const QByteArray &write)
{
    const quint32 kind = random.below(Kinds);
    const auto at = static_cast<qsizetype>(random.below(static_cast<quint32>(write.size())));
    QByteArray changed = write;
    switch (kind) {
    case 0:
        changed[at] = static_cast<char>(changed[at] ^ (1 << random.below(BitsOfAByte)));
        break;
    case 1:
        changed.remove(at, 1);
        break;
    case 2:
        changed.insert(at, changed[at]);
        break;
    case 3:
        if (at > 0)
            return {write.first(at), write.sliced(at)};
        break;
    default:
        break;
    }
    return changed.isEmpty() ? QList<QByteArray>() : QList<QByteArray>{changed};
}

} // namespace simulator
