// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "eventloop/epolleventdispatcher.h"
#include "programs/encoding.h"
#include "programs/statusline.h"
#include "simulator/content.h"
#include "simulator/fleet.h"
#include "simulator/options.h"
#include "simulator/progress.h"
#include "simulator/run.h"
#include "simulator/tlscontext.h"
#include "simulator/unixsignals.h"

#include <QtCore/QCoreApplication>
#include <QtNetwork/QHostInfo>

#include <csignal>
#include <cstdio>

#include <sys/resource.h>

using namespace simulator;

namespace {

enum ExitStatus { Success = 0, Failure = 1, Usage = 2 };

// Every connection takes a descriptor; the usual soft limit is 1024.
void raiseDescriptorLimit()
{
    rlimit limit = {};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

void print(FILE *stream, const QByteArray &text)
{
    programs::StatusLine::hide();
    std::fwrite(text.constData(), 1, static_cast<size_t>(text.size()), stream);
    std::fflush(stream);
}

ExitStatus complain(const QString &error, ExitStatus status)
{
    print(stderr, "devicesim: " + error.toLocal8Bit() + '\n');
    return status;
}

// Null if there is no such host.
QHostAddress resolve(const QString &host)
{
    const QHostAddress literal(host);
    if (!literal.isNull())
        return literal;
    const QList<QHostAddress> found = QHostInfo::fromName(host).addresses();
    return found.isEmpty() ? QHostAddress() : found.constFirst();
}

ExitStatus runFleet(const Run &run)
{
    UnixSignals unixSignals;
    Fleet fleet(run);
    QObject::connect(&unixSignals, &UnixSignals::progressRequested, &fleet,
                     [&fleet] { print(stderr, fleet.progress().toLocal8Bit()); });
    QObject::connect(&unixSignals, &UnixSignals::stopRequested, &fleet, &Fleet::stop);
    // Queued: the last device may finish before the event loop runs.
    QObject::connect(&fleet, &Fleet::finished, qApp, &QCoreApplication::quit, Qt::QueuedConnection);
    if (run.input) {
        QObject::connect(run.input, &InputLines::complained, &fleet,
                         [](const QString &text) { complain(text, Failure); });
        run.input->start();
    }
    std::unique_ptr<Progress> progress;
    if (Progress::isWanted(run))
        progress = std::make_unique<Progress>(run, fleet);
    fleet.launch();
    QCoreApplication::exec();

    const qint64 elapsedMs = run.clock.elapsed();
    const Report &report = fleet.report();
    print(stdout,
          run.options.output == OutputFormat::Json
                  ? report.toJson(run.options, elapsedMs, fleet.wasInterrupted())
                  : report.toText(run.options, elapsedMs, fleet.wasInterrupted()));
    return report.hasFailures() ? Failure : Success;
}

} // namespace

int main(int argc, char **argv)
{
    raiseDescriptorLimit();
    programs::settleEncoding();
    std::signal(SIGPIPE, SIG_IGN); // a write to a closed connection must only fail

    // This dispatcher is cheap with thousands of sockets. If it cannot be made, Qt uses its own.
    if (std::unique_ptr<QAbstractEventDispatcher> dispatcher = EpollEventDispatcher::create())
        QCoreApplication::setEventDispatcher(dispatcher.release());
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("devicesim"));
    QCoreApplication::setApplicationVersion(QStringLiteral(DEVICESIM_VERSION));

    const ParsedOptions parsed = parseOptions(QCoreApplication::arguments());
    if (!parsed.error.isEmpty())
        return complain(parsed.error, Usage);
    if (!parsed.text.isEmpty()) {
        print(stdout, parsed.text.toLocal8Bit());
        return Success;
    }
    Options options = parsed.options;
    Content content(options);
    if (!content.load())
        return complain(content.errorString(), Usage);
    if (!content.warning().isEmpty())
        complain(content.warning(), Success);
    const QHostAddress peer = resolve(options.host);
    if (peer.isNull())
        return complain(QStringLiteral("no such host: %1").arg(options.host), Failure);

    std::unique_ptr<TlsContext> tls;
    if (options.startsTls())
        tls = std::make_unique<TlsContext>(options);
    if (tls && !tls->error().isEmpty())
        return complain(tls->error(), Usage);

    Run run{options,
            peer,
            content.messages(),
            tls.get(),
            content.replay(),
            content.script(),
            content.input(),
            {}};
    run.clock.start();
    const ExitStatus status = runFleet(run);
    return status == Success && run.input && run.input->hadFaults() ? Failure : status;
}
