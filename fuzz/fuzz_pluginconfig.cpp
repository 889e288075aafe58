// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// The plugin's configuration, through start(). The input is an object, or an array of objects: then
// the same plugin is started with one after the other.

#include "fuzz/fuzztarget.h"
#include "fuzz/jsoninput.h"
#include "tcpinput/tcpinputplugin2.h"
#include "tests/kit/privatenetwork.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QJsonArray>
#include <QtNetwork/QNetworkInterface>

#include <cmath>
#include <limits>

namespace {

constexpr qsizetype MostStarts = 2; // each but the first takes 10 ms

//! What the status must say. Some values stay from one object to the next.
class Expectation
{
public:
    void read(const QJsonObject &object)
    {
        const int seconds = positive(object.value(QLatin1String("timeout")));
        if (seconds > 0)
            timeout = std::min(seconds, std::numeric_limits<int>::max() / 1000);
        if (const int size = positive(object.value(QLatin1String("threadpoolSize"))))
            poolSize = size;
        const int given = positive(object.value(QLatin1String("port")));
        port = given > 0 && given < 65535 ? given : 7446;

        address = QHostAddress(QHostAddress::AnyIPv4);
        // Qt decides what is an interface's name; it takes numbers, too.
        const QString name = object.value(QLatin1String("interface")).toString();
        for (const QNetworkAddressEntry &entry :
             QNetworkInterface::interfaceFromName(name).addressEntries()) {
            if (entry.ip().protocol() == QAbstractSocket::IPv4Protocol)
                address = entry.ip();
        }
        const QJsonValue text = object.value(QLatin1String("ipAddr"));
        if (!text.isUndefined() && !address.setAddress(text.toString()))
            address = QHostAddress(QHostAddress::LocalHost);
    }

    void check(const QString &status) const
    {
        const QString end =
                QStringLiteral(", timeout: %1s, pool size: %2\r\n").arg(timeout).arg(poolSize);
        const QString listening =
                QStringLiteral("Listen: %1:%2").arg(address.toString()).arg(port) + end;
        // The system decides in which form an IPv6 address comes back.
        const bool isIpv4 = address.protocol() == QAbstractSocket::IPv4Protocol;
        const bool exists = isIpv4 && (address.isLoopback() || address == QHostAddress::AnyIPv4);
        const bool kept = status == listening
                || (!exists && status == QStringLiteral("Listen: :0") + end)
                || (!isIpv4 && status.endsWith(end));
        require(kept,
                QStringLiteral("expected ") + listening + QStringLiteral("but it is ") + status);
    }

private:
    // Returns 0 unless value is a positive integer that fits into an int.
    static int positive(const QJsonValue &value)
    {
        const double number = value.isDouble() ? value.toDouble() : 0;
        const bool fits = number > 0 && number <= std::numeric_limits<int>::max();
        return fits && std::floor(number) == number ? static_cast<int>(number) : 0;
    }

    int timeout = 60;
    int poolSize = 4;
    int port = 0;
    QHostAddress address;
};

QList<QJsonObject> objectsIn(const QJsonDocument &document)
{
    if (!document.isArray())
        return {document.object()};
    QList<QJsonObject> objects;
    const QJsonArray array = document.array();
    for (qsizetype n = 0; n < std::min(array.size(), MostStarts); ++n)
        objects.append(array.at(n).toObject());
    return objects;
}

} // namespace

void initialise()
{
    // The input chooses ports and addresses.
    require(PrivateNetwork::enter(), QStringLiteral("a network of one's own is allowed"));
    static int argc = 1;
    static char name[] = "fuzz";
    static char *argv[] = {name, nullptr};
    static const QCoreApplication application(argc, argv);
}

void fuzz(QByteArrayView input)
{
    const QList<QJsonObject> objects = objectsIn(jsonFrom(input));
    TcpInputPlugin2 plugin(nullptr);
    Expectation expectation;
    for (qsizetype n = 0; n < objects.size(); ++n) {
        QJsonObject object = objects.at(n);
        const QJsonObject tls = object.value(QLatin1String("ssl")).toObject();
        if (!namesLocalFilesOnly(tls))
            return;
        if (!tls.isEmpty())
            object.insert(QLatin1String("ssl"), withInlineFiles(tls));
        if (n > 0)
            plugin.stop();
        plugin.setConfig(object);
        const bool accepted = Configuration::check(object, plugin.pluginId);
        if (!plugin.start()) {
            require(!accepted || !tls.isEmpty(), QStringLiteral("nothing but TLS can fail"));
            return;
        }
        require(accepted, QStringLiteral("what is refused makes start() fail"));
        expectation.read(object);
        expectation.check(plugin.getStatus());
    }
}
