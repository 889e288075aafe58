// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/kit/acknowledgements.h"

#include "plugin/subids.h"

#include <QtTest/QtTest>

#include <memory>
#include <utility>

using namespace inputkit;

class tst_Acknowledgements : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void answersWaitForTheHost();
    void answersInParts();
    void withoutMessagesAnswersAtOnce();
    void restIsAnsweredWithTheLastMessage();
    void acknowledgedBeforeTheAnswer();
    void laterOfferTakesTheAnswer();
    void noMoreThanWasHandedOut();
    void unknownConnectionsChangeNothing();
    void forgets();

private:
    static QMap<QString, QString> offer(quint64 connection, quint64 offset)
    {
        return {{subids::connection(), QString::number(connection)},
                {subids::offset(), QString::number(offset)}};
    }

    std::unique_ptr<Acknowledgements> held;
    QList<std::pair<QString, int>> answers; // where the offer began, and the length
};

void tst_Acknowledgements::init()
{
    answers.clear();
    held = std::make_unique<Acknowledgements>([this](int length, const auto &subId) {
        answers.append({subId.value(subids::offset()), length});
    });
}

void tst_Acknowledgements::answersWaitForTheHost()
{
    held->handedOut(1, 10);
    held->answered(10, offer(1, 0));
    QVERIFY(answers.isEmpty());
    held->acknowledge(1, 10);
    QCOMPARE(answers, (QList<std::pair<QString, int>>{{QStringLiteral("0"), 10}}));
    held->acknowledge(1, 10);
    QCOMPARE(answers.size(), 1);
}

void tst_Acknowledgements::answersInParts()
{
    held->handedOut(1, 10);
    held->handedOut(1, 20);
    held->answered(20, offer(1, 0));
    held->acknowledge(1, 10);
    held->acknowledge(1, 20);
    QCOMPARE(
            answers,
            (QList<std::pair<QString, int>>{{QStringLiteral("0"), 10}, {QStringLiteral("0"), 20}}));
}

// The beginning of a message is the reader's.
void tst_Acknowledgements::withoutMessagesAnswersAtOnce()
{
    held->answered(5, offer(1, 0));
    QCOMPARE(answers, (QList<std::pair<QString, int>>{{QStringLiteral("0"), 5}}));
}

void tst_Acknowledgements::restIsAnsweredWithTheLastMessage()
{
    held->handedOut(1, 10);
    held->answered(15, offer(1, 0));
    held->acknowledge(1, 10);
    QCOMPARE(answers, (QList<std::pair<QString, int>>{{QStringLiteral("0"), 15}}));
}

void tst_Acknowledgements::acknowledgedBeforeTheAnswer()
{
    held->handedOut(1, 10);
    held->acknowledge(1, 10); // by the handler itself
    QVERIFY(answers.isEmpty());
    held->answered(10, offer(1, 0));
    QCOMPARE(answers, (QList<std::pair<QString, int>>{{QStringLiteral("0"), 10}}));
}

void tst_Acknowledgements::laterOfferTakesTheAnswer()
{
    held->handedOut(1, 10);
    held->answered(10, offer(1, 0));
    held->handedOut(1, 30);
    held->answered(25, offer(1, 5));
    held->acknowledge(1, 10);
    held->acknowledge(1, 30);
    QCOMPARE(answers,
             (QList<std::pair<QString, int>>{{QStringLiteral("5"), 5}, {QStringLiteral("5"), 25}}));
}

void tst_Acknowledgements::noMoreThanWasHandedOut()
{
    held->handedOut(1, 10);
    held->answered(10, offer(1, 0));
    held->acknowledge(1, 1000);
    held->handedOut(1, 20);
    held->answered(10, offer(1, 10));
    QCOMPARE(answers, (QList<std::pair<QString, int>>{{QStringLiteral("0"), 10}}));
}

void tst_Acknowledgements::unknownConnectionsChangeNothing()
{
    held->acknowledge(7, 10);
    QCOMPARE(held->size(), 0);
    QVERIFY(answers.isEmpty());
}

void tst_Acknowledgements::forgets()
{
    held->handedOut(1, 10);
    held->answered(10, offer(1, 0));
    held->forget(1);
    held->acknowledge(1, 10);
    QVERIFY(answers.isEmpty());
    QCOMPARE(held->size(), 0);
}

QTEST_GUILESS_MAIN(tst_Acknowledgements)
#include "tst_acknowledgements.moc"
