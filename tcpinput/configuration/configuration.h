// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/configuration/checker.h"
#include "tcpinput/connection/acceptlimits.h"
#include "tcpinput/connection/proxyrule.h"
#include "tcpinput/connection/serving.h"
#include "tls/settings.h"

#include <QtCore/QJsonObject>
#include <QtCore/QJsonValue>
#include <QtNetwork/QHostAddress>

#include <array>
#include <optional>

/*!
    The configuration of a plugin, read from its JSON object.

    Thread: one.
    Owner:  the plugin, as a member.
*/
class Configuration
{
public:
    //! Whether a key keeps its value when it is missing in a later object.
    enum class Kept : bool { No, Yes };
    //! What a bad value does: the one in docs/CONFIGURATION.md, or start() fails.
    enum class Bad : bool { Ignored, Refused };

    //! One key of the object.
    struct Key
    {
        const char *name;
        const char *type;
        const char *byDefault;
        const char *accepted; // values; badValue says what all others do
        const char *badValue;
        Kept kept;
        Bad bad;
        bool (*isAccepted)(const QJsonValue &value);
        // False: cannot be set up. Null: check() has used the value.
        bool (Configuration::*read)(const QJsonValue &value);
    };
    // All keys in the order in which they are applied, which is sorted by name. The texts are those
    // of docs/CONFIGURATION.md.
    static const std::array<Key, 13> &keys();

    // Bad values of keys that refuse them; if strict, all bad values and unknown keys.
    static QList<Checker::Fault> faults(const QJsonObject &object, bool strict);

    // False: start() must fail. Each reason is logged: its faults, strictly if it has "strict".
    // pluginId: for log lines.
    static bool check(const QJsonObject &object, const QString &pluginId);

    // Applies an object that check() has passed. False if TLS cannot be set up; the keys behind
    // "ssl" are then not applied. pluginId: for log lines.
    bool apply(const QJsonObject &object, const QString &pluginId);

    QHostAddress address;
    quint16 port = 0;
    Serving serving;
    AcceptLimits accepting;
    int timeoutMs = 60000; // idle time-out; more than 0
    int poolSize = 4; // threads; more than 0
    bool useTls = false;
    bool logPeers = false; // the log names peers whose handshake fails, or who speak no TLS
    std::optional<ProxyRule> proxies; // absent: no connection begins with a PROXY header
    std::optional<tls::Settings> tls; // if the latest object had it

private:
    bool readPort(const QJsonValue &value);
    bool readAddress(const QJsonValue &value);
    bool readLimits(const QJsonValue &value);
    bool readInterface(const QJsonValue &value);
    bool readEnds(const QJsonValue &value);
    bool readLogPeers(const QJsonValue &value);
    bool readOffsets(const QJsonValue &value);
    bool readPrompt(const QJsonValue &value);
    bool readProxies(const QJsonValue &value);
    bool readTimeout(const QJsonValue &value);
    bool readPoolSize(const QJsonValue &value);
    bool readTls(const QJsonValue &value);

    QString plugin;
};
