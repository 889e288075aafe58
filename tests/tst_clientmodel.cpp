// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/clientrun.h"
#include "tests/seeds.h"

#include <QtTest/QTest>

// Random runs of a client against its model; TCPINPUT_SEED repeats one.
class tst_ClientModel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void doesWhatTheModelDoes();
};

void tst_ClientModel::doesWhatTheModelDoes()
{
    constexpr quint32 Runs = 2500;
    const Seeds seeds(Runs);
    for (quint32 n = 0; n < seeds.count; ++n) {
        const quint32 seed = seeds.first + n;
        const QByteArray row = Choices::random(seed);
        ClientRun run(row);
        if (!run.play())
            QFAIL(qPrintable(QStringLiteral("TCPINPUT_SEED=%1\n").arg(seed) + run.difference()));
    }
}

QTEST_GUILESS_MAIN(tst_ClientModel)
#include "tst_clientmodel.moc"
