// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/web/bulletin.h"
#include "host/web/history.h"
#include "host/web/page.h"
#include "host/web/responder.h"

#include <QtCore/QCryptographicHash>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtTest/QtTest>

using namespace host;
using namespace std::chrono_literals;

namespace {

using TimePoint = History::TimePoint;

Snapshot snapshotAt(std::chrono::milliseconds time, qint64 messages, quint64 connections = 0)
{
    Snapshot snapshot;
    snapshot.taken = TimePoint(time);
    snapshot.messages = messages;
    snapshot.messageBytes = 10 * messages;
    snapshot.plugin.emplace().open = connections;
    return snapshot;
}

QByteArray sha256Source(const QByteArray &text)
{
    return "'sha256-" + QCryptographicHash::hash(text, QCryptographicHash::Sha256).toBase64()
            + '\'';
}

} // namespace

// The page for browsers and the history that it plots, without a server or a browser.
class tst_WebPage : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void ratesSinceTheSampleBefore();
    void withoutPluginNobodyIsConnected();
    void keepsAnHour();
    void historyAsJson();
    void historyOverHttp();
    void pageAllowsOnlyItself();
    void pageUsesNothingFromOutside();
};

void tst_WebPage::ratesSinceTheSampleBefore()
{
    History history;
    history.note(snapshotAt(1s, 100));
    history.note(snapshotAt(5999ms, 200)); // too early
    QVERIFY(history.samples().isEmpty());
    history.note(snapshotAt(6s, 150, 7));
    QCOMPARE(history.samples().size(), 1);
    history.note(snapshotAt(7s, 160));
    history.note(snapshotAt(16s, 250, 8)); // the host's thread stood still
    const History::Samples samples = history.samples();
    QCOMPARE(samples.size(), 2);
    QCOMPARE(samples.at(0).connections, 7u);
    QCOMPARE(samples.at(0).messagesPerSecond, 10.0);
    QCOMPARE(samples.at(0).bytesPerSecond, 100.0);
    QCOMPARE(samples.at(1).connections, 8u);
    QCOMPARE(samples.at(1).messagesPerSecond, 10.0);
    QCOMPARE(samples.at(1).taken, TimePoint(16s));
}

void tst_WebPage::withoutPluginNobodyIsConnected()
{
    History history;
    history.note(snapshotAt(0s, 0));
    Snapshot snapshot = snapshotAt(5s, 0, 3);
    snapshot.plugin.reset();
    history.note(snapshot);
    QCOMPARE(history.samples().at(0).connections, 0u);
}

void tst_WebPage::keepsAnHour()
{
    QCOMPARE(History::SampleInterval * History::MostSamples, 1h);
    History history;
    for (int n = 0; n <= 2 * History::MostSamples; ++n)
        history.note(snapshotAt(n * History::SampleInterval, n));
    const History::Samples samples = history.samples();
    QCOMPARE(samples.size(), History::MostSamples);
    QCOMPARE(samples.last().taken - samples.first().taken, 1h - History::SampleInterval);
    QCOMPARE(samples.last().taken, TimePoint(2h));
}

void tst_WebPage::historyAsJson()
{
    const History::Samples samples = {{TimePoint(5s), 3, 0.25, 2.5}, {TimePoint(10s), 4, 1e6, 1e9}};
    const QJsonObject all =
            QJsonDocument::fromJson(historyJson(samples, TimePoint(12300ms))).object();
    QCOMPARE(all,
             (QJsonObject{{QStringLiteral("intervalSeconds"), 5},
                          {QStringLiteral("secondsAgo"), QJsonArray{7.3, 2.3}},
                          {QStringLiteral("connections"), QJsonArray{3, 4}},
                          {QStringLiteral("messagesPerSecond"), QJsonArray{0.3, 1e6}},
                          {QStringLiteral("bytesPerSecond"), QJsonArray{2.5, 1e9}}}));
}

// What the host's thread publishes is what is asked for later.
void tst_WebPage::historyOverHttp()
{
    Bulletin bulletin([] {});
    Responder responder(bulletin, [] { return TimePoint(9s); });
    bulletin.publish(snapshotAt(0s, 0));
    bulletin.publish(snapshotAt(5s, 50, 6));
    const WebResponse answer = responder.respond({QStringLiteral("/history.json"), {}, {}, {}, {}});
    QCOMPARE(answer.code, 200);
    QCOMPARE(answer.type, QByteArray("application/json"));
    const QJsonObject all = QJsonDocument::fromJson(answer.body).object();
    QCOMPARE(all.value(u"secondsAgo").toArray(), QJsonArray{4});
    QCOMPARE(all.value(u"connections").toArray(), QJsonArray{6});
    QCOMPARE(all.value(u"messagesPerSecond").toArray(), QJsonArray{10});
}

void tst_WebPage::pageAllowsOnlyItself()
{
    Bulletin bulletin([] {});
    const WebResponse answer = Responder(bulletin).respond({QStringLiteral("/"), {}, {}, {}, {}});
    QCOMPARE(answer.code, 200);
    QCOMPARE(answer.type, QByteArray("text/html; charset=utf-8"));
    QCOMPARE(answer.body, pageHtml());
    static const QRegularExpression element(QStringLiteral("<(script|style)>(.*?)</\\1>"),
                                            QRegularExpression::DotMatchesEverythingOption);
    QByteArray sources;
    for (const QRegularExpressionMatch &match :
         element.globalMatch(QString::fromUtf8(answer.body))) {
        const QByteArray name = match.captured(1).toUtf8();
        sources = "; " + name + "-src " + sha256Source(match.captured(2).toUtf8()) + sources;
    }
    QCOMPARE(sources.count("sha256"), 2); // one script, one style
    QCOMPARE(answer.policy,
             "default-src 'none'; connect-src 'self'" + sources
                     + "; base-uri 'none'; form-action 'none'; frame-ancestors 'none'");
}

void tst_WebPage::pageUsesNothingFromOutside()
{
    const QString html = QString::fromUtf8(pageHtml());
    static const QRegularExpression outside(QStringLiteral(
            "\\b(src|href|style|on[a-z]+)=|url\\(|@import|innerHTML|document.write"));
    const QRegularExpressionMatch found = outside.match(html);
    QVERIFY2(!found.hasMatch(), qPrintable(found.captured()));
}

QTEST_GUILESS_MAIN(tst_WebPage)
#include "tst_webpage.moc"
