// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QString>
#include <QtCore/QThread>

#include <memory>

namespace host {

class Bulletin;
class Responder;
class WebServer;
struct WebAddress;

/*!
    A web server in a thread of its own, of which the system runs other threads first.

    Thread: its creator's.
    Owner:  the caller, also of the bulletin. The destructor ends the server's connections.
*/
class WebThread
{
public:
    explicit WebThread(Bulletin &bulletin);
    ~WebThread();
    Q_DISABLE_COPY_MOVE(WebThread)

    // The bulletin has a snapshot. False: errorString() says why.
    bool start(const WebAddress &wanted);
    QString errorString() const { return error; }

private:
    QThread thread;
    std::unique_ptr<Responder> responder; // used in the thread
    std::unique_ptr<WebServer> server; // likewise
    QString error;
};

} // namespace host
