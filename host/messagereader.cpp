// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/messagereader.h"

#include "plugin/cwrn.h"
#include "plugin/subids.h"

#include <QtCore/QTimeZone>

#include <algorithm>
#include <chrono>
#include <limits>
#include <utility>

namespace host {
namespace {

using namespace std::chrono_literals;

// A cut is one queued call in a worker thread. After this time it counts as carried out.
constexpr std::chrono::nanoseconds CutGrace = 50ms;

// While an offer ends within a message, the plugin is asked what it has got since: what comes
// within 200 ms of an offer is not offered by itself, unless something comes after that. As answers
// to questions are offers, too, asking goes on, with intervals that grow: each is twice the last
// one.
constexpr std::chrono::nanoseconds FirstAskAfter = 10ms;
constexpr int MostAsks = 10; // without anything new, in 10 s

constexpr qsizetype MaxClients = 100000;

// The plugin's timers fire up to 5 % late, and the last offer is some time on its way.
constexpr int MostTimerDelayPercent = 5;
constexpr std::chrono::nanoseconds MostLastOfferDelay = 2s;

constexpr qint64 DefaultIdleTimeoutSeconds = 60;
constexpr std::chrono::milliseconds ForgetInterval = 1s;

QString keyOf(const ParsedData &record)
{
    return record.getPluginSubIdKey(subids::task()) + QLatin1Char('/')
            + record.getPluginSubIdKey(subids::client());
}

// What is cut then is counted from where the buffer begins, and the answer is another offer.
QMap<QString, QString> withoutPosition(QMap<QString, QString> subId)
{
    subId.remove(subids::offset());
    return subId;
}

Origin originOf(const ParsedData &record)
{
    return {record.getTimestamp(QTimeZone::utc()),
            record.getPluginId(),
            record.getSource(),
            record.getPeerAddress(),
            record.getPeerPort(),
            record.getPluginSubIdKey(subids::client()),
            record.getPluginSubIdKey(subids::task())};
}

// discard() takes an int. What is beyond is offered again.
QByteArrayView discardablePart(QByteArrayView buffer)
{
    constexpr qsizetype most = std::numeric_limits<int>::max();
    return buffer.first(std::min(buffer.size(), most));
}

} // namespace

MessageReader::MessageReader(const FrameFormat &frameFormat, Output &messageOutput, Counters &total,
                             const ExactOffers::Limits &memory)
    : format(frameFormat),
      output(messageOutput),
      counters(total),
      exactOffers(memory)
{
    clock.start();
    setIdleTimeout(DefaultIdleTimeoutSeconds);

    settleTimer.setSingleShot(true);
    settleTimer.setTimerType(Qt::PreciseTimer);
    settleTimer.setInterval(std::chrono::duration_cast<std::chrono::milliseconds>(CutGrace));
    connect(&settleTimer, &QTimer::timeout, this, &MessageReader::postSettling);
    askTimer.setSingleShot(true);
    connect(&askTimer, &QTimer::timeout, this, &MessageReader::askForMore);
    connect(&forgetTimer, &QTimer::timeout, this, &MessageReader::forgetSilent);
    forgetTimer.start(ForgetInterval);
}

void MessageReader::setIdleTimeout(qint64 seconds)
{
    const std::chrono::nanoseconds timeout = std::chrono::seconds(seconds);
    forgetAfter = (timeout + timeout * MostTimerDelayPercent / 100 + MostLastOfferDelay).count();
}

void MessageReader::forgetAll()
{
    while (!clients.empty())
        forgetOldest();
}

void MessageReader::receive(const shared_parsedData &record)
{
    if (done)
        return;

    ++counters.offers;
    const ExactOffers::Offer offer = exactOffers.open(*record, pacedTime);
    if (offer.connection() != 0)
        receiveExactly(*record, offer);
    else
        receivePlainly(*record);
}

void MessageReader::receivePlainly(const ParsedData &record)
{
    Client &client = clientOf(record);
    if (takeOffer(client, record.getOriginalMessage())) {
        setOrigin(client, record);
        readMessages(client);
    }
    client.lastOfferTime = now();
}

// Most offers leave nothing that must be kept here.
void MessageReader::receiveExactly(const ParsedData &record, const ExactOffers::Offer &offer)
{
    const QMap<QString, QString> subId = record.getPluginSubId();
    if (offer.position() == 0) // its first one, or nothing has been consumed since
        counters.addConnection(subId.value(subids::client()));
    Client client = takeOut(offer.connection());
    setOrigin(client, record);
    const bool grown = readExactly(client, offer, subId);
    if (!client.isWorthKeeping())
        return; // what it has consumed is remembered elsewhere
    client.number = offer.connection();
    client.subId = withoutPosition(subId);
    client.lastOfferTime = now();
    Client &kept = keep(std::move(client));
    if (grown)
        askLater(kept, 0);
}

// The answer names the offer's own position, so it cuts the same bytes whenever it is carried out.
// True if there was anything new.
bool MessageReader::readExactly(Client &client, const ExactOffers::Offer &offer,
                                const QMap<QString, QString> &subId)
{
    const QByteArrayView fresh = offer.fresh();
    const qsizetype taken = takeFrames(client, fresh);
    const int length = exactOffers.consume(offer, taken, pacedTime);
    const bool grown = taken > 0 || fresh.size() > client.tail.size();
    client.tail = fresh.sliced(taken).toByteArray(); // a copy: the offer itself may be large
    if (length > 0 && answering)
        Q_EMIT answered(length, subId);
    return grown;
}

void MessageReader::setOrigin(Client &client, const ParsedData &record) const
{
    if (output.showsOrigins())
        client.origin = originOf(record);
    else
        client.origin.source = record.getSource(); // warnings name it
}

// asks: how many there have been without anything new.
void MessageReader::askLater(Client &client, int asks)
{
    client.asks = asks;
    client.askTime = now() + FirstAskAfter.count() * (1LL << asks);
    numbersByAskTime.insert(client.askTime, client.number);
    if (numbersByAskTime.firstKey() == client.askTime)
        startAskTimer();
}

void MessageReader::startAskTimer()
{
    const std::chrono::nanoseconds rest(numbersByAskTime.firstKey() - now());
    askTimer.start(std::max(std::chrono::ceil<std::chrono::milliseconds>(rest), 0ms));
}

void MessageReader::askForMore()
{
    const qint64 time = now();
    while (!numbersByAskTime.isEmpty() && numbersByAskTime.firstKey() <= time) {
        const qint64 askTime = numbersByAskTime.firstKey();
        const auto known = exactClients.constFind(numbersByAskTime.take(askTime));
        if (known != exactClients.constEnd() && known.value()->askTime == askTime)
            ask(*known.value());
    }
    if (!numbersByAskTime.isEmpty())
        startAskTimer();
}

void MessageReader::ask(Client &client)
{
    if (client.tail.isEmpty() || !answering)
        return;
    const QMap<QString, QString> subId = client.subId;
    if (client.asks + 1 < MostAsks)
        askLater(client, client.asks + 1);
    Q_EMIT answered(0, subId); // last: an offer that comes at once replaces the client
}

// False: its state is that of a client that has sent nothing, so that its entry can go.
bool MessageReader::Client::isWorthKeeping() const
{
    return !tracker.isSettled() || !tracker.unread().isEmpty() || !tail.isEmpty()
            || framing.isSkipping();
}

MessageReader::Client &MessageReader::clientOf(const ParsedData &record)
{
    const QString key = keyOf(record);
    const auto known = plainClients.constFind(key);
    if (known == plainClients.constEnd()) {
        counters.addConnection(record.getPluginSubIdKey(subids::client()));
        return keep({0, key, record.getPluginSubId(), {}, {}, {}, {}, 0, 0, 0});
    }
    clients.splice(clients.end(), clients, known.value());
    return *known.value();
}

MessageReader::Client &MessageReader::keep(Client &&client)
{
    if (rememberedConnections() == MaxClients)
        forgetOldest();
    clients.push_back(std::move(client));
    const Clients::iterator kept = std::prev(clients.end());
    if (kept->number != 0)
        exactClients.insert(kept->number, kept);
    else
        plainClients.insert(kept->key, kept);
    return *kept;
}

// A new one if there is none.
MessageReader::Client MessageReader::takeOut(quint64 number)
{
    const auto known = exactClients.constFind(number);
    if (known == exactClients.constEnd())
        return {};
    Client client = std::move(*known.value());
    clients.erase(known.value());
    exactClients.erase(known);
    return client;
}

// False if it is unclear what is new in the offer.
bool MessageReader::takeOffer(Client &client, const QByteArray &offer)
{
    OfferTracker::Fit fit = client.tracker.accept(offer, reachedTime);
    if (fit == OfferTracker::Fit::Foreign) {
        giveUp(client);
        fit = client.tracker.accept(offer, reachedTime);
    }
    if (fit != OfferTracker::Fit::Unclear)
        return true;

    // While the plugin is being stopped, its last offer comes without being asked for.
    if (answering) {
        Q_EMIT answered(0, client.subId);
        settleLater(client);
    }
    return false;
}

void MessageReader::readMessages(Client &client)
{
    const qsizetype taken = takeMessages(client);
    if (taken == 0 || !answering)
        return; // no answer to an offer without messages: see answered()

    Q_EMIT answered(static_cast<int>(taken), client.subId);
    // Comes round when all offers that wait now are handled.
    const qint64 time = now();
    QMetaObject::invokeMethod(
            this, [this, time] { reachedTime = time; }, Qt::QueuedConnection);
    settleLater(client);
}

// Consumes them: how many bytes, framing included.
qsizetype MessageReader::takeMessages(Client &client)
{
    const qsizetype taken = takeFrames(client, discardablePart(client.tracker.unread()));
    if (taken > 0)
        client.tracker.consume(taken, now());
    return taken;
}

qsizetype MessageReader::takeFrames(Client &client, QByteArrayView bytes)
{
    qsizetype taken = 0;
    while (!done && taken < bytes.size()) {
        const Frame frame = takeFrame(bytes.sliced(taken), format, client.framing);
        if (frame.kind == Frame::Incomplete)
            break;
        taken += frame.size;
        handle(client, frame);
    }
    return taken;
}

void MessageReader::handle(const Client &client, const Frame &frame)
{
    if (frame.kind == Frame::Complete) {
        writeMessage(client, frame.message);
    } else if (frame.kind == Frame::TooLong) {
        ++counters.tooLong;
        CWRN(QtWarningMsg, QStringLiteral("Message of more than %1 bytes skipped, from %2"),
             format.maxMessage, client.origin.source);
    }
}

void MessageReader::writeMessage(const Client &client, QByteArrayView bytes)
{
    output.write({client.origin, bytes});
    ++counters.messages;
    counters.bytes += bytes.size();
    if (counters.messages != messageLimit)
        return;

    done = true;
    Q_EMIT finished();
}

void MessageReader::settleLater(const Client &client)
{
    unsettledKeys.insert(client.key);
    if (!settleTimer.isActive())
        settleTimer.start();
}

// The call is queued: offers that wait already were perhaps made before the cut, and come first.
void MessageReader::postSettling()
{
    const qint64 time = now() - CutGrace.count();
    QMetaObject::invokeMethod(
            this, [this, time] { settle(time); }, Qt::QueuedConnection);
}

void MessageReader::settle(qint64 time)
{
    const QSet<QString> keys = std::exchange(unsettledKeys, {});
    for (const QString &key : keys) {
        const auto known = plainClients.constFind(key);
        if (known == plainClients.constEnd())
            continue;
        const Clients::iterator client = known.value();
        settleClient(*client, time);
        if (!client->isWorthKeeping())
            forget(*client);
    }
}

void MessageReader::settleClient(Client &client, qint64 time)
{
    // It was asked for another offer when the unclear one came, and has made none.
    if (client.tracker.isUnclear() && client.lastOfferTime <= time) {
        client.tracker.decide();
        readMessages(client);
    }
    if (!client.tracker.isUnclear())
        client.tracker.settle(time);
    if (!client.tracker.isSettled())
        settleLater(client);
}

void MessageReader::forgetSilent()
{
    // Whoever reads the output may hold everything up for hours. Offers wait meanwhile, repeats
    // among them, so the connections that they belong to must not grow old: this comes once a pass
    // of the event loop at most, and each pass handles all offers that wait.
    pacedTime += ForgetInterval;

    const qint64 time = now();
    while (!clients.empty() && time - clients.front().lastOfferTime > forgetAfter)
        forgetOldest();
}

void MessageReader::forgetOldest()
{
    giveUp(clients.front());
    forget(clients.front());
}

void MessageReader::forget(const Client &client)
{
    const Clients::iterator position =
            client.number != 0 ? exactClients.take(client.number) : plainClients.take(client.key);
    clients.erase(position);
}

// Reads and prints what is left of a connection.
void MessageReader::giveUp(Client &client)
{
    if (client.tracker.isUnclear()) {
        client.tracker.decide();
        takeMessages(client);
    }
    const QByteArrayView rest = client.tail.isEmpty() ? client.tracker.unread() : client.tail;
    if (!rest.isEmpty() && !done) {
        output.write({client.origin, partialMessage(rest, format), true});
        ++counters.partial;
    }
    client.tracker.clear();
    client.tail.clear();
    client.framing = {};
}

qint64 MessageReader::now()
{
    lastTime = std::max(clock.nsecsElapsed(), lastTime + 1);
    return lastTime;
}

} // namespace host
