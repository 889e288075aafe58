// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/kit/pluginrunner.h"
#include "plugin/parseddata.h"
#include "tests/kit/hangguard.h"
#include "tests/kit/messagecapture.h"
#include "tests/kit/testaddress.h"

#include <QtNetwork/QTcpServer>
#include <QtNetwork/QTcpSocket>
#include <QtTest/QtTest>

using namespace inputkit;

namespace {

// Notes what the runner calls, and refuses configurations that have the key "refuse".
class Notes : public RecordReader
{
public:
    QString refusal(const QJsonObject &configuration) const override
    {
        return configuration.contains(QLatin1String("refuse")) ? QStringLiteral("refused")
                                                               : QString();
    }
    void begin(const QJsonObject &configuration) override
    {
        calls += QStringLiteral("begin ")
                + QString::number(configuration.value(QLatin1String("port")).toInt());
    }
    void receive(const shared_parsedData &record) override
    {
        calls += QString::fromLatin1(record->getOriginalMessage());
        subId = record->getPluginSubId();
    }
    bool isReading() const override { return reading; }
    void setAnswering(bool enable) override
    {
        calls += enable ? QStringLiteral("answer") : QStringLiteral("only read");
    }
    void forgetAll() override { calls += QStringLiteral("forget"); }

    QStringList calls;
    QMap<QString, QString> subId; // of the latest record
    bool reading = false;
};

QJsonObject listenOn(int port)
{
    return {{QStringLiteral("ipAddr"), testAddress().toString()}, {QStringLiteral("port"), port}};
}

PluginSettings settings()
{
    PluginSettings result;
    result.library = QStringLiteral(PLUGIN_FILE);
    return result;
}

} // namespace

class tst_PluginRunner : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void passesRecordsAndAnswers();
    void callsTheReaderInOrder();
    void restores();
    void nothingToRestore();
    void reloadsOneAfterTheOther();
    void refusedByTheReader();
    void waitsForTheReader();
    void acceptsNothing();
    void loads();
};

void tst_PluginRunner::passesRecordsAndAnswers()
{
    Notes notes;
    PluginRunner runner(settings(), notes);
    runner.answer(1, {}); // there is no plugin
    QVERIFY(!runner.counters());
    QVERIFY(runner.start(listenOn(freePort())));
    QTcpSocket device;
    device.connectToHost(runner.listens().address, static_cast<quint16>(runner.listens().port));
    device.write("abc");
    QTRY_COMPARE_WITH_TIMEOUT(notes.calls.last(), QStringLiteral("abc"), HangGuardMs);
    QCOMPARE(runner.counters()->buffered, quint64(3));
    runner.answer(3, notes.subId);
    QTRY_COMPARE_WITH_TIMEOUT(runner.counters()->buffered, quint64(0), HangGuardMs);
}

// The plugin hands over its last record while it goes, and nothing is answered then.
void tst_PluginRunner::callsTheReaderInOrder()
{
    Notes notes;
    const int first = freePort();
    const int second = freePort();
    {
        PluginRunner runner(settings(), notes);
        QVERIFY(runner.start(listenOn(first)));
        QTcpSocket device;
        device.connectToHost(testAddress(), static_cast<quint16>(first));
        device.write("abc");
        QTRY_COMPARE_WITH_TIMEOUT(notes.calls.size(), 2, HangGuardMs);
        QVERIFY(runner.start(listenOn(second)));
        QCOMPARE(runner.listens().port, second);
    }
    const QStringList going = {QStringLiteral("only read"), QStringLiteral("forget"),
                               QStringLiteral("answer")};
    const QString begin = QStringLiteral("begin %1");
    QCOMPARE(notes.calls,
             QStringList({begin.arg(first), QStringLiteral("abc"), going[0], QStringLiteral("abc"),
                          going[1], going[2], begin.arg(second)})
                     + going);
}

void tst_PluginRunner::restores()
{
    const MessageCapture capture;
    QTcpServer other;
    QVERIFY(other.listen(testAddress()));
    Notes notes;
    PluginRunner runner(settings(), notes);
    const QJsonObject old = listenOn(freePort());
    QVERIFY(runner.start(old));
    QVERIFY(!runner.start(listenOn(other.serverPort())));
    QCOMPARE(runner.failure(), PluginRunner::Failure::NotListening);
    QVERIFY(!runner.listens().isListening());
    QCOMPARE(runner.configuration(), old);

    QVERIFY(runner.restore());
    QCOMPARE(runner.failure(), PluginRunner::Failure::None);
    QVERIFY(runner.listens().isListening());
    const qsizetype calls = notes.calls.size();
    QVERIFY(runner.restore()); // it listens
    QCOMPARE(notes.calls.size(), calls);
}

void tst_PluginRunner::nothingToRestore()
{
    const MessageCapture capture;
    QTcpServer other;
    QVERIFY(other.listen(testAddress()));
    Notes notes;
    PluginRunner runner(settings(), notes);
    QVERIFY(!runner.start(listenOn(other.serverPort())));
    QVERIFY(!runner.restore());
    QCOMPARE(runner.failure(), PluginRunner::Failure::NotListening);

    // The old one does not listen any more, either.
    const quint16 port = freePort();
    QVERIFY(runner.start(listenOn(port)));
    runner.stop();
    QTcpServer another;
    QVERIFY(another.listen(testAddress(), port));
    QVERIFY(!runner.restore());
    QCOMPARE(runner.failure(), PluginRunner::Failure::NotListening);
}

// This reader cannot read two plugins.
void tst_PluginRunner::reloadsOneAfterTheOther()
{
    const MessageCapture capture;
    QTcpServer other;
    QVERIFY(other.listen(testAddress()));
    Notes notes;
    PluginRunner runner(settings(), notes);
    const int first = freePort();
    const int second = freePort();
    QVERIFY(runner.start(listenOn(first)));
    QTcpSocket device;
    device.connectToHost(testAddress(), static_cast<quint16>(first));
    QTRY_COMPARE_WITH_TIMEOUT(runner.counters()->open, quint64(1), HangGuardMs);
    notes.calls.clear();
    QVERIFY(runner.reload(listenOn(second)));
    const QStringList going = {QStringLiteral("only read"), QStringLiteral("forget"),
                               QStringLiteral("answer")};
    const auto begin = [](int port) { return QStringList{QStringLiteral("begin %1").arg(port)}; };
    QCOMPARE(notes.calls, going + begin(second));
    QTRY_COMPARE_WITH_TIMEOUT(device.state(), QAbstractSocket::UnconnectedState, HangGuardMs);

    notes.calls.clear();
    QVERIFY(!runner.reload(listenOn(other.serverPort())));
    QCOMPARE(runner.failure(), PluginRunner::Failure::NotListening);
    QCOMPARE(runner.listens().port, second);
    QCOMPARE(notes.calls, going + begin(other.serverPort()) + going + begin(second));
}

void tst_PluginRunner::refusedByTheReader()
{
    Notes notes;
    PluginRunner runner(settings(), notes);
    QVERIFY(runner.start(listenOn(freePort())));
    const QStringList calls = notes.calls;
    QVERIFY(!runner.start({{QStringLiteral("refuse"), true}}));
    QCOMPARE(runner.failure(), PluginRunner::Failure::BadConfiguration);
    QCOMPARE(runner.errorString(), QStringLiteral("refused"));
    QVERIFY(runner.listens().isListening());
    QCOMPARE(notes.calls, calls);
}

void tst_PluginRunner::waitsForTheReader()
{
    Notes notes;
    PluginRunner runner(settings(), notes);
    QVERIFY(runner.start(listenOn(freePort())));
    notes.reading = true;
    QVERIFY(runner.isBusy());
    QVERIFY(!runner.start(listenOn(freePort())));
    QCOMPARE(runner.failure(), PluginRunner::Failure::Busy);
    QVERIFY(!runner.restore());
    runner.stop();
    QVERIFY(runner.listens().isListening());
    notes.reading = false;
    QTRY_VERIFY_WITH_TIMEOUT(!runner.listens().isListening(), HangGuardMs);
    QVERIFY(runner.status().isEmpty());
}

// Neither by the plugin that runs nor by the next one.
void tst_PluginRunner::acceptsNothing()
{
    Notes notes;
    PluginRunner runner(settings(), notes);
    runner.setAccepting(false);
    for (int n = 0; n < 2; ++n) {
        const quint16 port = freePort();
        QVERIFY(runner.start(listenOn(port)));
        QTcpSocket device;
        device.connectToHost(testAddress(), port);
        QVERIFY(device.waitForConnected(HangGuardMs));
        QCoreApplication::processEvents(); // would accept it
        QCOMPARE(runner.counters()->accepted, quint64(0));
        if (n == 0)
            continue;
        runner.setAccepting(true);
        QTRY_COMPARE_WITH_TIMEOUT(runner.counters()->accepted, quint64(1), HangGuardMs);
        runner.setAccepting(false);
    }
}

void tst_PluginRunner::loads()
{
    Notes notes;
    PluginSettings missing;
    missing.library = QStringLiteral("/nowhere/libx.so");
    PluginRunner bad(missing, notes);
    QVERIFY(!bad.load());
    QCOMPARE(bad.failure(), PluginRunner::Failure::NoLibrary);
    QVERIFY(bad.errorString().contains(missing.library));

    PluginRunner good(settings(), notes);
    QVERIFY(good.load());
    QVERIFY(good.load());
    QVERIFY(!good.listens().isListening());
    QVERIFY(good.configuration().isEmpty());
}

QTEST_GUILESS_MAIN(tst_PluginRunner)
#include "tst_pluginrunner.moc"
