// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "eventloop/epolleventdispatcher.h"
#include "tests/kit/seeds.h"
#include "tests/tcpinput/clientrun.h"
#include "tests/tcpinput/plainlink.h"

#include <QtTest/QTest>

#include <memory>
#include <utility>

namespace {

// Null if there is none.
QString differenceIn(const QByteArray &row, std::unique_ptr<ClientLink> link)
{
    ClientRun run(row, std::move(link));
    return run.play() ? QString() : run.difference();
}

// False if one failed, of which it tells: QVERIFY2 would cut off the end.
template<class Link>
bool playRuns(quint32 many)
{
    const Seeds seeds(many);
    for (quint32 n = 0; n < seeds.count; ++n) {
        const quint32 seed = seeds.first + n;
        const QString difference = differenceIn(Choices::random(seed), std::make_unique<Link>());
        if (difference.isNull())
            continue;
        qCritical("TCPINPUT_SEED=%u\n%s", seed, qPrintable(difference));
        return false;
    }
    return true;
}

} // namespace

// Random runs of a client against its model; TCPINPUT_SEED repeats one. Those without a connection
// are many more in the same time.
class tst_ClientModel : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void withoutConnection();
    void plainConnection();
};

void tst_ClientModel::withoutConnection()
{
    QVERIFY(playRuns<MemoryLink>(2500));
}

void tst_ClientModel::plainConnection()
{
    QVERIFY(playRuns<PlainLink>(400));
}

// The event loop that clients have in a worker thread.
int main(int argc, char *argv[])
{
    QCoreApplication::setEventDispatcher(EpollEventDispatcher::create().release());
    QCoreApplication application(argc, argv);
    tst_ClientModel test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_clientmodel.moc"
