// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/kit/offerreader.h"

#include "plugin/subids.h"

#include <QtCore/QScopedValueRollback>

#include <algorithm>
#include <limits>
#include <utility>

namespace inputkit {
namespace {

constexpr std::size_t MaxClients = 100000; // unless their ends are told

// An offer that takes long to read is answered in parts. So a device that is held back because the
// plugin's buffer is full can go on sending. A part is at least half of the bytes that are not
// answered, and at least this many: after each answer the plugin offers the rest again, which may
// copy it.
constexpr qsizetype AnswerAfterBytes = 256 * 1024;

// With "ends", ExactOffers forgets a connection only when its end is told.
constexpr ExactOffers::Limits Unlimited = {std::chrono::hours(24 * 365 * 100),
                                           std::numeric_limits<std::size_t>::max()};

} // namespace

OfferReader::OfferReader(OfferConsumer &offerConsumer, const Answer &toOffers,
                         const ExactOffers::Limits &memory, const Pace &readingPace)
    : consumer(offerConsumer),
      answer(toOffers),
      givenMemory(memory),
      goAllowance{std::max<qint64>(readingPace.ofOffer.messages, 1),
                  std::max<qint64>(readingPace.ofOffer.bytes, 1)},
      answerAfter(readingPace.ofAnswer.count()),
      queue(readingPace.ofTurn, readingPace.turnCount)
{
    exactOffers.emplace(givenMemory);
    QObject::connect(&queue, &TurnQueue::reached, &queue, [this](quint64 number) {
        if (reading)
            lateGoes.push_back(number);
        else
            goOn(number);
    });
}

void OfferReader::setEndsTold(bool enable)
{
    if (std::exchange(endsTold, enable) != enable)
        forgetAll();
}

void OfferReader::receive(const ExactOffers::Place &place, const shared_parsedData &record)
{
    if (reading) {
        late.emplace_back(place, record);
        return;
    }
    {
        const QScopedValueRollback guard(reading, true);
        readRecord(place, record);
    }
    if (!late.empty() || !lateGoes.empty())
        readLate();
}

// What has come while a handler delivered events.
void OfferReader::readLate()
{
    while (!late.empty()) {
        const auto [place, record] = std::move(late.front());
        late.pop_front();
        const QScopedValueRollback guard(reading, true);
        readRecord(place, record);
    }
    for (const quint64 number : std::exchange(lateGoes, {}))
        queue.append(number);
}

void OfferReader::readRecord(const ExactOffers::Place &place, const shared_parsedData &record)
{
    const auto known = byNumber.constFind(place.connection);
    if (known != byNumber.constEnd()) {
        clients.splice(clients.end(), clients, *known);
        take(**known, place, record);
        settle(*known);
        return;
    }

    // Most offers leave nothing that must be kept here.
    Client client;
    client.number = place.connection;
    take(client, place, record);
    if (client.isWorthKeeping())
        settle(keep(std::move(client)));
}

void OfferReader::take(Client &client, const ExactOffers::Place &place,
                       const shared_parsedData &record)
{
    const bool hasTime = queue.hasTime();
    client.lastOfferTime = endsTold ? queue.turnTime() : queue.now(); // see forgetSilent()
    if (place.isEnd) {
        client.end = record;
    } else {
        client.record = record;
        client.place = place;
        client.offer.reset();
    }
    if (client.waits)
        return;
    if (hasTime && mayRead(client))
        proceed(client);
    else
        wait(client);
}

// For its go, or until it is not paused any more.
void OfferReader::wait(Client &client)
{
    client.waits = true;
    if (mayRead(client))
        append(client);
}

void OfferReader::append(Client &client)
{
    if (!std::exchange(client.queued, true))
        queue.append(client.number);
}

void OfferReader::setPaused(quint64 connection, bool pause)
{
    if (pause) {
        paused.insert(connection);
        return;
    }
    const auto known = byNumber.constFind(connection);
    if (paused.remove(connection) && !allPaused && known != byNumber.constEnd() && (*known)->waits)
        append(**known);
}

void OfferReader::setAllPaused(bool pause)
{
    if (std::exchange(allPaused, pause) == pause || pause)
        return;
    const qint64 time = queue.now();
    for (Client &client : clients) {
        client.lastOfferTime = time; // the pause was no silence of theirs
        if (client.waits && mayRead(client))
            append(client);
    }
}

void OfferReader::goOn(quint64 number)
{
    const auto known = byNumber.constFind(number);
    if (known == byNumber.constEnd())
        return;
    (*known)->queued = false;
    if (!(*known)->waits || !mayRead(**known))
        return;
    {
        const QScopedValueRollback guard(reading, true);
        (*known)->waits = false;
        proceed(**known);
        settle(*known);
    }
    readLate();
}

void OfferReader::proceed(Client &client)
{
    const bool isRead = !client.record || readOffer(client);
    if (isRead && !client.end)
        return;
    if (isRead && mayRead(client))
        end(client);
    else
        wait(client);
}

// Reads as much of the offer as fits into one go. True if the offer is read to its end.
bool OfferReader::readOffer(Client &client)
{
    if (!client.offer)
        open(client);
    Allowance allowance = goAllowance;
    const QByteArrayView fresh = client.offer->fresh();
    const QByteArrayView unread = fresh.sliced(client.used);
    const qsizetype taken = readBytes(client, unread, allowance);
    if (taken > 0)
        consumer.read(client.origin, positionOfFresh(client), unread.first(taken));
    client.used += taken;
    client.received = positionOfFresh(client);
    const bool isRead = client.used == fresh.size() || consumer.isDone();
    answerOffer(client, isRead);
    if (isRead) {
        client.record.reset();
        client.offer.reset();
    }
    return isRead;
}

void OfferReader::open(Client &client)
{
    client.offer = exactOffers->open(*client.record, *client.place, pacedTime);
    client.used = 0;
    client.answered = 0;
    client.answeredTime = client.lastOfferTime;
    client.origin = consumer.originOf(*client.record, client.number);
    // Its first offer: what is read is consumed, so later offers have a position above 0.
    if (client.offer->position() == 0)
        consumer.began(*client.record);
}

// Of the first byte of the offer that has not been read.
quint64 OfferReader::positionOfFresh(const Client &client)
{
    return client.offer->position() + static_cast<quint64>(client.used);
}

quint64 OfferReader::positionOfTail(const Client &client)
{
    return client.received - static_cast<quint64>(client.tail.size());
}

// Takes all bytes, or fewer if the allowance is used up.
qsizetype OfferReader::readBytes(Client &client, QByteArrayView bytes, Allowance &allowance)
{
    qsizetype taken = 0;
    if (!client.tail.isEmpty()) {
        taken = finishTail(client, bytes, allowance);
        if (!client.tail.isEmpty())
            return taken;
    }
    taken += consumer.write(bytes.sliced(taken),
                            positionOfFresh(client) + static_cast<quint64>(taken), client.origin,
                            client.framing, allowance);
    if (allowance.isUsedUp() || consumer.isDone())
        return taken;
    client.tail = bytes.sliced(taken).toByteArray(); // a copy: the offer itself may be large
    return bytes.size();
}

// Takes what belongs to the message that has begun already.
qsizetype OfferReader::finishTail(Client &client, QByteArrayView bytes, Allowance &allowance)
{
    qsizetype taken = 0;
    while (!client.tail.isEmpty() && taken < bytes.size() && !allowance.isUsedUp()) {
        const QByteArrayView next = bytes.sliced(taken);
        const qsizetype size =
                std::clamp<qsizetype>(consumer.bytesToAppend(client.tail, next), 1, next.size());
        client.tail.append(next.first(size));
        const quint64 end = positionOfFresh(client) + static_cast<quint64>(taken + size);
        taken += takeFromTail(client, end, size, allowance);
    }
    return taken;
}

// end: the position behind the tail. appended: how many bytes at its end are new. Returns how many
// of these it keeps: what lies behind the message is read from the offer.
qsizetype OfferReader::takeFromTail(Client &client, quint64 end, qsizetype appended,
                                    Allowance &allowance)
{
    const quint64 begin = end - static_cast<quint64>(client.tail.size());
    const qsizetype used =
            consumer.write(client.tail, begin, client.origin, client.framing, allowance);
    if (used == 0)
        return appended;
    const qsizetype surplus = std::min(client.tail.size() - used, appended);
    client.tail.remove(0, used);
    client.tail.chop(surplus);
    return appended - surplus;
}

// The answer names the offer's own position, so it cuts the same bytes whenever it is carried out.
void OfferReader::answerOffer(Client &client, bool isRead)
{
    const int length = exactOffers->consume(*client.offer, client.used, pacedTime);
    const qsizetype left = client.offer->fresh().size() - client.used;
    const bool isDue = isRead
            || (client.used - client.answered >= std::max(left, AnswerAfterBytes)
                && queue.now() - client.answeredTime >= answerAfter);
    if (length == 0 || !answering || !isDue)
        return;
    client.answered = client.used;
    if (!isRead) // a message costs no look at the clock
        client.answeredTime = queue.now();
    answer(length, client.record->getPluginSubId());
}

void OfferReader::end(Client &client)
{
    const shared_parsedData record = std::exchange(client.end, {});
    const ExactOffers::Offer offer =
            exactOffers->open(*record, pacedTime); // forgets the connection
    giveUp(client);
    consumer.ended(consumer.originOf(*record, client.number),
                   record->getPluginSubIdKey(subids::end()), offer.position());
    paused.remove(client.number);
}

OfferReader::Clients::iterator OfferReader::keep(Client &&client)
{
    if (clients.size() == MaxClients && !endsTold)
        forgetOldest();
    clients.push_back(std::move(client));
    return *byNumber.insert(clients.back().number, std::prev(clients.end()));
}

// After each change of its state.
void OfferReader::settle(Clients::iterator client)
{
    unfinished.change(client->number, client->counted, client->tail.size());
    client->counted = client->tail.size();
    if (!client->isWorthKeeping())
        forget(client);
    while (unfinished.total() > maxUnfinished && giveUpLargest()) {}
}

// False if even the largest message cannot be given up. The connection is not forgotten: the rest
// of the message has to be skipped.
bool OfferReader::giveUpLargest()
{
    Client &client = *byNumber.value(unfinished.largest());
    if (!consumer.giveUp(client.tail, positionOfTail(client), client.origin, client.framing))
        return false;
    client.tail.clear();
    unfinished.change(client.number, client.counted, 0);
    client.counted = 0;
    return true;
}

void OfferReader::forget(Clients::iterator client)
{
    unfinished.change(client->number, client->counted, 0);
    byNumber.remove(client->number);
    clients.erase(client);
}

// Hands out what is left of a connection.
void OfferReader::giveUp(Client &client)
{
    if (!client.tail.isEmpty())
        consumer.writePartial(client.tail, positionOfTail(client), client.origin);
    client.tail.clear();
    client.framing = {};
}

void OfferReader::forgetAll()
{
    Q_ASSERT(!reading);
    const QScopedValueRollback guard(reading, true);
    while (!clients.empty())
        forgetOldest();
    queue.clear();
    paused.clear();
    exactOffers.emplace(endsTold ? Unlimited : givenMemory);
}

void OfferReader::forgetSilent(std::chrono::nanoseconds interval)
{
    // The reader of the output may hold everything up for hours. Offers wait meanwhile, repeats
    // among them, so their connections must not grow old. They do not: this is called at most once
    // per pass of the event loop, and each pass receives all offers that wait.
    pacedTime += interval;
    if (endsTold)
        return;
    {
        const QScopedValueRollback guard(reading, true);
        const qint64 time = queue.now();
        while (!clients.empty() && time - clients.front().lastOfferTime > forgetAfter)
            forgetOldest();
    }
    readLate();
}

void OfferReader::forgetUpTo(quint64 connection)
{
    Q_ASSERT(!reading);
    {
        const QScopedValueRollback guard(reading, true); // so nobody else changes the list
        for (auto client = clients.begin(); client != clients.end();) {
            const auto known = client++;
            if (known->number <= connection)
                finish(known);
        }
    }
    readLate();
}

void OfferReader::forgetOldest()
{
    finish(clients.begin());
}

// Reads all that waits of the connection, and forgets it. Its number may stay in the queue.
void OfferReader::finish(Clients::iterator client)
{
    while (client->record && !readOffer(*client)) {}
    if (client->end)
        end(*client);
    giveUp(*client);
    forget(client);
}

qsizetype OfferReader::remembered() const
{
    return static_cast<qsizetype>(endsTold ? exactOffers->size() : clients.size());
}

} // namespace inputkit
