// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/web/metrics.h"

#include "host/versions.h"
#include "host/web/processfigures.h"
#include "host/web/snapshot.h"

#include <QtCore/QCoreApplication>

#include <initializer_list>

namespace host {
namespace {

constexpr double MicrosecondsPerSecond = 1e6;
constexpr double MillisecondsPerSecond = 1e3;

QByteArray escaped(QByteArray value)
{
    return value.replace('\\', "\\\\").replace('"', "\\\"").replace('\n', "\\n");
}

QByteArray label(const char *name, const QByteArray &value)
{
    return QByteArray(name) + "=\"" + escaped(value) + '"';
}

//! Writes families of samples.
class MetricsWriter
{
public:
    enum Type { Counter, Gauge, Summary };

    // What follows until the next call are its samples.
    MetricsWriter &family(const char *name, Type type, const char *help)
    {
        static constexpr const char *TypeNames[] = {"counter", "gauge", "summary"};
        current = name;
        text += QByteArray("# HELP ") + name + ' ' + help + "\n# TYPE " + name + ' '
                + TypeNames[type] + '\n';
        return *this;
    }

    template<class Number>
    MetricsWriter &sample(Number value, const QByteArray &labels = {}, const char *suffix = "")
    {
        text += current + suffix;
        if (!labels.isEmpty())
            text += '{' + labels + '}';
        text += ' ' + numberText(value) + '\n';
        return *this;
    }

    const QByteArray &result() const { return text; }

private:
    static QByteArray numberText(double value)
    {
        constexpr int Digits = 15;
        return QByteArray::number(value, 'g', Digits);
    }
    template<class Integer>
    static QByteArray numberText(Integer value)
    {
        return QByteArray::number(value);
    }

    QByteArray text;
    QByteArray current;
};

//! A value of a family whose samples differ in one label.
struct Labelled
{
    const char *label;
    quint64 value;
};

void addLabelled(MetricsWriter &out, const char *labelName, std::initializer_list<Labelled> samples)
{
    for (const Labelled &each : samples)
        out.sample(each.value, label(labelName, each.label));
}

void addBuild(MetricsWriter &out)
{
    const QByteArray labels = label("version", QCoreApplication::applicationVersion().toUtf8())
            + ',' + label("qt", qVersion()) + ',' + label("openssl", opensslVersion().data());
    out.family("inputhost_build_info", MetricsWriter::Gauge, "The program and its libraries.")
            .sample(1, labels);
}

void addState(MetricsWriter &out, const Snapshot &snapshot, double age)
{
    using W = MetricsWriter;
    out.family("inputhost_listening", W::Gauge, "1 if devices can connect.")
            .sample(int(snapshot.port != 0));
    out.family("inputhost_accepting", W::Gauge,
               "1 if connections are accepted; 0 while nothing listens, or too many have ended and "
               "wait for the output.")
            .sample(int(snapshot.port != 0 && snapshot.isAccepting));
    out.family("inputhost_draining", W::Gauge, "1 if devices are let go and the program ends.")
            .sample(int(snapshot.isDraining));
    out.family("inputhost_snapshot_age_seconds", W::Gauge,
               "How old all this is: more than a second if the main thread stands still.")
            .sample(age);
    out.family("inputhost_config_last_reload_success_timestamp_seconds", W::Gauge,
               "When the present configuration began to serve.")
            .sample(static_cast<double>(snapshot.configured.toMSecsSinceEpoch())
                    / MillisecondsPerSecond);
    out.family("inputhost_config_last_reload_successful", W::Gauge,
               "0 if the last reload has changed nothing because it failed.")
            .sample(int(snapshot.lastReloadWorked));
    out.family("inputhost_certificate_end_timestamp_seconds", W::Gauge,
               "When the server's certificate ends (position 0), and those that are sent along.");
    for (qsizetype n = 0; n < snapshot.certificates.size(); ++n)
        out.sample(snapshot.certificates.at(n).end.toSecsSinceEpoch(),
                   label("position", QByteArray::number(n)));
}

void addLimits(MetricsWriter &out, const Snapshot &snapshot)
{
    using W = MetricsWriter;
    out.family("inputhost_limit_connections", W::Gauge,
               "\"maxConnections\" in \"limits\"; 0: no limit.")
            .sample(snapshot.maxConnections);
    out.family("inputhost_limit_buffered_bytes", W::Gauge,
               "\"totalBuffer\" in \"limits\"; 0: no limit.")
            .sample(snapshot.totalBuffer);
}

void addMessages(MetricsWriter &out, const Snapshot &snapshot)
{
    using W = MetricsWriter;
    out.family("inputhost_messages_total", W::Counter, "Complete messages.")
            .sample(snapshot.messages);
    out.family("inputhost_message_bytes_total", W::Counter,
               "Bytes of complete messages, without framing.")
            .sample(snapshot.messageBytes);
    out.family("inputhost_partial_total", W::Counter,
               "Beginnings of messages whose end never came.")
            .sample(snapshot.partial);
    out.family("inputhost_too_long_total", W::Counter, "Messages that were skipped.")
            .sample(snapshot.tooLong);
    out.family("inputhost_offers_total", W::Counter, "Offers of bytes that were read.")
            .sample(snapshot.offers);
}

void addSink(MetricsWriter &out, const Snapshot &snapshot)
{
    using W = MetricsWriter;
    out.family("inputhost_sink_connected", W::Gauge,
               "1 if the output can take messages; 0: its server or database is away.")
            .sample(int(snapshot.sinkConnected));
    out.family("inputhost_sink_full", W::Gauge, "1 if messages wait for the output.")
            .sample(int(snapshot.sinkFull));
    out.family("inputhost_sink_unsafe_messages", W::Gauge,
               "Messages that the output has and that are not safe yet.")
            .sample(snapshot.unsafeMessages);
}

void addConnections(MetricsWriter &out, const Snapshot &snapshot, const InputCounters &plugin)
{
    using W = MetricsWriter;
    out.family("inputhost_connections", W::Gauge, "Connections that a worker has.")
            .sample(plugin.open, label("transport", snapshot.isTls ? "tls" : "tcp"));
    out.family("inputhost_connections_waiting", W::Gauge,
               "Connections that wait for a header, a handshake or a worker.")
            .sample(plugin.waiting);
    out.family("inputhost_reading_paused", W::Gauge,
               "Connections that are not read because of \"limits\".")
            .sample(plugin.paused);
    out.family("inputhost_connections_accepted_total", W::Counter, "Connections that came.")
            .sample(plugin.accepted);
    out.family("inputhost_connections_closed_total", W::Counter,
               "Connections that have ended, by reason.");
    addLabelled(out, "reason",
                {{"peer", plugin.closedByPeer},
                 {"reset", plugin.closedByReset},
                 {"idle", plugin.closedIdle},
                 {"tls", plugin.closedByTls},
                 {"limit", plugin.closedByLimit},
                 {"stop", plugin.closedByStop}});
    out.family("inputhost_connections_refused_total", W::Counter,
               "Connections that were not served, by reason.");
    addLabelled(out, "reason",
                {{"limit", plugin.refusedByLimit},
                 {"proxy_rule", plugin.refusedByProxyRule},
                 {"no_header", plugin.withoutHeader}});
}

void addBytes(MetricsWriter &out, const InputCounters &plugin)
{
    using W = MetricsWriter;
    out.family("inputhost_received_bytes_total", W::Counter, "Bytes that were read.")
            .sample(plugin.bytes);
    out.family("inputhost_reads_total", W::Counter, "Reads that brought bytes.")
            .sample(plugin.reads);
    out.family("inputhost_buffered_bytes", W::Gauge, "Bytes that were read and not consumed yet.")
            .sample(plugin.buffered);
}

void addHandshakes(MetricsWriter &out, const InputCounters &plugin)
{
    using W = MetricsWriter;
    out.family("inputhost_tls_handshakes_total", W::Counter, "TLS handshakes, by result.");
    addLabelled(out, "result",
                {{"done", plugin.handshakesDone},
                 {"failed", plugin.handshakesFailed},
                 {"timed_out", plugin.handshakesTimedOut},
                 {"without_tls", plugin.withoutTls}});
    out.family("inputhost_tls_handshake_seconds", W::Summary,
               "From a connection's acceptance to the end of its handshake.")
            .sample(static_cast<double>(plugin.handshakeUs) / MicrosecondsPerSecond, {}, "_sum")
            .sample(plugin.handshakesDone, {}, "_count");
    out.family("inputhost_tls_handshake_longest_seconds", W::Gauge, "The longest one so far.")
            .sample(static_cast<double>(plugin.longestHandshakeUs) / MicrosecondsPerSecond);
}

void addWorkers(MetricsWriter &out, const InputCounters &plugin)
{
    using W = MetricsWriter;
    out.family("inputhost_worker_turns_total", W::Counter, "Turns of a worker's event loop.");
    for (const InputCounters::Worker &worker : plugin.workers)
        out.sample(worker.turns, label("worker", QByteArray::number(worker.number)));
    out.family("inputhost_worker_turn_seconds", W::Gauge,
               "How long the worker's turn lasts already; 0: it waits, or goes on.");
    for (const InputCounters::Worker &worker : plugin.workers)
        out.sample(static_cast<double>(worker.turnMs) / MillisecondsPerSecond,
                   label("worker", QByteArray::number(worker.number)));
}

void addProcess(MetricsWriter &out, const ProcessFigures &process)
{
    using W = MetricsWriter;
    out.family("process_resident_memory_bytes", W::Gauge, "Resident memory.")
            .sample(process.residentBytes);
    out.family("process_virtual_memory_bytes", W::Gauge, "Virtual memory.")
            .sample(process.virtualBytes);
    out.family("process_cpu_seconds_total", W::Counter, "Processor time, user and system.")
            .sample(process.cpuSeconds);
    out.family("process_open_fds", W::Gauge, "Open file descriptors.").sample(process.openFiles);
    out.family("process_max_fds", W::Gauge, "The limit of file descriptors.")
            .sample(process.maxFiles);
    out.family("process_threads", W::Gauge, "Threads.").sample(process.threads);
    out.family("process_start_time_seconds", W::Gauge, "When the program was started.")
            .sample(process.startTime);
}

} // namespace

QByteArray metricsText(const Snapshot &snapshot, const ProcessFigures &process, double age)
{
    MetricsWriter out;
    addBuild(out);
    addState(out, snapshot, age);
    addLimits(out, snapshot);
    addMessages(out, snapshot);
    addSink(out, snapshot);
    if (snapshot.plugin) {
        addConnections(out, snapshot, *snapshot.plugin);
        addBytes(out, *snapshot.plugin);
        addHandshakes(out, *snapshot.plugin);
        addWorkers(out, *snapshot.plugin);
    }
    addProcess(out, process);
    return out.result();
}

} // namespace host
