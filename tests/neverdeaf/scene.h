// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "cases.h"
#include "tests/kit/certificates.h"
#include "tests/kit/loadedplugin.h"
#include "tests/kit/loglines.h"
#include "tests/kit/serving.h"
#include "tests/kit/tlsdevice.h"

#include <QtCore/QElapsedTimer>
#include <QtCore/QObject>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

/*!
    A plugin, a host that consumes everything at once, the log, and good devices. The tests measure
    how fast the good devices are served.

    Thread: the plugin's.
*/
class Scene : public QObject
{
public:
    //! A device that connects, sends one line and ends normally. It knows when the host got that.
    class GoodDevice
    {
    public:
        // Opens its socket, but does not connect.
        explicit GoodDevice(Scene &owner)
            : scene(owner),
              line("good " + QByteArray::number(++owner.goodDevices) + '\n')
        {
            device.socket = NativeSocket::unconnected(testAddress());
            scene.expected.insert(line, this);
        }
        ~GoodDevice()
        {
            if (thread.joinable())
                thread.join();
            scene.expected.remove(line);
        }
        Q_DISABLE_COPY_MOVE(GoodDevice)

        void go()
        {
            started = scene.clock.nsecsElapsed();
            thread = std::thread([this] { play(); });
        }
        bool isServed() const { return served >= 0; }
        // Milliseconds from go(), or from sinceNs, until the host got the line. Negative if it did
        // not.
        double servedAfter() const { return servedAfter(started); }
        double servedAfter(qint64 sinceNs) const
        {
            return isServed() ? static_cast<double>(served - sinceNs) / 1e6 : -1;
        }

    private:
        friend class Scene;
        void play()
        {
            if (!device.socket.connect(testAddress(), scene.port))
                return;
            if (!scene.transport.isTls()) {
                device.socket.send(line);
            } else if (device.handshake()) {
                device.write(line);
                device.writeCloseNotify();
                device.flush();
            }
            device.socket.finish();
            device.waitForEnd();
        }

        Scene &scene;
        const QByteArray line;
        TlsDevice device{TLS1_3_VERSION};
        qint64 started = 0; // nanoseconds of the scene's clock, like served
        qint64 served = -1;
        std::thread thread;
    };

    // config: keys in addition to address and port.
    explicit Scene(const Transport &wanted, QJsonObject config = {})
        : transport(wanted),
          port(freePort())
    {
        clock.start();
        const QJsonObject where = tcpConfig(port);
        for (auto entry = where.begin(); entry != where.end(); ++entry)
            config.insert(entry.key(), *entry);
        if (transport.isTls())
            config.insert(QStringLiteral("ssl"), withEngine(serverTls(), transport.engine));
        plugin = library.create(config);
        connect(plugin.get(), &IInputPlugin::receivedData, this, &Scene::receive);
    }

    // Milliseconds from the connect of a good device until the host got its line. Negative if it
    // never did.
    double serve()
    {
        GoodDevice good(*this);
        good.go();
        serveUntil([&good] { return good.isServed(); });
        return good.servedAfter();
    }
    double serveMedian()
    {
        constexpr int Devices = 15;
        std::vector<double> times;
        for (int n = 0; n < Devices; ++n)
            times.push_back(serve());
        std::sort(times.begin(), times.end());
        return times.front() < 0 ? -1 : times[Devices / 2];
    }
    // Runs function in another thread. Returns the longest time of a good device meanwhile.
    double serveDuring(const std::function<void()> &function)
    {
        std::atomic<bool> over{false};
        std::thread thread([&] {
            function();
            over = true;
        });
        double longest = 0;
        bool all = true;
        while (all && !over) {
            const double time = serve();
            all = time >= 0;
            longest = std::max(longest, time);
        }
        thread.join();
        return all ? longest : -1;
    }

    qsizetype lines() { return keepLog(), log.size(); }
    qsizetype logged(const QString &part) { return keepLog(), log.filter(part).size(); }

    const Transport transport;
    const quint16 port;
    QElapsedTimer clock;
    int goodDevices = 0;
    bool consumesAll = true; // false: the host consumes only lines of good devices

private:
    void receive(const shared_parsedData &record)
    {
        const QByteArray bytes = record->getOriginalMessage();
        GoodDevice *good = expected.value(bytes);
        if (good && !good->isServed())
            good->served = clock.nsecsElapsed();
        if (plugin && (good || consumesAll)) // null: it is being destroyed
            plugin->discard(static_cast<int>(bytes.size()), record->getPluginSubId());
    }
    void keepLog() { log += takeLog(); }

    MessageCapture capture;
    QStringList log;
    QHash<QByteArray, GoodDevice *> expected; // by their lines
    LoadedLibrary library;

public:
    std::unique_ptr<IInputPlugin> plugin; // not started
};
