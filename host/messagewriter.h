// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/counters.h"
#include "host/framing.h"
#include "host/sinks/sink.h"
#include "plugin/kit/acknowledgements.h"
#include "plugin/kit/linelimit.h"
#include "plugin/kit/offerconsumer.h"
#include "plugin/kit/trafficobserver.h"

#include <QtCore/QObject>

#include <vector>

namespace host {

/*!
    Cuts a connection's bytes into messages, gives them to the sink and counts them.

    Thread: any one.
    Owner:  the caller, also of the sink and the counters.
*/
class MessageWriter : public QObject, public inputkit::OfferConsumer
{
    Q_OBJECT

public:
    MessageWriter(const FrameFormat &frameFormat, Sink &messageSink, Counters &total);

    // Who sees what is read, and the ends; outlives the writer. Default: nobody.
    void addObserver(inputkit::TrafficObserver *observer) { observers.push_back(observer); }
    // Who is told of what the sink gets, if messages are acknowledged; outlives the writer.
    // Default: nobody.
    void setAcknowledgements(inputkit::Acknowledgements *value) { acknowledgements = value; }
    // Stops after that many messages: nothing more goes to the sink. 0 (default): never.
    void setLimit(qint64 messages) { limit = messages; }
    bool isDone() const override { return done; }

    // Only the parts that the sink shows, or that an observer needs, and the source.
    Origin originOf(const ParsedData &record, quint64 connection) const override;
    void began(const ParsedData &record) override;
    qsizetype write(QByteArrayView bytes, quint64 position, const Origin &origin,
                    inputkit::FrameState &state, inputkit::Allowance &allowance) override;
    qsizetype bytesToAppend(QByteArrayView rest, QByteArrayView next) const override;
    void writePartial(QByteArrayView rest, quint64 position, const Origin &origin) override;
    // A line warns of it.
    bool giveUp(QByteArrayView rest, quint64 position, const Origin &origin,
                inputkit::FrameState &state) override;
    void read(const Origin &origin, quint64 position, QByteArrayView bytes) override;
    void ended(const Origin &origin, const QString &reason, quint64 position) override;

    // Warnings of a kind beyond ten a minute are only counted. This logs their number if the minute
    // is over, or if atOnce.
    void tellMissedWarnings(bool atOnce = false);

Q_SIGNALS:
    // The limit is reached.
    void finished();

private:
    void warnOfTooLong(const Origin &origin);
    void pass(const Message &message);
    void writeMessage(const Message &message);

    const qint64 maxMessage;
    const inputkit::SharedFraming framing;
    Sink &sink;
    Counters &counters;
    inputkit::LineLimit tooLongLines;
    inputkit::LineLimit givenUpLines;
    std::vector<inputkit::TrafficObserver *> observers;
    inputkit::Acknowledgements *acknowledgements = nullptr;
    qint64 limit = 0;
    bool done = false;
};

} // namespace host
