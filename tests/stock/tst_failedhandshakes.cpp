// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "handshakepeers.h"
#include "tests/kit/certificates.h"
#include "tlsside.h"

#include <QtTest/QtTest>

#include <algorithm>

using handshakepeers::Cause;
using handshakepeers::Peer;

Q_DECLARE_METATYPE(Cause)

namespace {

constexpr int TimeoutMs = 200; // of handshakes that are to time out
constexpr int NeverMs = 24 * 60 * 60 * 1000;
const QString Began = QStringLiteral("startedEncryptionHandshake");

QJsonObject serverFor(const Cause &cause, bool verifies, bool debugs)
{
    QJsonObject tls = serverTls();
    tls.insert(QStringLiteral("CAFile"), certificateFile(QStringLiteral("ca.pem")));
    tls.insert(QStringLiteral("verifyPeer"), verifies);
    tls.insert(QStringLiteral("tlsDebug"), debugs);
    for (auto it = cause.server.begin(); it != cause.server.end(); ++it) {
        if (it->isNull())
            tls.remove(it.key());
        else
            tls.insert(it.key(), *it);
    }
    return tls;
}

// An alert that the peer has received.
void noteAlert(int isWritten, int, int type, const void *bytes, size_t length, SSL *, void *notes)
{
    if (isWritten != 0 || type != SSL3_RT_ALERT || length != 2)
        return;
    const auto *alert = static_cast<const uchar *>(bytes);
    static_cast<QStringList *>(notes)->append(
            QStringLiteral("the peer got alert %1, %2").arg(alert[0]).arg(alert[1]));
}

// All that the server's side says, and then what the peer got.
QStringList observe(const TlsSide::Kind &kind, const QJsonObject &tls, const Cause &cause,
                    int version)
{
    const EventLog log;
    TlsSide side(kind, tls, cause.timesOut ? TimeoutMs : NeverMs);
    QStringList alerts;
    const std::function<void()> fence = [&side] { side.fence(); };
    const auto playPeer = [&] {
        TlsDevice device(version);
        if (!device.connect(testAddress(), side.port))
            qFatal("the peer cannot connect");
        SSL_set_msg_callback(device.native(), noteAlert);
        SSL_set_msg_callback_arg(device.native(), &alerts);
        Peer peer{device, fence};
        cause.play(peer);
    };
    if (cause.beforeServerLooks)
        playPeer();
    else if (!play(playPeer))
        qFatal("the peer hangs");
    return side.events() + alerts;
}

// The library says what stock Qt says, with these exceptions, whatever the engine.
QStringList asTheLibrarySays(QStringList events)
{
    const auto indexOf = [&events](const char *beginning) {
        const auto found = std::find_if(events.begin(), events.end(), [&](const QString &event) {
            return event.startsWith(QLatin1String(beginning));
        });
        return found == events.end() ? -1 : found - events.begin();
    };
    // One handshake fails once: only the first reason is told, and nothing behind it.
    const qsizetype failure = indexOf("errorOccurred ");
    if (failure >= 0) {
        constexpr qsizetype WithItsLine = 2;
        const QStringList ofPeer = events.filter(QStringLiteral("the peer got "));
        const bool began = events.contains(Began);
        events = events.first(failure + WithItsLine) + ofPeer;
        if (began && !events.contains(Began))
            events.prepend(Began);
    }
    // A handshake begins before it fails.
    const qsizetype begin = indexOf("startedEncryptionHandshake");
    if (begin > 0)
        events.move(begin, 0);
    // An interrupted handshake is over, so the alert is told before.
    const qsizetype interruption = indexOf("handshakeInterruptedOnError ");
    const qsizetype alert = indexOf("alertSent ");
    if (interruption >= 0 && alert > interruption)
        events.move(alert, interruption);
    // A time-out has a text of its own.
    if (indexOf("errorOccurred 5, ") >= 0)
        events.replaceInStrings(QStringLiteral("Unknown error"),
                                QStringLiteral("The handshake took too long"));
    // The plain plugin makes its server announce a connection once more.
    events.removeDuplicates();
    return events;
}

} // namespace

/*!
    What a failed handshake says, letter by letter: the lines and the server's signals of the
   library with each of its engines, and of stock Qt for the same peer.
*/
class tst_FailedHandshakes : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void saysWhatStockSays_data();
    void saysWhatStockSays();
};

void tst_FailedHandshakes::saysWhatStockSays_data()
{
    QTest::addColumn<Cause>("cause");
    QTest::addColumn<int>("version");
    QTest::addColumn<bool>("verifies");
    QTest::addColumn<bool>("debugs");
    for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        for (const Cause &cause : handshakepeers::causes(version)) {
            if (!cause.dependsOnVersion && version != TLS1_2_VERSION)
                continue;
            for (const bool verifies : {false, true}) {
                for (const bool debugs : {false, true}) {
                    if (cause.timesOut && (!verifies || debugs))
                        continue;
                    QTest::addRow("%s, TLS 1.%d%s%s", cause.name, version - TLS1_VERSION,
                                  verifies ? ", verifyPeer" : "", debugs ? ", tlsDebug" : "")
                            << cause << version << verifies << debugs;
                }
            }
        }
    }
}

void tst_FailedHandshakes::saysWhatStockSays()
{
    QFETCH(Cause, cause);
    QFETCH(int, version);
    QFETCH(bool, verifies);
    QFETCH(bool, debugs);
    const QJsonObject tls = serverFor(cause, verifies, debugs);
    const QStringList expected = asTheLibrarySays(observe(TlsSide::stock(), tls, cause, version));
    for (const TlsSide::Kind &kind : TlsSide::library()) {
        const QStringList said = observe(kind, tls, cause, version);
        QVERIFY2(said == expected,
                 qPrintable(QStringLiteral("\n  engine %1:\n    %2\n  stock:\n    %3")
                                    .arg(kind.engine, said.join(QStringLiteral("\n    ")),
                                         expected.join(QStringLiteral("\n    ")))));
    }
}

QTEST_GUILESS_MAIN(tst_FailedHandshakes)
#include "tst_failedhandshakes.moc"
