// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/exactoffers.h"

#include <QtCore/QRegularExpression>
#include <QtTest/QtTest>

#include <csignal>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// An offer whose first byte has the position offset in its connection.
shared_parsedData offerOf(quint64 connection, quint64 offset, const QByteArray &bytes)
{
    shared_parsedData record(new ParsedData);
    record->setOriginalMessage(bytes);
    record->addPluginSubId(QStringLiteral("offset"), QString::number(offset));
    record->addPluginSubId(QStringLiteral("connection"), QString::number(connection));
    return record;
}

QByteArray freshOf(const ExactOffers::Offer &offer)
{
    return offer.fresh().toByteArray();
}

} // namespace

class tst_ExactOffers : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void everythingIsNewAtFirst();
    void repeatIsNotNew();
    void repeatWithMoreBehind();
    void afterTheCut();
    void consumedInParts();
    void lateOfferOfLess();
    void nothingToDiscard();
    void moreThanWasOffered();
    void connectionsAreApart();
    void recordWithoutPosition_data();
    void recordWithoutPosition();
    void forgetsByAge();
    void forgetsByNumber();
    void anOfferKeepsAConnectionRemembered();
    void offersOpenAtATime();
    void farPositions();
    void forgetsByTheEnd();
    void endWithoutPosition();
    void valuesAreThoseOfTheirKeys();
};

void tst_ExactOffers::everythingIsNewAtFirst()
{
    ExactOffers offers;
    const auto offer = offers.open(*offerOf(7, 100, "abc"));
    QCOMPARE(freshOf(offer), QByteArray("abc"));
    QCOMPARE(offer.position(), 100U);
    QCOMPARE(offer.connection(), 7U);
    QCOMPARE(offers.size(), 0U);
    QCOMPARE(offers.consume(offer, 3), 3);
    QCOMPARE(offers.size(), 1U);
}

void tst_ExactOffers::repeatIsNotNew()
{
    ExactOffers offers;
    QCOMPARE(offers.consume(offers.open(*offerOf(1, 0, "hello\n")), 6), 6);
    const auto repeat = offers.open(*offerOf(1, 0, "hello\n"));
    QVERIFY(repeat.fresh().isEmpty());
    QCOMPARE(repeat.position(), 6U);
    QCOMPARE(offers.consume(repeat, 0), 0);
}

void tst_ExactOffers::repeatWithMoreBehind()
{
    ExactOffers offers;
    offers.consume(offers.open(*offerOf(1, 0, "ab")), 2);
    const auto offer = offers.open(*offerOf(1, 0, "abcd"));
    QCOMPARE(freshOf(offer), QByteArray("cd"));
    QCOMPARE(offers.consume(offer, 1), 3); // includes the two repeated bytes
    QCOMPARE(freshOf(offers.open(*offerOf(1, 0, "abcd"))), QByteArray("d"));
}

void tst_ExactOffers::afterTheCut()
{
    ExactOffers offers;
    offers.consume(offers.open(*offerOf(1, 0, "abcd")), 3);
    const auto offer = offers.open(*offerOf(1, 3, "def"));
    QCOMPARE(freshOf(offer), QByteArray("def"));
    QCOMPARE(offers.consume(offer, 3), 3);
    // Equal bytes at another position are new.
    QCOMPARE(freshOf(offers.open(*offerOf(1, 6, "def"))), QByteArray("def"));
}

void tst_ExactOffers::consumedInParts()
{
    ExactOffers offers;
    const auto offer = offers.open(*offerOf(1, 10, "abcd"));
    QCOMPARE(offers.consume(offer, 1), 1);
    QCOMPARE(offers.consume(offer, 3), 3); // both counts start at the front of the offer
    QCOMPARE(freshOf(offers.open(*offerOf(1, 10, "abcd"))), QByteArray("d"));
    QCOMPARE(offers.consume(offer, 2), 2); // a smaller count changes nothing
    QCOMPARE(freshOf(offers.open(*offerOf(1, 10, "abcd"))), QByteArray("d"));
}

void tst_ExactOffers::lateOfferOfLess()
{
    ExactOffers offers;
    offers.consume(offers.open(*offerOf(1, 0, "abcdef")), 6);
    QVERIFY(offers.open(*offerOf(1, 0, "abc")).fresh().isEmpty());
    QVERIFY(offers.open(*offerOf(1, 2, "")).fresh().isEmpty());
}

void tst_ExactOffers::nothingToDiscard()
{
    ExactOffers offers;
    const auto offer = offers.open(*offerOf(1, 0, "incomplete"));
    QCOMPARE(offers.consume(offer, 0), 0);
    QCOMPARE(offers.consume(offer, -1), 0);
    QCOMPARE(offers.size(), 0U);
}

// It would swallow bytes that are still to come.
void tst_ExactOffers::moreThanWasOffered()
{
    const auto consumeMore = [](ExactOffers &offers) {
        const auto offer = offers.open(*offerOf(7, 100, "abc"));
        return offers.consume(offer, 4);
    };
#ifdef QT_NO_DEBUG
    ExactOffers offers;
    QCOMPARE(consumeMore(offers), 3);
    QCOMPARE(freshOf(offers.open(*offerOf(7, 103, "def"))), QByteArray("def"));
#else
    const pid_t child = fork();
    if (child == 0) {
        std::signal(SIGABRT, SIG_DFL); // no report of a sanitizer, or of the test
        const rlimit noCore{0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
        ExactOffers offers;
        consumeMore(offers);
        _exit(0);
    }
    int status = 0;
    QCOMPARE(waitpid(child, &status, 0), child);
    QVERIFY(WIFSIGNALED(status) && WTERMSIG(status) == SIGABRT);
#endif
}

void tst_ExactOffers::connectionsAreApart()
{
    ExactOffers offers;
    offers.consume(offers.open(*offerOf(1, 0, "same")), 4);
    QCOMPARE(freshOf(offers.open(*offerOf(2, 0, "same"))), QByteArray("same"));
}

void tst_ExactOffers::recordWithoutPosition_data()
{
    QTest::addColumn<QString>("offset");
    QTest::addColumn<QString>("connection");
    QTest::newRow("neither") << QString() << QString();
    QTest::newRow("no connection") << QStringLiteral("0") << QString();
    QTest::newRow("no offset") << QString() << QStringLiteral("1");
    QTest::newRow("no numbers") << QStringLiteral("x") << QStringLiteral("y");
    QTest::newRow("empty") << QStringLiteral("") << QStringLiteral("");
    QTest::newRow("sign") << QStringLiteral("+0") << QStringLiteral("1");
    QTest::newRow("blank") << QStringLiteral("0") << QStringLiteral(" 1");
    QTest::newRow("something behind") << QStringLiteral("0") << QStringLiteral("1x");
    QTest::newRow("other digits") << QStringLiteral("0") << QString(QChar(0x0661));
    QTest::newRow("too large") << QStringLiteral("18446744073709551616") << QStringLiteral("1");
    QTest::newRow("far too large") << QStringLiteral("0") << QString(30, QLatin1Char('9'));
}

void tst_ExactOffers::recordWithoutPosition()
{
    QFETCH(QString, offset);
    QFETCH(QString, connection);
    ExactOffers offers;
    QTest::ignoreMessage(QtWarningMsg, // once
                         QRegularExpression(QStringLiteral("^ExactOffers: .*\"offsets\": true")));
    QTest::failOnWarning(QRegularExpression(QStringLiteral(".*")));
    ParsedData record;
    record.setOriginalMessage("abc");
    if (!offset.isNull())
        record.addPluginSubId(QStringLiteral("offset"), offset);
    if (!connection.isNull())
        record.addPluginSubId(QStringLiteral("connection"), connection);
    for (int n = 0; n < 2; ++n) {
        const auto offer = offers.open(record);
        QCOMPARE(freshOf(offer), QByteArray("abc"));
        QCOMPARE(offer.connection(), 0U);
        QCOMPARE(offers.consume(offer, 2), 2);
    }
    QCOMPARE(offers.size(), 0U);
}

void tst_ExactOffers::forgetsByAge()
{
    using namespace std::chrono_literals;
    ExactOffers offers({100ms, 10});
    const auto begin = ExactOffers::Clock::now();
    const auto record = offerOf(1, 0, "abc");
    offers.consume(offers.open(*record, begin), 3, begin);
    QVERIFY(offers.open(*record, begin + 100ms).fresh().isEmpty());
    QCOMPARE(freshOf(offers.open(*record, begin + 201ms)), QByteArray("abc"));
    QCOMPARE(offers.size(), 0U);
}

void tst_ExactOffers::forgetsByNumber()
{
    ExactOffers offers({std::chrono::hours(1), 2});
    for (quint64 connection : {1U, 2U, 3U})
        offers.consume(offers.open(*offerOf(connection, 0, "abc")), 3);
    QCOMPARE(offers.size(), 2U);
    QCOMPARE(freshOf(offers.open(*offerOf(1, 0, "abc"))), QByteArray("abc"));
    QVERIFY(offers.open(*offerOf(2, 0, "abc")).fresh().isEmpty());
    QVERIFY(offers.open(*offerOf(3, 0, "abc")).fresh().isEmpty());
}

void tst_ExactOffers::anOfferKeepsAConnectionRemembered()
{
    ExactOffers offers({std::chrono::hours(1), 2});
    offers.consume(offers.open(*offerOf(1, 0, "abc")), 3);
    offers.consume(offers.open(*offerOf(2, 0, "abc")), 3);
    offers.open(*offerOf(1, 0, "abc"));
    offers.consume(offers.open(*offerOf(3, 0, "abc")), 3);
    QVERIFY(offers.open(*offerOf(1, 0, "abc")).fresh().isEmpty());
    QCOMPARE(freshOf(offers.open(*offerOf(2, 0, "abc"))), QByteArray("abc"));
}

void tst_ExactOffers::offersOpenAtATime()
{
    ExactOffers offers;
    for (quint64 round : {0U, 2U}) { // unknown connections at first, then known ones
        const auto first = offers.open(*offerOf(1, round, "abc"));
        const auto second = offers.open(*offerOf(2, round, "abc"));
        QCOMPARE(offers.consume(first, 2), 2);
        QCOMPARE(offers.consume(second, 2), 2);
    }
    QCOMPARE(freshOf(offers.open(*offerOf(1, 3, "cd"))), QByteArray("d"));
    QCOMPARE(freshOf(offers.open(*offerOf(2, 3, "cd"))), QByteArray("d"));
    QCOMPARE(offers.size(), 2U);
}

void tst_ExactOffers::farPositions()
{
    ExactOffers offers;
    const quint64 far = (quint64(1) << 40U) + 5;
    offers.consume(offers.open(*offerOf(1, far, "abc")), 3);
    QCOMPARE(freshOf(offers.open(*offerOf(1, far + 2, "cd"))), QByteArray("d"));

    constexpr quint64 farthest = std::numeric_limits<quint64>::max();
    const auto last = offers.open(*offerOf(farthest, farthest, ""));
    QCOMPARE(last.position(), farthest);
    QCOMPARE(last.connection(), farthest);
}

void tst_ExactOffers::forgetsByTheEnd()
{
    ExactOffers offers;
    offers.consume(offers.open(*offerOf(1, 0, "ab")), 2);
    offers.consume(offers.open(*offerOf(2, 0, "cd")), 2);
    const shared_parsedData record = offerOf(1, 2, "");
    record->addPluginSubId(QStringLiteral("end"), QStringLiteral("peer"));
    const auto end = offers.open(*record);
    QVERIFY(end.isEnd());
    QVERIFY(end.fresh().isEmpty());
    QCOMPARE(end.connection(), 1U);
    QCOMPARE(offers.size(), 1U);
    const auto other = offers.open(*offerOf(2, 0, "cd"));
    QVERIFY(!other.isEnd());
    QVERIFY(other.fresh().isEmpty());
    QVERIFY(offers.open(*record).isEnd()); // the connection is already forgotten
}

void tst_ExactOffers::endWithoutPosition()
{
    QTest::ignoreMessage(QtWarningMsg, QRegularExpression(QStringLiteral("^ExactOffers: ")));
    ExactOffers offers;
    ParsedData record;
    record.addPluginSubId(QStringLiteral("end"), QStringLiteral("stop"));
    QVERIFY(offers.open(record).isEnd());
    QVERIFY(!offers.open(ParsedData()).isEnd());
}

// A host may have added other keys. No key may be confused with another one of the same length.
void tst_ExactOffers::valuesAreThoseOfTheirKeys()
{
    QMap<QString, QString> map{{QStringLiteral("tesk"), QStringLiteral("1")},
                               {QStringLiteral("offse"), QStringLiteral("2")},
                               {QStringLiteral("Client"), QStringLiteral("3")},
                               {QStringLiteral("connections"), QStringLiteral("4")},
                               {QString(), QStringLiteral("5")}};
    const subids::Values none(map);
    QVERIFY(!none.task && !none.offset && !none.client && !none.connection && !none.end);

    const QStringList keys{subids::client(), subids::connection(), subids::end(), subids::offset(),
                           subids::task()};
    for (const QString &key : keys)
        map.insert(key, QLatin1String("value of ") + key);
    const subids::Values all(map);
    QCOMPARE(*all.client, QStringLiteral("value of client"));
    QCOMPARE(*all.connection, QStringLiteral("value of connection"));
    QCOMPARE(*all.end, QStringLiteral("value of end"));
    QCOMPARE(*all.offset, QStringLiteral("value of offset"));
    QCOMPARE(*all.task, QStringLiteral("value of task"));
}

QTEST_APPLESS_MAIN(tst_ExactOffers)
#include "tst_exactoffers.moc"
