// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "matrixhost.h"

#include "plugin/subids.h"
#include "stream.h"

#include <QtCore/QTimer>

#include <algorithm>

namespace {

constexpr int LatenessMs = 500;

qsizetype offsetOf(const ParsedData &record)
{
    return record.getPluginSubId()
            .value(QStringLiteral("offset"), QStringLiteral("-1"))
            .toLongLong();
}

} // namespace

MatrixHost::MatrixHost(IInputPlugin &inputPlugin, Keys keySet) : plugin(&inputPlugin), keys(keySet)
{
    connect(plugin, &IInputPlugin::receivedData, this, &MatrixHost::receive, Qt::DirectConnection);
}

const MatrixHost::Guest &MatrixHost::expect(quint16 devicePort, HostKind kind,
                                            const QByteArray &stream)
{
    auto guest = std::make_shared<Guest>(Guest{kind, Oracle(stream), {}});
    guests.insert(devicePort, guest);
    return *guest;
}

void MatrixHost::finish()
{
    plugin = nullptr;
    for (const auto &guest : std::as_const(guests)) {
        while (!guest->waiting.isEmpty())
            handleNext(*guest);
    }
}

void MatrixHost::receive(const shared_parsedData &record)
{
    const auto guest = guests.value(static_cast<quint16>(record->getPeerPort()));
    if (!guest)
        return;
    guest->behindEnd += guest->ends > 0 ? 1 : 0;
    if (record->getPluginSubId().contains(subids::end()))
        return takeEnd(*guest, record);
    ++guest->records;
    const QByteArray buffer = record->getOriginalMessage();
    guest->oracle.offered(keys != Keys::None ? offsetOf(*record) : guest->oracle.positionOf(buffer),
                          buffer);

    switch (guest->kind) {
    case HostKind::Prompt:
    case HostKind::OneByOne:
        handle(*guest, record);
        break;
    case HostKind::Late:
        guest->waiting.append(record);
        QTimer::singleShot(LatenessMs, Qt::PreciseTimer, this, [this, guest] {
            if (!guest->waiting.isEmpty())
                handleNext(*guest);
        });
        break;
    case HostKind::AtEnd:
        guest->waiting = {record};
        break;
    }
}

// The position of the end is behind the last offered byte.
void MatrixHost::takeEnd(Guest &guest, const shared_parsedData &record)
{
    ++guest.ends;
    guest.oracle.offered(offsetOf(*record), {});
}

void MatrixHost::handleNext(Guest &guest)
{
    handle(guest, guest.waiting.takeFirst());
}

void MatrixHost::handle(Guest &guest, const shared_parsedData &record)
{
    if (keys != Keys::None) {
        const auto offer = offers.open(*record);
        const auto position = static_cast<qsizetype>(offer.position());
        guest.oracle.parsed(position, offer.fresh().size());
        const qsizetype used = consume(guest, position, offer.fresh());
        discard(offers.consume(offer, used), record);
        return;
    }
    const QByteArray buffer = record->getOriginalMessage();
    const qsizetype position = guest.oracle.positionOf(buffer);
    guest.oracle.parsed(position, buffer.size());
    const qsizetype known =
            std::clamp<qsizetype>(guest.oracle.consumedUpTo() - position, 0, buffer.size());
    discard(consume(guest, position + known, QByteArrayView(buffer).sliced(known)), record);
}

// Takes whole messages from the front; returns their bytes.
qsizetype MatrixHost::consume(Guest &guest, qsizetype position, QByteArrayView fresh)
{
    qsizetype used = 0;
    while (fresh.size() - used >= Stream::MessageBytes) {
        guest.oracle.consumed(position + used, fresh.sliced(used, Stream::MessageBytes));
        used += Stream::MessageBytes;
        if (guest.kind == HostKind::OneByOne)
            break;
    }
    return used;
}

void MatrixHost::discard(qsizetype length, const shared_parsedData &record)
{
    if (plugin && length > 0)
        plugin->discard(static_cast<int>(length), record->getPluginSubId());
}
