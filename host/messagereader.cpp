// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/messagereader.h"

#include "eventloop/epolleventdispatcher.h"
#include "plugin/kit/defaults.h"
#include "plugin/subids.h"

#include <chrono>
#include <utility>

namespace host {
namespace {

using namespace std::chrono_literals;

// The plugin's timers fire up to 5 % late, and the last offer needs some time to arrive.
constexpr int MostTimerDelayPercent = 5;
constexpr std::chrono::nanoseconds MostLastOfferDelay = 2s;

constexpr qint64 DefaultIdleTimeoutSeconds = 60;
constexpr std::chrono::milliseconds ForgetInterval = 1s;

// A connection that has ended while the sink was full is kept until it can be read, at some
// kilobytes each. More would come as long as new ones are accepted.
constexpr qsizetype MostEndsWaiting = 10000;

// Our own dispatcher counts its turns, and does not tell of them.
inputkit::Pace withTurnCount(inputkit::Pace pace)
{
    const auto *own = qobject_cast<EpollEventDispatcher *>(QAbstractEventDispatcher::instance());
    if (own && !pace.turnCount) {
        const auto pulse = own->pulse();
        pace.turnCount = inputkit::TurnCount(pulse, &pulse->turns);
    }
    return pace;
}

} // namespace

MessageReader::MessageReader(const FrameFormat &frameFormat, Sink &messageSink, Counters &total,
                             const ExactOffers::Limits &memory, const inputkit::Pace &pace)
    : sink(messageSink),
      writer(frameFormat, messageSink, total),
      counters(total),
      answer([this](int bytes, const auto &subId) { Q_EMIT answered(bytes, subId); }),
      acknowledgements(answer),
      exact(
              writer, [this](int bytes, const auto &subId) { answerExact(bytes, subId); }, memory,
              withTurnCount(pace)),
      plain(writer, total, answer)
{
    connect(&writer, &MessageWriter::finished, this, &MessageReader::finished);
    connect(&sink, &Sink::fullChanged, this, &MessageReader::pause);
    connect(&sink, &Sink::safe, this, [this](quint64 connection, quint64 end) {
        acknowledgements.acknowledge(connection, end);
    });
    connect(&forgetTimer, &QTimer::timeout, this, &MessageReader::forgetSilent);
    setIdleTimeout(DefaultIdleTimeoutSeconds);
    forgetTimer.start(ForgetInterval);
}

void MessageReader::setIdleTimeout(qint64 seconds)
{
    const std::chrono::nanoseconds timeout = std::chrono::seconds(seconds);
    const auto forgetAfter = timeout + timeout * MostTimerDelayPercent / 100 + MostLastOfferDelay;
    exact.setForgetAfter(forgetAfter);
    plain.setForgetAfter(forgetAfter);
}

void MessageReader::setEndsTold(bool enable)
{
    exact.setEndsTold(enable);
    plain.setEndsTold(enable);
}

void MessageReader::begin(const QJsonObject &configuration)
{
    setEndsTold(inputkit::tellsEnds(configuration));
    // Without "ends", what is held for a connection would stay for ever.
    holding = sink.acknowledges() && inputkit::tellsEnds(configuration);
    writer.setAcknowledgements(holding ? &acknowledgements : nullptr);
}

// Guessing what offers repeat, the reader could not tell one plugin's from the other's.
bool MessageReader::readsBoth(const QJsonObject &running, const QJsonObject &next) const
{
    const auto areTold = [](const QJsonObject &configuration) {
        return inputkit::stampsOffers(configuration) && inputkit::tellsEnds(configuration);
    };
    return areTold(running) && areTold(next);
}

void MessageReader::setAnswering(bool enable)
{
    exact.setAnswering(enable);
    plain.setAnswering(enable);
}

void MessageReader::forgetAll()
{
    exact.forgetAll();
    plain.forgetAll();
    acknowledgements.clear();
    endCrowd();
    writer.tellMissedWarnings(true);
}

void MessageReader::receive(const shared_parsedData &record)
{
    if (writer.isDone())
        return;
    const QMap<QString, QString> subIds = record->getPluginSubId();
    const ExactOffers::Place place{subids::Values(subIds)};
    if (place.connection != 0) {
        receiveExact(place, record);
        return;
    }
    plain.receive(*record);
    if (sink.isFull())
        sink.makeRoom();
}

void MessageReader::receiveExact(const ExactOffers::Place &place, const shared_parsedData &record)
{
    counters.offers += place.isEnd ? 0 : 1;
    exact.receive(place, record);
    if (place.isEnd && sink.isFull() && ++endsWaiting == MostEndsWaiting)
        Q_EMIT crowded(true);
}

void MessageReader::answerExact(int bytes, const QMap<QString, QString> &subId)
{
    if (holding)
        acknowledgements.answered(bytes, subId);
    else
        answer(bytes, subId);
}

void MessageReader::pause(bool isFull)
{
    exact.setAllPaused(isFull);
    if (!isFull)
        endCrowd();
}

void MessageReader::endCrowd()
{
    if (std::exchange(endsWaiting, 0) >= MostEndsWaiting)
        Q_EMIT crowded(false);
}

void MessageReader::forgetSilent()
{
    writer.tellMissedWarnings();
    if (sink.isFull()) // who waits is not silent
        return;
    exact.forgetSilent(ForgetInterval);
    plain.forgetSilent();
}

} // namespace host
