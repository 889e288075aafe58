// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/messagereader.h"

#include "eventloop/epolleventdispatcher.h"
#include "plugin/kit/defaults.h"
#include "plugin/subids.h"

#include <chrono>

namespace host {
namespace {

using namespace std::chrono_literals;

// The plugin's timers fire up to 5 % late, and the last offer needs some time to arrive.
constexpr int MostTimerDelayPercent = 5;
constexpr std::chrono::nanoseconds MostLastOfferDelay = 2s;

constexpr qint64 DefaultIdleTimeoutSeconds = 60;
constexpr std::chrono::milliseconds ForgetInterval = 1s;

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

MessageReader::MessageReader(const FrameFormat &frameFormat, Output &messageOutput, Counters &total,
                             const ExactOffers::Limits &memory, const inputkit::Pace &pace)
    : writer(frameFormat, messageOutput, total),
      counters(total),
      answer([this](int bytes, const auto &subId) { Q_EMIT answered(bytes, subId); }),
      exact(writer, answer, memory, withTurnCount(pace)),
      plain(writer, total, answer)
{
    connect(&writer, &MessageWriter::finished, this, &MessageReader::finished);
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
    writer.tellMissedWarnings(true);
}

void MessageReader::receive(const shared_parsedData &record)
{
    if (writer.isDone())
        return;
    const QMap<QString, QString> subIds = record->getPluginSubId();
    const ExactOffers::Place place{subids::Values(subIds)};
    if (place.connection == 0)
        return plain.receive(*record);
    counters.offers += place.isEnd ? 0 : 1;
    exact.receive(place, record);
}

void MessageReader::forgetSilent()
{
    exact.forgetSilent(ForgetInterval);
    plain.forgetSilent();
    writer.tellMissedWarnings();
}

} // namespace host
