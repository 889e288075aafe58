// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "scriptedhost.h"

#include <QtCore/QTimer>

#include <algorithm>
#include <cstring>

namespace {

thread_local int connectionCalledFor = -1;

} // namespace

ScriptedHost::ScriptedHost(IInputPlugin *inputPlugin, quint16 pluginsPort)
    : plugin(inputPlugin),
      port(pluginsPort)
{
    helper.moveToThread(&helperThread);
    helperThread.start();
    connect(plugin, &IInputPlugin::receivedData, this, &ScriptedHost::receive,
            Qt::DirectConnection);
}

ScriptedHost::~ScriptedHost()
{
    helperThread.quit();
    helperThread.wait();
}

int ScriptedHost::callingFor()
{
    return connectionCalledFor;
}

void ScriptedHost::expect(quint16 devicePort, int number, const Script &script, Trace &trace)
{
    guests[devicePort] =
            std::make_shared<Guest>(Guest{number, &script, script.stream(), &trace, 0});
}

void ScriptedHost::stopAnswering()
{
    answering = false;
    waitingAnswers = 0;
    QMetaObject::invokeMethod(
            &helper, [] {}, Qt::BlockingQueuedConnection);
}

void ScriptedHost::receive(const shared_parsedData &record)
{
    const qint64 order = nextInOrder();
    const auto now = Clock::now();
    const std::shared_ptr<Guest> guest = guests.value(record->getPeerPort());
    if (!guest)
        qFatal("a record of port %d, where no device is", record->getPeerPort());
    TracedOffer offer = trace(*guest, record->getOriginalMessage());
    offer.order = order;
    offer.at = now;
    offer.record = textOf(*record);
    guest->trace->offers.append(offer);
    if (!answering)
        return;
    const Due due{guest.get(), guest->trace->offers.size() - 1, record->getPluginSubId()};
    const Answer &given = guest->script->answerTo(due.offer);
    if (given.reply == Reply::None)
        return;
    ++waitingAnswers;
    if (given.lateMs == 0)
        answer(due);
    else
        QTimer::singleShot(given.lateMs, Qt::PreciseTimer, this, [this, due] { answer(due); });
}

// Finds out where in the stream an offer's bytes are. An offer goes on to the end of what has come,
// which is mostly a message's end, and no offer ends before an earlier one.
TracedOffer ScriptedHost::trace(const Guest &guest, const QByteArray &bytes)
{
    TracedOffer offer;
    offer.length = bytes.size();
    qsizetype least = 0;
    if (!guest.trace->offers.isEmpty()) {
        const TracedOffer &last = guest.trace->offers.last();
        least = std::max(last.begin, last.begin + last.length - offer.length);
    }
    const QByteArrayView stream(guest.stream);
    const QByteArrayView head = QByteArrayView(bytes).first(std::min<qsizetype>(bytes.size(), 16));
    const auto isAt = [&](qsizetype begin) {
        offer.begin = begin;
        // The first bytes alone, first: ThreadSanitizer looks at all bytes of a comparison.
        return begin >= least && begin + offer.length <= stream.size()
                && stream.sliced(begin, head.size()) == head
                && stream.sliced(begin, bytes.size()) == bytes;
    };
    qsizetype end = 0;
    for (const Message &message : guest.script->messages) {
        end += message.bytes;
        if (isAt(end - offer.length))
            return offer;
    }
    for (qsizetype begin = least; begin + offer.length <= guest.stream.size(); ++begin) {
        if (isAt(begin))
            return offer;
    }
    offer.intact = false;
    return offer;
}

QString ScriptedHost::textOf(const ParsedData &record) const
{
    QMap<QString, QString> ids = record.getPluginSubId();
    QString text =
            QStringLiteral("plugin %1, %2, %3:%4, client %5, task %6")
                    .arg(record.getPluginId(), record.getSource(), record.getPeerAddress())
                    .arg(record.getPeerPort())
                    .arg(ids.take(QStringLiteral("client")), ids.take(QStringLiteral("task")));
    const auto rename = [&text](quint16 number, const char *name) {
        text.replace(QStringLiteral(":%1").arg(number), QLatin1String(name));
    };
    rename(record.getPeerPort(), ":device");
    rename(port, ":port");
    const bool more = !ids.isEmpty() || !record.getFormat().isEmpty() || record.isParsed()
            || !record.getDeviceId().isEmpty() || !record.getData().isEmpty()
            || record.isGPSPosData() || record.getDevice();
    return more ? text + QStringLiteral(", and more") : text;
}

void ScriptedHost::answer(const Due &due)
{
    if (!answering)
        return;
    --waitingAnswers;
    Guest &guest = *due.guest;
    const QList<int> all =
            lengths(guest, guest.script->answerTo(due.offer), guest.trace->offers.at(due.offer));
    if (all.isEmpty())
        return;
    for (const int length : all)
        guest.trace->discarded += std::max(length, 0);
    if (guest.script->otherThread)
        QMetaObject::invokeMethod(
                &helper, [this, due, all] { discard(due, all); }, Qt::QueuedConnection);
    else
        discard(due, all);
}

QList<int> ScriptedHost::lengths(Guest &guest, const Answer &answer, const TracedOffer &offer) const
{
    if (guest.script->spaced)
        return guest.script->discards(answer, offer.begin, offer.length);
    const qsizetype end = offer.begin + offer.length;
    qsizetype until = guest.consumed;
    if (answer.reply == Reply::Zero)
        return {0};
    if (answer.reply == Reply::Negative)
        return {-answer.amount};
    if (answer.reply == Reply::Messages)
        until = guest.script->wholeUntil(end);
    else if (const qsizetype next = guest.script->endOfMessageAt(guest.consumed); next <= end)
        until = next;
    if (until <= guest.consumed)
        return {};
    const auto length = static_cast<int>(until - guest.consumed);
    guest.consumed = until;
    return {length};
}

void ScriptedHost::discard(const Due &due, const QList<int> &all)
{
    {
        const QMutexLocker locker(&mutex);
        due.guest->trace->discards.insert(due.offer, Clock::now());
    }
    connectionCalledFor = due.guest->number;
    for (const int length : all)
        plugin->discard(length, due.subid);
    connectionCalledFor = -1;
}
