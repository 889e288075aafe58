// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "plugin/kit/defaults.h"

#include <QtCore/QString>

#include <initializer_list>
#include <utility>

namespace inputkit {
namespace {

constexpr QLatin1String SslKey("ssl");
constexpr QLatin1String LimitsKey("limits");

// What is in flight fits into the processor's caches, and a fast connection still has 200 MB/s.
constexpr int MiB = 1024 * 1024;

using Defaults = std::initializer_list<std::pair<const char *, QJsonValue>>;

// Adds the default of each key that the object does not have.
void addMissing(QJsonObject &object, const Defaults &defaults)
{
    for (const auto &[key, value] : defaults) {
        if (!object.contains(QLatin1String(key)))
            object.insert(QLatin1String(key), value);
    }
}

// The same for an object in it, if that is there.
void addMissingTo(QJsonObject &object, QLatin1String name, const Defaults &defaults)
{
    if (!object.value(name).isObject())
        return;
    QJsonObject inner = object.value(name).toObject();
    addMissing(inner, defaults);
    object.insert(name, inner);
}

} // namespace

QJsonObject withDefaults(QJsonObject configuration)
{
    addMissing(configuration,
               {
                       {"ends", true}, // otherwise ends are guessed
                       {"limits", QJsonObject()}, // otherwise a slow host fills memory; see below
                       {"offsets", true}, // otherwise messages may get lost or come twice
                       {"prompt", true}, // otherwise a message's last piece may wait
                       {"strict", true}, // otherwise a misspelt key is ignored
               });
    addMissingTo(configuration, LimitsKey,
                 {{"connectionBuffer", 1 * MiB}, {"totalBuffer", 128 * MiB}});
    addMissingTo(configuration, SslKey,
                 {
                         {"Chain", true}, // otherwise devices lack intermediate certificates
                         {"KeyAlgorithm", QLatin1String("auto")}, // otherwise keys must be RSA
                         {"engine", QLatin1String("own")}, // otherwise handshakes hold this thread
                 });
    return configuration;
}

bool stampsOffers(const QJsonObject &configuration)
{
    return configuration.value(QLatin1String("offsets")) == true;
}

bool tellsEnds(const QJsonObject &configuration)
{
    const QJsonValue ends = configuration.value(QLatin1String("ends"));
    return ends == true || ends == QLatin1String("all");
}

} // namespace inputkit
