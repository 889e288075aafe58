// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/web/webthread.h"

#include "host/web/responder.h"
#include "host/web/webserver.h"
#include "plugin/cwrn.h"

#include <sys/resource.h>
#include <unistd.h>

namespace host {
namespace {

// Messages come first. Linux has this for each thread.
void yieldToOthers()
{
    constexpr int Niceness = 10;
    ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), Niceness);
}

} // namespace

WebThread::WebThread(Bulletin &bulletin) : responder(std::make_unique<Responder>(bulletin))
{
    thread.setObjectName(QStringLiteral("web"));
}

// The server goes in its thread, where its timers are.
WebThread::~WebThread()
{
    if (server)
        QMetaObject::invokeMethod(
                server.get(), [this] { server.reset(); }, Qt::BlockingQueuedConnection);
    thread.quit();
    thread.wait();
}

bool WebThread::start(const WebAddress &wanted)
{
    server = std::make_unique<WebServer>(*responder);
    server->moveToThread(&thread);
    thread.start();
    bool listens = false;
    const auto listen = [&] {
        yieldToOthers();
        listens = server->listen(wanted);
    };
    QMetaObject::invokeMethod(server.get(), listen, Qt::BlockingQueuedConnection);
    if (listens)
        CWRN(QtInfoMsg, QStringLiteral("Status at http://%1/"), server->address().toString());
    else
        error = server->errorString();
    return listens;
}

} // namespace host
