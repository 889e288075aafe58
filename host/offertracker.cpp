// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/offertracker.h"

namespace host {

OfferTracker::Fit OfferTracker::accept(const QByteArray &offer, qint64 reached)
{
    constexpr qsizetype none = -1;
    qsizetype first = none;
    qsizetype last = none;
    for (qsizetype start = 0; start <= starts.size(); ++start) {
        if (fits(offer, start)) {
            first = first == none ? start : first;
            last = start;
        }
        if (start < starts.size() && starts.at(start).time > reached)
            break; // the offer is older than this discard
    }
    if (first == none)
        return Fit::Foreign;

    if (first == last || isUnclear()) {
        take(offer, last);
        return Fit::Fits;
    }
    unclearOffer = offer;
    firstFit = first;
    lastFit = last;
    return Fit::Unclear;
}

void OfferTracker::decide()
{
    const QByteArray offer = unclearOffer;
    const qsizetype repeated = lastOffer.size() - offsetOf(firstFit);
    const qsizetype shift = offsetOf(lastFit) - offsetOf(firstFit);
    const bool repeatsItself =
            offer.size() > repeated && offer.startsWith(QByteArrayView(offer).sliced(shift));
    take(offer, repeatsItself ? lastFit : firstFit);
}

QByteArrayView OfferTracker::unread() const
{
    return QByteArrayView(lastOffer).sliced(consumed);
}

void OfferTracker::consume(qsizetype bytes, qint64 now)
{
    starts.append({consumed, now});
    consumed += bytes;
}

void OfferTracker::settle(qint64 time)
{
    qsizetype settled = 0;
    while (settled < starts.size() && starts.at(settled).time <= time)
        ++settled;
    starts.remove(0, settled);
    if (!starts.isEmpty() || consumed == 0)
        return;

    lastOffer = unread().toByteArray(); // a copy: the offer itself may be large
    consumed = 0;
}

qsizetype OfferTracker::offsetOf(qsizetype start) const
{
    return start < starts.size() ? starts.at(start).offset : consumed;
}

bool OfferTracker::fits(const QByteArray &offer, qsizetype start) const
{
    return offer.startsWith(QByteArrayView(lastOffer).sliced(offsetOf(start)));
}

// The offer begins at that start: the cuts before it are carried out.
void OfferTracker::take(const QByteArray &offer, qsizetype start)
{
    const qsizetype begin = offsetOf(start);
    starts.remove(0, start);
    for (Start &later : starts)
        later.offset -= begin;
    consumed -= begin;
    lastOffer = offer;
    unclearOffer = {};
}

} // namespace host
