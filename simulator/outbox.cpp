// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/outbox.h"

#include "simulator/messagesource.h"

namespace simulator {

Outbox::Outbox(const MessageSource &messageSource, const Segmenter &cuts, quint64 deviceNumber,
               quint64 first, quint64 last, bool withChecksum)
    : source(messageSource),
      device(deviceNumber),
      nextMessage(first),
      lastMessage(last),
      segmenter(cuts),
      hash(withChecksum ? std::make_unique<QCryptographicHash>(QCryptographicHash::Sha1) : nullptr)
{}

QByteArrayView Outbox::segment(quint64 due)
{
    if (rest == 0)
        beginSegment(due);
    return QByteArrayView(buffer).sliced(offset, rest);
}

void Outbox::beginSegment(quint64 due)
{
    if (!cut)
        cut = segmenter.next();
    while (buffer.size() - offset < cut->atLeast && nextMessage <= qMin(due, lastMessage))
        gather();

    const qsizetype available = buffer.size() - offset;
    if (available < cut->atLeast && nextMessage <= lastMessage)
        return; // the segment reaches into a message that is not due yet
    rest = qMin(available, cut->atMost);
    cut.reset();
}

void Outbox::gather()
{
    buffer.remove(0, offset);
    offset = 0;
    const qsizetype before = buffer.size();
    if (!source.append(buffer, device, nextMessage)) {
        refused = nextMessage;
        return stop();
    }
    gathered += static_cast<quint64>(buffer.size() - before);
    ends.append(gathered);
    ++nextMessage;
}

void Outbox::accept(qsizetype count)
{
    Q_ASSERT(count >= 0 && count <= rest);
    if (hash)
        hash->addData(QByteArrayView(buffer).sliced(offset, count));
    offset += count;
    rest -= count;
    bytes += static_cast<quint64>(count);
    while (!ends.isEmpty() && ends.constFirst() <= bytes) {
        ends.removeFirst();
        ++messages;
    }
    if (!isAtEnd())
        return;
    // Frees the memory: thousands of connections may stay open with nothing more to send.
    buffer = QByteArray();
    offset = 0;
}

QByteArray Outbox::checksum() const
{
    return hash ? hash->result().toHex() : QByteArray();
}

} // namespace simulator
