// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/exactreader.h"

#include "plugin/subids.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace host {
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

ExactReader::ExactReader(MessageWriter &messageWriter, Counters &total, const Answer &toOffers,
                         const ExactOffers::Limits &memory, const Pace &readingPace)
    : writer(messageWriter),
      counters(total),
      answer(toOffers),
      givenMemory(memory),
      goAllowance(readingPace.ofOffer),
      answerAfter(readingPace.ofAnswer.count()),
      queue(readingPace.ofTurn)
{
    clock.start();
    exactOffers.emplace(givenMemory);
    QObject::connect(&queue, &TurnQueue::reached, &queue, [this](quint64 number) { goOn(number); });
}

void ExactReader::setEndsTold(bool enable)
{
    endsTold = enable;
    forgetAll();
}

void ExactReader::receive(const ExactOffers::Place &place, const shared_parsedData &record)
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

void ExactReader::take(Client &client, const ExactOffers::Place &place,
                       const shared_parsedData &record)
{
    client.lastOfferTime = clock.nsecsElapsed();
    if (place.isEnd) {
        client.end = record;
    } else {
        ++counters.offers;
        client.record = record;
        client.place = place;
        client.offer.reset();
    }
    if (client.waits)
        return;
    if (queue.hasTime()) {
        proceed(client);
    } else {
        client.waits = true;
        queue.append(client.number);
    }
}

void ExactReader::goOn(quint64 number)
{
    const auto known = byNumber.constFind(number);
    if (known == byNumber.constEnd())
        return;
    (*known)->waits = false;
    proceed(**known);
    settle(*known);
}

void ExactReader::proceed(Client &client)
{
    if (client.record && !readOffer(client)) {
        client.waits = true;
        queue.append(client.number);
    } else if (client.end) {
        end(client);
    }
}

// Reads as much of the offer as fits into one go. True if the offer is read to its end.
bool ExactReader::readOffer(Client &client)
{
    if (!client.offer)
        open(client);
    Allowance allowance = goAllowance;
    const QByteArrayView fresh = client.offer->fresh();
    client.used += readBytes(client, fresh.sliced(client.used), allowance);
    const bool isRead = client.used == fresh.size() || writer.isDone();
    answerOffer(client, isRead);
    if (isRead) {
        client.record.reset();
        client.offer.reset();
    }
    return isRead;
}

void ExactReader::open(Client &client)
{
    client.offer = exactOffers->open(*client.record, *client.place, pacedTime);
    client.used = 0;
    client.answered = 0;
    client.answeredTime = client.lastOfferTime;
    client.origin = writer.originOf(*client.record);
    // Its first offer: what is read is consumed, so later offers have a position above 0.
    if (client.offer->position() == 0)
        counters.addConnection(client.record->getPluginSubIdKey(subids::client()));
}

// Takes all bytes, or fewer if the allowance is used up.
qsizetype ExactReader::readBytes(Client &client, QByteArrayView bytes, Allowance &allowance)
{
    qsizetype taken = finishTail(client, bytes, allowance);
    if (!client.tail.isEmpty())
        return taken;

    taken += writer.write(bytes.sliced(taken), client.origin, client.framing, allowance);
    if (allowance.isUsedUp() || writer.isDone())
        return taken;
    client.tail = bytes.sliced(taken).toByteArray(); // a copy: the offer itself may be large
    return bytes.size();
}

// Takes what belongs to the message that has begun already.
qsizetype ExactReader::finishTail(Client &client, QByteArrayView bytes, Allowance &allowance)
{
    qsizetype taken = 0;
    while (!client.tail.isEmpty() && taken < bytes.size()) {
        const QByteArrayView next = bytes.sliced(taken);
        const qsizetype size = bytesToAppend(client.tail, next, writer.frameFormat());
        client.tail.append(next.first(size));
        taken += size;
        // write() takes all of the message, or nothing.
        if (writer.write(client.tail, client.origin, client.framing, allowance) > 0)
            client.tail.clear();
    }
    return taken;
}

// The answer names the offer's own position, so it cuts the same bytes whenever it is carried out.
void ExactReader::answerOffer(Client &client, bool isRead)
{
    const int length = exactOffers->consume(*client.offer, client.used, pacedTime);
    const qsizetype left = client.offer->fresh().size() - client.used;
    const bool isDue = isRead
            || (client.used - client.answered >= std::max(left, AnswerAfterBytes)
                && clock.nsecsElapsed() - client.answeredTime >= answerAfter);
    if (length == 0 || !answering || !isDue)
        return;
    client.answered = client.used;
    if (!isRead) // a message costs no look at the clock
        client.answeredTime = clock.nsecsElapsed();
    answer(length, client.record->getPluginSubId());
}

void ExactReader::end(Client &client)
{
    exactOffers->open(*client.end, pacedTime); // forgets the connection
    client.end.reset();
    giveUp(client);
}

ExactReader::Clients::iterator ExactReader::keep(Client &&client)
{
    if (clients.size() == MaxClients && !endsTold)
        forgetOldest();
    clients.push_back(std::move(client));
    return *byNumber.insert(clients.back().number, std::prev(clients.end()));
}

// After each change of its state.
void ExactReader::settle(Clients::iterator client)
{
    unfinished.change(client->number, client->counted, client->tail.size());
    client->counted = client->tail.size();
    if (!client->isWorthKeeping())
        forget(client);
    while (unfinished.total() > maxUnfinished && giveUpLargest()) {}
}

// False if even the largest message cannot be given up. The connection is not forgotten: the rest
// of the message has to be skipped.
bool ExactReader::giveUpLargest()
{
    Client &client = *byNumber.value(unfinished.largest());
    if (!writer.giveUp(client.tail, client.origin, client.framing))
        return false;
    client.tail.clear();
    unfinished.change(client.number, client.counted, 0);
    client.counted = 0;
    return true;
}

void ExactReader::forget(Clients::iterator client)
{
    unfinished.change(client->number, client->counted, 0);
    byNumber.remove(client->number);
    clients.erase(client);
}

// Prints what is left of a connection.
void ExactReader::giveUp(Client &client)
{
    writer.writePartial(client.tail, client.origin);
    client.tail.clear();
    client.framing = {};
}

void ExactReader::forgetAll()
{
    while (!clients.empty())
        forgetOldest();
    queue.clear();
    exactOffers.emplace(endsTold ? Unlimited : givenMemory);
}

void ExactReader::forgetSilent(std::chrono::nanoseconds interval)
{
    // The reader of the output may hold everything up for hours. Offers wait meanwhile, repeats
    // among them, so their connections must not grow old. They do not: this is called at most once
    // per pass of the event loop, and each pass receives all offers that wait.
    pacedTime += interval;
    if (endsTold)
        return;
    const qint64 time = clock.nsecsElapsed();
    while (!clients.empty() && time - clients.front().lastOfferTime > forgetAfter)
        forgetOldest();
}

// Reads all that waits of the connection. Its number may stay in the queue.
void ExactReader::forgetOldest()
{
    Client &client = clients.front();
    while (client.record && !readOffer(client)) {}
    if (client.end)
        end(client);
    giveUp(client);
    forget(clients.begin());
}

qsizetype ExactReader::remembered() const
{
    return static_cast<qsizetype>(endsTold ? exactOffers->size() : clients.size());
}

} // namespace host
