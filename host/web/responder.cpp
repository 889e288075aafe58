// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/web/responder.h"

#include "host/web/bulletin.h"
#include "host/web/connectionpage.h"
#include "host/web/health.h"
#include "host/web/history.h"
#include "host/web/metrics.h"
#include "host/web/page.h"
#include "host/web/statusjson.h"

#include <utility>

namespace host {
namespace {

enum HttpCode { Ok = 200, BadRequest = 400, NotFound = 404, Unavailable = 503 };

// Reading them takes milliseconds where many files are open.
constexpr std::chrono::seconds ProcessInterval(1);

WebResponse health(const QStringList &reasons)
{
    if (reasons.isEmpty())
        return Responder::text(Ok, "ok\n");
    return Responder::text(Unavailable, reasons.join(QLatin1Char('\n')).toUtf8() + '\n');
}

} // namespace

Responder::Responder(Bulletin &published, std::function<Clock::time_point()> now)
    : bulletin(published),
      policy(pagePolicy()),
      clock(std::move(now))
{}

WebResponse Responder::respond(const WebRequest &request)
{
    if (request.path == QLatin1String("/"))
        return page();
    if (request.path == QLatin1String("/history.json"))
        return history();
    if (request.path == QLatin1String("/metrics"))
        return metrics();
    if (request.path == QLatin1String("/ready"))
        return health(reasonsNotReady(*bulletin.snapshot()));
    if (request.path == QLatin1String("/live"))
        return health(reasonsNotAlive(*bulletin.snapshot(), clock()));
    if (request.path == QLatin1String("/status.json"))
        return status(request);
    return text(NotFound,
                "There are /, /history.json, /metrics, /ready, /live and /status.json.\n");
}

WebResponse Responder::text(int code, const QByteArray &body)
{
    return {code, QByteArrayLiteral("text/plain; charset=utf-8"), body, {}};
}

WebResponse Responder::page() const
{
    return {Ok, QByteArrayLiteral("text/html; charset=utf-8"), pageHtml(), policy};
}

WebResponse Responder::history()
{
    return {Ok,
            QByteArrayLiteral("application/json"),
            historyJson(bulletin.history(), clock()),
            {}};
}

WebResponse Responder::metrics()
{
    const auto snapshot = bulletin.snapshot();
    const std::chrono::duration<double> age = clock() - snapshot->taken;
    return {Ok, QByteArray(MetricsType), metricsText(*snapshot, process(), age.count()), {}};
}

WebResponse Responder::status(const WebRequest &request)
{
    QString fault;
    const auto query = ConnectionQuery::parse(request.offset, request.limit, request.sort,
                                              request.search, fault);
    if (!query)
        return text(BadRequest, fault.toUtf8() + ".\n");
    const auto rows = bulletin.rows();
    return {Ok,
            QByteArrayLiteral("application/json"),
            statusJson(*bulletin.snapshot(), clock(), process(), pageOf(*rows, *query)),
            {}};
}

const ProcessFigures &Responder::process()
{
    const Clock::time_point now = clock();
    if (!figuresRead || now - *figuresRead >= ProcessInterval) {
        figures = ProcessFigures::read();
        figuresRead = now;
    }
    return figures;
}

} // namespace host
