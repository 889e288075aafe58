// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/kit/tlsengines.h"

#include <QtCore/QStringList>

#include <array>

//! How a device's connection ends. The three endings with Notify in their names exist only with
//! TLS.
enum class Ending {
    Fin, // FIN once the peer's kernel has acknowledged the last byte
    HalfClose, // FIN right after the last byte; the device goes on reading until the plugin closes
    CloseAtOnce, // close() right after the last byte, even with unread bytes
    Reset, // RST right after the last byte
    NotifyThenFin, // close_notify and FIN, then as HalfClose
    NotifyAlone, // close_notify; TCP stays open until the plugin closes
    FinWithoutNotify, // as CloseAtOnce, but the device first reads the bytes that have arrived
    IdleTimeout, // the device stays; the plugin closes
    HostStop, // stop() while all devices are sending
    Destroyed, // the plugin is deleted while all devices are sending
};

enum class Transport { Tcp, Tls12, Tls13 };

//! How the device's bytes are divided among its writes.
enum class Segmentation {
    Whole, // one write
    Bytes, // one byte for each write
    Random, // 1 to 400 bytes for each write, with pauses of up to 30 ms
};

enum class HostKind {
    Prompt, // answers each offer at once
    Late, // answers each offer 500 ms after it came
    OneByOne, // consumes one message per offer
    AtEnd, // consumes nothing before the connection has ended
};

//! The optional keys in the plugin's configuration, and the kind of host that uses them.
enum class Keys {
    None, // a plain host
    Offsets, // a host with ExactOffers
    All, // also "prompt", "ends" and small "limits"; each device is behind a proxy
};

template<class Value>
struct Named
{
    Value value;
    const char *name;
};

constexpr std::array<Named<Ending>, 10> Endings{
        {{Ending::Fin, "FIN after the last byte"},
         {Ending::HalfClose, "half-close"},
         {Ending::CloseAtOnce, "close at once"},
         {Ending::Reset, "RST"},
         {Ending::NotifyThenFin, "close_notify then FIN"},
         {Ending::NotifyAlone, "close_notify alone"},
         {Ending::FinWithoutNotify, "FIN without close_notify"},
         {Ending::IdleTimeout, "idle time-out"},
         {Ending::HostStop, "host's stop()"},
         {Ending::Destroyed, "plugin destroyed"}}};
constexpr std::array<Named<Transport>, 3> Transports{
        {{Transport::Tcp, "TCP"}, {Transport::Tls12, "TLS 1.2"}, {Transport::Tls13, "TLS 1.3"}}};
constexpr std::array<Named<Segmentation>, 3> Segmentations{
        {{Segmentation::Whole, "one write"},
         {Segmentation::Bytes, "one byte a write"},
         {Segmentation::Random, "random"}}};
constexpr std::array<Named<HostKind>, 4> HostKinds{{{HostKind::Prompt, "prompt"},
                                                    {HostKind::Late, "500 ms late"},
                                                    {HostKind::OneByOne, "one message per offer"},
                                                    {HostKind::AtEnd, "nothing until the end"}}};
constexpr std::array<Named<Keys>, 3> KeySets{{{Keys::None, "plain host"},
                                              {Keys::Offsets, "exact host"},
                                              {Keys::All, "exact host, all keys"}}};

//! One cell of the matrix.
struct Cell
{
    Ending ending;
    Transport transport;
    QString engine; // one of enginesOf(transport)
    Segmentation segmentation;
    HostKind host;
    Keys keys;
};

constexpr bool exists(Ending ending, Transport transport)
{
    return transport != Transport::Tcp
            || (ending != Ending::NotifyThenFin && ending != Ending::NotifyAlone
                && ending != Ending::FinWithoutNotify);
}

// What carries out the transport: the values of the key "engine". With TCP a single empty one.
inline QStringList enginesOf(Transport transport)
{
    if (transport == Transport::Tcp)
        return {QString()};
    QStringList engines;
    for (const char *engine : TlsEngines)
        engines.append(QString::fromLatin1(engine));
    return engines;
}

// Whether the host ends the plugin. Bytes that the kernel still holds then are not the plugin's.
constexpr bool isCutShort(Ending ending)
{
    return ending == Ending::HostStop || ending == Ending::Destroyed;
}
