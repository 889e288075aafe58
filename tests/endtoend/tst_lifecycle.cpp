// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tests/kit/hangguard.h"
#include "tests/kit/loadedplugin.h"
#include "tests/kit/messagecapture.h"
#include "tests/kit/nativesocket.h"
#include "tests/kit/nofreedescriptors.h"
#include "tests/kit/processresources.h"

#include <QtCore/QTimer>
#include <QtTest/QtTest>

#include <vector>

namespace {

// Ends the program if a device cannot connect.
std::vector<NativeSocket> connectDevices(quint16 port, int count)
{
    std::vector<NativeSocket> devices;
    for (int n = 0; n < count; ++n) {
        devices.push_back(NativeSocket::connectedTo(testAddress(), port));
        if (!devices.back().isValid())
            qFatal("connect: %s", strerror(errno));
    }
    return devices;
}

// Polls more often than QTRY_COMPARE: some tests wait hundreds of times.
bool waitForClients(IInputPlugin &plugin, int count)
{
    return QTest::qWaitFor(
            [&] { return plugin.getStatus().count(QLatin1String("tcp2:")) == count; }, HangGuardMs);
}

qsizetype countLines(const QList<CapturedMessage> &lines, const QString &part)
{
    return std::count_if(lines.begin(), lines.end(),
                         [&](const CapturedMessage &line) { return line.text.contains(part); });
}

// Qt's own lines: those that do not begin with a time.
QStringList linesOfQt(const QList<CapturedMessage> &lines)
{
    static const QRegularExpression time(QStringLiteral("^\\d\\d:\\d\\d:\\d\\d\\.\\d\\d\\d "));
    QStringList result;
    for (const CapturedMessage &line : lines) {
        if (!line.text.contains(time))
            result.append(line.text);
    }
    return result;
}

} // namespace

class tst_Lifecycle : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void newObjectEachTime();
    void oneObjectRestarted();
    void destroyedWithoutStop();
    void destroyedWithDeliveriesUnderWay();
    void hostActsWhileThePluginIsDestroyed();
    void servesAllWhenDescriptorsComeBackOneByOne();
    void stopDeliversAll_data();
    void stopDeliversAll();

private:
    LoadedLibrary library;
    quint16 port = 0;
    qsizetype descriptors = 0;
    qsizetype threads = 0;
};

// Qt opens some descriptors at first use and keeps them. This opens them before any test counts.
void tst_Lifecycle::initTestCase()
{
    threads = runningThreads();
    port = freePort();
    const auto plugin = library.create(tcpConfig(port));
    QVERIFY(plugin->start());
    QVERIFY(isListening(*plugin));
    const auto devices = connectDevices(port, 4);
    QVERIFY(waitForClients(*plugin, 4));
}

void tst_Lifecycle::init()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    descriptors = openDescriptors();
}

// When a plugin's destructor has returned, its descriptors are closed and its threads have ended.
void tst_Lifecycle::cleanup()
{
    QCOMPARE(openDescriptors(), descriptors);
    QCOMPARE(runningThreads(), threads);
}

void tst_Lifecycle::cleanupTestCase()
{
    QVERIFY(library.unload());
}

void tst_Lifecycle::newObjectEachTime()
{
    const MessageCapture capture;
    constexpr int Connections = 20;
    for (int cycle = 0; cycle < 500; ++cycle) {
        const auto plugin = library.create(tcpConfig(port));
        QVERIFY(plugin->start());
        QVERIFY(isListening(*plugin));
        {
            const auto devices = connectDevices(port, Connections);
            QVERIFY(waitForClients(*plugin, Connections));
            QVERIFY(plugin->stop());
        }
        if (cycle % 2 == 0) // otherwise it is destroyed before it can process events
            QCoreApplication::processEvents();
    }
    const auto lines = MessageCapture::take();
    QCOMPARE(linesOfQt(lines), QStringList());
    QCOMPARE(countLines(lines, QStringLiteral("Creating receiving socket failed")), 0);
}

void tst_Lifecycle::oneObjectRestarted()
{
    const MessageCapture capture;
    const auto plugin = library.create(tcpConfig(port));
    for (int cycle = 0; cycle < 20; ++cycle) {
        QVERIFY(plugin->start());
        QVERIFY(isListening(*plugin));
        {
            const auto devices = connectDevices(port, 20);
            QVERIFY(waitForClients(*plugin, 20));
            QVERIFY(plugin->stop());
        }
        QCoreApplication::processEvents();
    }
    const auto lines = MessageCapture::take();
    QCOMPARE(linesOfQt(lines), QStringList());
    // Each earlier start() makes the plugin hand over every connection once more.
    QVERIFY(countLines(lines, QStringLiteral("Creating receiving socket failed")) > 0);
}

void tst_Lifecycle::destroyedWithoutStop()
{
    const MessageCapture capture;
    for (int cycle = 0; cycle < 200; ++cycle) {
        auto plugin = library.create(tcpConfig(port));
        QVERIFY(plugin->start());
        QVERIFY(isListening(*plugin));
        const auto devices = connectDevices(port, 20);
        if (cycle % 3 != 0) // otherwise it is destroyed before it has accepted all
            QVERIFY(waitForClients(*plugin, 20));
        plugin.reset();
    }
    QCOMPARE(linesOfQt(MessageCapture::take()), QStringList());
}

// The destructor returns only when the host has received all records of the workers.
void tst_Lifecycle::destroyedWithDeliveriesUnderWay()
{
    const MessageCapture capture;
    constexpr int Connections = 200;
    auto plugin = library.create(tcpConfig(port));
    qsizetype bytes = 0;
    connect(plugin.get(), &IInputPlugin::receivedData, this,
            [&](const shared_parsedData &record) { bytes += record->getDataLength(); });
    QVERIFY(plugin->start());
    auto devices = connectDevices(port, Connections);
    for (const NativeSocket &device : devices)
        QVERIFY(device.send(QByteArray(5, 'x')));
    QTRY_COMPARE_WITH_TIMEOUT(bytes, 5 * Connections, HangGuardMs); // each has made its first offer
    for (const NativeSocket &device : devices)
        QVERIFY(device.send(QByteArray(3, 'y'))); // within the interval, so not offered by itself
    // The log tells for each connection whether 5 or 8 bytes were received before its end.
    plugin.reset();
    const auto lines = MessageCapture::take();
    const auto complete = countLines(lines, QStringLiteral("(received 8 bytes"));
    const auto early = countLines(lines, QStringLiteral("(received 5 bytes"));
    QCOMPARE(complete + early, Connections);
    QVERIFY(bytes >= 5 * Connections + 8 * complete + 5 * early);
}

// The plugin's destructor processes the host's events.
void tst_Lifecycle::hostActsWhileThePluginIsDestroyed()
{
    const MessageCapture capture;
    auto plugin = library.create(tcpConfig(port));
    qsizetype offers = 0;
    connect(plugin.get(), &IInputPlugin::receivedData, this, [&] { ++offers; });
    QVERIFY(plugin->start());
    const auto devices = connectDevices(port, 20);
    for (const NativeSocket &device : devices)
        QVERIFY(device.send("abc"));
    QTRY_COMPARE_WITH_TIMEOUT(offers, 20, HangGuardMs);

    IInputPlugin *const dying = plugin.get();
    bool acted = false;
    QMetaObject::invokeMethod(
            this,
            [&] {
                QVERIFY(dying->stop());
                QVERIFY(!dying->start());
                dying->deleteLater();
                acted = true;
            },
            Qt::QueuedConnection);
    plugin.reset();
    QVERIFY(acted);
    QCOMPARE(offers, 40); // nothing was discarded, so each has made a last offer
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QCOMPARE(linesOfQt(MessageCapture::take()), QStringList());
}

// The plugin needs one descriptor for a device, and two more for a worker thread that has none yet.
void tst_Lifecycle::servesAllWhenDescriptorsComeBackOneByOne()
{
    const MessageCapture capture;
    constexpr int Connections = 6;
    auto plugin = library.create(tcpConfig(port));
    qsizetype offers = 0;
    connect(plugin.get(), &IInputPlugin::receivedData, this, [&] { ++offers; });
    QVERIFY(plugin->start());
    QVERIFY(isListening(*plugin));
    {
        std::vector<NativeSocket> devices; // opened before all descriptors are taken
        for (int n = 0; n < Connections; ++n)
            devices.push_back(NativeSocket::unconnected(testAddress()));
        NoFreeDescriptors none;
        for (NativeSocket &device : devices) {
            QVERIFY(device.connect(testAddress(), port));
            QVERIFY(device.send("abc"));
        }
        qsizetype paused = 0;
        const QString line = QStringLiteral("Out of file descriptors, accepting paused");
        QTRY_VERIFY_WITH_TIMEOUT((paused += countLines(MessageCapture::take(), line)) == 1,
                                 HangGuardMs);
        QTimer giver;
        connect(&giver, &QTimer::timeout, this, [&] { none.giveBack(1); });
        giver.start(150);
        QTRY_COMPARE_WITH_TIMEOUT(offers, Connections, HangGuardMs);
    }
    plugin.reset();
}

void tst_Lifecycle::stopDeliversAll_data()
{
    QTest::addColumn<bool>("eventLoopBetween");
    QTest::newRow("the host's event loop runs after stop()") << true;
    QTest::newRow("destroyed right after stop()") << false;
}

void tst_Lifecycle::stopDeliversAll()
{
    QFETCH(bool, eventLoopBetween);
    const MessageCapture capture;
    constexpr int Connections = 2000;
    if (!raiseDescriptorLimit(2 * Connections + 100))
        QSKIP("the limit of open files is lower", );
    auto plugin = library.create(tcpConfig(port));
    QHash<QString, qsizetype> offered; // bytes of the latest offer
    connect(plugin.get(), &IInputPlugin::receivedData, this, [&](const shared_parsedData &record) {
        offered[record->getSource()] = record->getDataLength();
    });
    QVERIFY(plugin->start());
    auto devices = connectDevices(port, Connections);
    for (const NativeSocket &device : devices)
        QVERIFY(device.send("first"));
    QTRY_COMPARE_WITH_TIMEOUT(offered.size(), Connections, HangGuardMs);
    for (const NativeSocket &device : devices)
        QVERIFY(device.send("+last"));
    offered.clear();

    QVERIFY(plugin->stop());
    if (eventLoopBetween)
        QTRY_COMPARE_WITH_TIMEOUT(offered.size(), Connections, HangGuardMs);
    plugin.reset();

    const auto lines = MessageCapture::take();
    const auto complete = countLines(lines, QStringLiteral("(received 10 bytes"));
    const auto early = countLines(lines, QStringLiteral("(received 5 bytes"));
    QCOMPARE(complete + early, Connections);
    QCOMPARE(offered.size(), Connections);
    const auto sizes = offered.values();
    QCOMPARE(sizes.count(10), complete);
    QCOMPARE(sizes.count(5), early);
    QCOMPARE(linesOfQt(lines), QStringList());
}

QTEST_GUILESS_MAIN(tst_Lifecycle)
#include "tst_lifecycle.moc"
