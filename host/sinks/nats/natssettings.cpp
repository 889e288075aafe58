// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "host/sinks/nats/natssettings.h"

#include <QtCore/QUrl>

namespace host {
namespace {

constexpr int DefaultPort = 4222;

// HOST:PORT, or empty if it is no server's address.
QString serverOf(const QString &text)
{
    const QUrl url(QStringLiteral("nats://") + text, QUrl::StrictMode);
    if (!url.isValid() || url.host().isEmpty() || !url.path().isEmpty() || url.hasQuery()
        || url.hasFragment() || !url.userInfo().isEmpty())
        return {};
    const bool isIpv6 = url.host().contains(u':');
    return QStringLiteral("%1:%2")
            .arg(isIpv6 ? u'[' + url.host() + u']' : url.host())
            .arg(url.port(DefaultPort));
}

bool isStreamName(const QString &text)
{
    for (const QChar c : text) {
        if (c <= u' ' || c == u'\x7f' || QStringLiteral(".*>/\\").contains(c))
            return false;
    }
    return !text.isEmpty();
}

QString decoded(const QString &text)
{
    return QUrl::fromPercentEncoding(text.toUtf8());
}

} // namespace

QString readNatsAddress(const QString &text, NatsSettings &settings)
{
    const qsizetype slash = text.lastIndexOf(u'/');
    const QString stream = text.mid(slash + 1);
    if (slash < 0 || !isStreamName(stream))
        return QStringLiteral("the address of a NATS server ends with /STREAM, the stream's name");

    QString servers = text.left(slash);
    const qsizetype at = servers.lastIndexOf(u'@');
    if (at >= 0) {
        const QString login = servers.left(at);
        const qsizetype colon = login.indexOf(u':');
        settings.user = decoded(login.left(colon));
        settings.password = colon < 0 ? QString() : decoded(login.mid(colon + 1));
        servers.remove(0, at + 1);
    }
    settings.servers.clear();
    const QStringList parts = servers.split(u',');
    for (const QString &part : parts) {
        const QString server = serverOf(part);
        if (server.isEmpty())
            return QStringLiteral("a NATS server is HOST or HOST:PORT; commas separate several");
        settings.servers.append(server);
    }
    settings.stream = stream;
    return {};
}

} // namespace host
