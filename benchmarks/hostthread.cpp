// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// hostthread --plugin FILE [--config FILE] [--set KEY=VALUE]... [--seconds N]
//
// How long a plugin holds its host's thread. A host that discards every record, and a thread beside
// it that posts an event to the host's thread every millisecond. The time until the event is
// handled is how long the thread was held, or had no CPU. Measures from one second after the first
// record on, for N seconds (10), prints the figures as a JSON object, and ends. --set as
// inputhost's.

#include "benchmarks/sinkprocess.h"
#include "plugin/countersevent.h"
#include "plugin/factory.h"
#include "plugin/iinputplugin.h"

#include <QtCore/QCommandLineParser>
#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QEvent>
#include <QtCore/QFile>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QLibrary>
#include <QtCore/QTimer>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <memory>
#include <thread>
#include <vector>

#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto ProbeInterval = 1ms;
constexpr int WarmUpMs = 1000;

/*!
    What one thread has used so far, in nanoseconds.
*/
struct ThreadTimes
{
    qint64 cpu = 0;
    qint64 waited = 0; // was ready to run, and had no CPU
};

ThreadTimes timesOf(const QString &thread)
{
    QFile file(QStringLiteral("/proc/self/task/%1/schedstat").arg(thread));
    if (!file.open(QIODevice::ReadOnly))
        return {}; // it has ended meanwhile
    const QByteArrayList fields = file.readAll().split(' ');
    return {fields.value(0).toLongLong(), fields.value(1).toLongLong()};
}

QString nameOf(const QString &thread)
{
    QFile file(QStringLiteral("/proc/self/task/%1/comm").arg(thread));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll().trimmed()) : QString();
}

QMap<QString, ThreadTimes> timesOfAllThreads()
{
    QMap<QString, ThreadTimes> times;
    const QStringList threads =
            QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &thread : threads)
        times.insert(thread, timesOf(thread));
    return times;
}

double processSeconds()
{
    timespec time = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

/*!
    Posts probes to the host's thread, and notes there how long each took.

    Thread: the host's; run() in a thread of its own, which the destructor ends.
*/
class Prober : public QObject
{
public:
    Prober() : thread([this] { run(); }) {}
    ~Prober() override
    {
        over = true;
        thread.join();
    }

    std::vector<Clock::duration> takeDelays() { return std::move(delays); }
    QString threadId() const { return QString::number(id.load()); }

protected:
    bool event(QEvent *event) override
    {
        auto *probe = dynamic_cast<Probe *>(event);
        if (!probe)
            return QObject::event(event);
        delays.push_back(Clock::now() - probe->posted);
        return true;
    }

private:
    struct Probe : QEvent
    {
        Probe() : QEvent(QEvent::User) {}
        const Clock::time_point posted = Clock::now();
    };

    // At fixed times, whether or not the last probe has arrived: a thread that is held for long
    // counts as often as it is long.
    void run()
    {
        id = gettid();
        for (Clock::time_point next = Clock::now(); !over; next += ProbeInterval) {
            std::this_thread::sleep_until(next);
            QCoreApplication::postEvent(this, new Probe);
        }
    }

    std::vector<Clock::duration> delays; // host's thread only
    std::atomic<bool> over = false;
    std::atomic<pid_t> id = 0;
    std::thread thread; // last: it uses the others
};

/*!
    The host: discards what it is offered, and measures.
*/
class Host : public QObject
{
public:
    Host(IInputPlugin &inputPlugin, int measuredSeconds)
        : plugin(inputPlugin),
          seconds(measuredSeconds)
    {
        connect(&plugin, &IInputPlugin::receivedData, this, &Host::discard);
    }

private:
    void discard(const shared_parsedData &record)
    {
        if (records++ == 0)
            QTimer::singleShot(WarmUpMs, this, &Host::begin);
        if (const int size = record->getDataLength(); size > 0)
            plugin.discard(size, record->getPluginSubId());
    }

    void begin()
    {
        prober = std::make_unique<Prober>();
        counters = countersNow();
        recordsBefore = records;
        threads = timesOfAllThreads();
        cpu = processSeconds();
        started = Clock::now();
        QTimer::singleShot(std::chrono::seconds(seconds), this, &Host::end);
    }

    void end()
    {
        const std::chrono::duration<double> elapsed = Clock::now() - started;
        QJsonObject figures = threadFigures(processSeconds() - cpu);
        const InputCounters now = countersNow();
        figures.insert(QStringLiteral("seconds"), elapsed.count());
        figures.insert(QStringLiteral("records"), records - recordsBefore);
        figures.insert(QStringLiteral("handshakes"),
                       static_cast<qint64>(now.handshakesDone - counters.handshakesDone));
        figures.insert(QStringLiteral("failedHandshakes"),
                       static_cast<qint64>(now.handshakesFailed - counters.handshakesFailed));
        addDelays(figures);
        std::puts(QJsonDocument(figures).toJson(QJsonDocument::Compact).constData());
        std::fflush(stdout);
        std::_Exit(0); // without closing the devices' connections in an orderly way
    }

    InputCounters countersNow()
    {
        return CountersEvent::countersOf(plugin).value_or(InputCounters());
    }

    // all: CPU seconds of the whole process, which has the threads that have ended, too.
    QJsonObject threadFigures(double all) const
    {
        const QString own = QString::number(getpid()); // the main thread's id
        const QMap<QString, ThreadTimes> now = timesOfAllThreads();
        double host = 0;
        double waited = 0;
        double probing = 0;
        QJsonArray others;
        for (auto it = now.begin(); it != now.end(); ++it) {
            const ThreadTimes before = threads.value(it.key());
            const double used = static_cast<double>(it->cpu - before.cpu) / 1e9;
            if (it.key() == own) {
                host = used;
                waited = static_cast<double>(it->waited - before.waited) / 1e9;
            } else if (it.key() == prober->threadId()) {
                probing = used;
            } else {
                others.append(QJsonObject{{QStringLiteral("name"), nameOf(it.key())},
                                          {QStringLiteral("cpu"), used}});
            }
        }
        return {{QStringLiteral("hostThread"), host},
                {QStringLiteral("hostThreadWaited"), waited},
                {QStringLiteral("otherThreads"), all - host - probing},
                {QStringLiteral("threads"), others}};
    }

    void addDelays(QJsonObject &figures)
    {
        std::vector<Clock::duration> delays = prober->takeDelays();
        std::sort(delays.begin(), delays.end());
        figures.insert(QStringLiteral("probes"), static_cast<qint64>(delays.size()));
        const struct
        {
            const char *name;
            double share;
        } wanted[] = {{"medianMs", 0.5}, {"p99Ms", 0.99}, {"p999Ms", 0.999}, {"longestMs", 1}};
        for (const auto &row : wanted) {
            const auto rank = std::ceil(row.share * static_cast<double>(delays.size()));
            const auto index = static_cast<std::size_t>(std::max(rank, 1.0)) - 1;
            const std::chrono::duration<double, std::milli> delay = delays.at(index);
            figures.insert(QLatin1String(row.name), delay.count());
        }
    }

    IInputPlugin &plugin;
    const int seconds;
    qint64 records = 0;

    // At the beginning of the measuring.
    std::unique_ptr<Prober> prober;
    InputCounters counters;
    qint64 recordsBefore = 0;
    QMap<QString, ThreadTimes> threads;
    double cpu = 0;
    Clock::time_point started;
};

// As hosts do, whose log has no debug lines: what is filtered is not written.
void logWarnings(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    if (type == QtDebugMsg || type == QtInfoMsg)
        return;
    std::fprintf(stderr, "%s\n", qPrintable(text));
}

// Text that is no JSON stands for itself.
QJsonValue valueOf(const QString &text)
{
    const QJsonDocument parsed = QJsonDocument::fromJson('[' + text.toUtf8() + ']');
    return parsed.array().size() == 1 ? parsed.array().first() : QJsonValue(text);
}

QJsonObject configuration(const QCommandLineParser &parser)
{
    QJsonObject config;
    if (parser.isSet(QStringLiteral("config"))) {
        QFile file(parser.value(QStringLiteral("config")));
        if (!file.open(QIODevice::ReadOnly))
            qFatal("cannot read %s", qPrintable(file.fileName()));
        config = QJsonDocument::fromJson(file.readAll()).object();
    }
    const QStringList settings = parser.values(QStringLiteral("set"));
    for (const QString &setting : settings)
        config.insert(setting.section(QLatin1Char('='), 0, 0),
                      valueOf(setting.section(QLatin1Char('='), 1)));
    return config;
}

} // namespace

int main(int argc, char **argv)
{
    raiseDescriptorLimit();
    qInstallMessageHandler(logWarnings);
    const QCoreApplication application(argc, argv);
    QCommandLineParser parser;
    for (const char *name : {"plugin", "config", "set", "seconds"})
        parser.addOption(QCommandLineOption(QLatin1String(name), QString(), QStringLiteral("value"),
                                            QString()));
    parser.process(application);

    QLibrary library(parser.value(QStringLiteral("plugin")));
    const auto create = reinterpret_cast<CreatePluginFunction>(library.resolve("create"));
    if (!create)
        qFatal("%s", qPrintable(library.errorString()));
    const std::unique_ptr<IInputPlugin> plugin(create(nullptr, configuration(parser)));
    plugin->pluginId = QStringLiteral("t");
    const QString given = parser.value(QStringLiteral("seconds"));
    const Host host(*plugin, given.isEmpty() ? 10 : given.toInt());
    if (!plugin->start() || plugin->getStatus().startsWith(QLatin1String("Listen: :0,")))
        qFatal("cannot listen");
    return QCoreApplication::exec();
}
