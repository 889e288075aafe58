// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "receiver.h"

#include <QtTest/QtTest>

namespace {

//! A plugin without sockets.
class PlayedPlugin final : public IInputPlugin
{
    Q_OBJECT

public:
    PlayedPlugin() : IInputPlugin(nullptr) {}

    void onConfigChanged() override {}
    bool start() override { return true; }
    bool stop() override { return true; }
    QString getStatus() override { return {}; }
    void drop(int) override {}
    void discard(int len, const QMap<QString, QString> &) override { discarded += len; }

    int discarded = 0;
};

} // namespace

class tst_Receiver : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void takesLines()
    {
        PlayedPlugin plugin;
        const Receiver receiver(plugin);
        QSignalSpy came(&receiver, &Receiver::linesCame);
        shared_parsedData record(new ParsedData);
        record->setOriginalMessage("one\ntwo\nthr");
        Q_EMIT plugin.receivedData(record);
        QCOMPARE(receiver.lines(), QByteArray("one\ntwo\n"));
        QCOMPARE(plugin.discarded, 8);
        QCOMPARE(came.size(), 1);
    }
};

QTEST_GUILESS_MAIN(tst_Receiver)
#include "tst_receiver.moc"
