// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "host/web/processfigures.h"

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <chrono>
#include <functional>
#include <optional>

namespace host {

class Bulletin;

//! What somebody asks for with GET or HEAD. A null text was not given.
struct WebRequest
{
    QString path;
    QString offset;
    QString limit;
    QString sort;
    QString search;
};

struct WebResponse
{
    int code = 200;
    QByteArray type;
    QByteArray body;
    QByteArray policy; // its Content-Security-Policy; empty: nothing is allowed
};

/*!
    Answers requests from what the host's thread has published. Nothing that it does reaches the
    plugin, or changes anything.

    Thread: one at a time; not the host's.
    Owner:  the caller, also of the bulletin, which has a snapshot.
*/
class Responder
{
public:
    using Clock = std::chrono::steady_clock;

    // now: for tests.
    explicit Responder(Bulletin &published, std::function<Clock::time_point()> now = Clock::now);

    WebResponse respond(const WebRequest &request);

    static WebResponse text(int code, const QByteArray &body);

private:
    WebResponse page() const;
    WebResponse history();
    WebResponse metrics();
    WebResponse status(const WebRequest &request);
    const ProcessFigures &process();

    Bulletin &bulletin;
    const QByteArray policy; // the page's
    const std::function<Clock::time_point()> clock;
    ProcessFigures figures;
    std::optional<Clock::time_point> figuresRead; // nothing: not yet
};

} // namespace host
