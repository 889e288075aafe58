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

// Ends the program if a connection is refused.
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

// Finer steps than QTRY_COMPARE's: some tests wait hundreds of times.
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

// The lines that do not begin with the time: Qt's own.
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

// What Qt opens once and keeps is opened before descriptors are counted.
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

// Both are gone when a plugin's destructor has returned.
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
        if (cycle % 2 == 0) // the other half is destroyed with all still to be done
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
    // Each former start hands every connection over once more.
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
        if (cycle % 3 != 0) // else with nothing taken yet
            QVERIFY(waitForClients(*plugin, 20));
        plugin.reset();
    }
    QCOMPARE(linesOfQt(MessageCapture::take()), QStringList());
}

// The destructor returns only when the records that the workers have made are with the host.
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
    QTRY_COMPARE(bytes, 5 * Connections); // each has made its first offer
    for (const NativeSocket &device : devices)
        QVERIFY(device.send(QByteArray(3, 'y'))); // within the interval, so not offered by itself
    // 8 bytes of each are there once the log says so at the end.
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
    QTRY_COMPARE(offers, 20);

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

// A device needs one descriptor here, and its worker thread two, if it is the thread's first.
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
        std::vector<NativeSocket> devices; // their own descriptors
        for (int n = 0; n < Connections; ++n)
            devices.push_back(NativeSocket::unconnected(testAddress()));
        NoFreeDescriptors none;
        for (NativeSocket &device : devices) {
            QVERIFY(device.connect(testAddress(), port));
            QVERIFY(device.send("abc"));
        }
        qsizetype paused = 0;
        const QString line = QStringLiteral("Out of file descriptors, accepting paused");
        QTRY_VERIFY((paused += countLines(MessageCapture::take(), line)) == 1);
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
