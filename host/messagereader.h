// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/messagewriter.h"
#include "host/plainreader.h"
#include "plugin/kit/acknowledgements.h"
#include "plugin/kit/offerreader.h"
#include "plugin/kit/recordreader.h"

#include <QtCore/QMap>
#include <QtCore/QObject>
#include <QtCore/QTimer>

namespace host {

/*!
    Turns the plugin's offers into messages, and answers them.

    Offers that carry their position are read exactly (inputkit::OfferReader). For other offers,
    PlainReader guesses which bytes are repeated.

    With "ends", a connection is forgotten when the plugin tells its end. Without "ends", it is
    forgotten when it was silent for longer than the plugin's idle time-out: the plugin has closed
    it by then. It is also forgotten when there are more than 100,000 and it was silent for the
    longest time. In each case its unfinished message is printed as partial.

    While the sink is full, nothing is read: offers that carry their position wait here, the latest
   of each connection. The plugin's "limits" count them, and so devices have to wait. For other
   offers this thread waits: what they repeat depends on when they are read.

    What a sink acknowledges is answered only then, if the plugin has "offsets" and "ends".
    Otherwise it is answered when it is read.

    Thread: the plugin's, which needs an event loop; receive() is called directly.
    Owner:  the caller, also of the sink and the counters.
*/
class MessageReader : public QObject, public inputkit::RecordReader
{
    Q_OBJECT

public:
    // memory: limits for what ExactOffers remembers if ends are not told. Time during which offers
    // had to wait does not count for the age.
    MessageReader(const FrameFormat &frameFormat, Sink &messageSink, Counters &total,
                  const ExactOffers::Limits &memory = {}, const inputkit::Pace &pace = {});

    // The plugin's idle time-out. Default: 60 s.
    void setIdleTimeout(qint64 seconds);
    // enable: the plugin has "ends". Default: false. Call before its first record.
    void setEndsTold(bool enable);
    // Limits the unfinished messages of all connections that are read exactly. Beyond the limit,
    // the longest message is given up. Default: no limit.
    void setMaxUnfinished(qint64 bytes) { exact.setMaxUnfinished(bytes); }
    // Who sees what is read of the connections that are read exactly; outlives the reader. Default:
    // nobody.
    void addObserver(inputkit::TrafficObserver *observer) { writer.addObserver(observer); }
    // Stops after that many messages: nothing more is read. 0 (default): never.
    void setMessageLimit(qint64 messages) { writer.setLimit(messages); }

    // Has "ends" or not, as the configuration says.
    void begin(const QJsonObject &configuration) override;
    bool isReading() const override { return exact.isReading(); }
    void setAnswering(bool enable) override;
    void forgetAll() override;
    bool readsBoth(const QJsonObject &running, const QJsonObject &next) const override;
    void forgetUpTo(quint64 connection) override { exact.forgetUpTo(connection); }

    // Of the connections that are read exactly with "ends": the open ones that have made an offer.
    // Of all others: those of which something is kept.
    qsizetype rememberedConnections() const { return exact.remembered() + plain.remembered(); }

public Q_SLOTS:
    void receive(const shared_parsedData &record) override;

Q_SIGNALS:
    // To be connected with IInputPlugin::discard(). Must not lead back into receive().
    void answered(int bytes, const QMap<QString, QString> &subId);
    // The message limit is reached.
    void finished();
    // True: so many connections have ended and wait to be read that no more should be accepted.
    void crowded(bool isCrowded);

private:
    void receiveExact(const ExactOffers::Place &place, const shared_parsedData &record);
    void answerExact(int bytes, const QMap<QString, QString> &subId);
    void pause(bool isFull);
    void endCrowd();
    void forgetSilent();

    Sink &sink;
    MessageWriter writer;
    Counters &counters;
    const inputkit::Answer answer;
    inputkit::Acknowledgements acknowledgements;
    bool holding = false; // answers, until the sink acknowledges the messages
    inputkit::OfferReader exact;
    PlainReader plain;
    qsizetype endsWaiting = 0; // that came while the sink was full
    QTimer forgetTimer;
};

} // namespace host
