// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "episode.h"
#include "scriptwriter.h"

#include <openssl/ssl.h>

#include <array>

namespace {

// The lists' lengths have no common factor, so in time each ending meets each TLS version.
constexpr std::array<Ending, 6> Endings{Ending::Close, Ending::Stop,    Ending::Close,
                                        Ending::Close, Ending::Destroy, Ending::IdleTimeout};
constexpr std::array<int, 5> TlsVersions{0, TLS1_3_VERSION, 0, TLS1_2_VERSION, TLS1_3_VERSION};
constexpr int SharedThreads = 4;
constexpr int SoonIdleSeconds = 4;

quint32 mixed(quint32 seed, quint32 number)
{
    std::seed_seq sequence{seed, number};
    std::array<quint32, 1> result{};
    sequence.generate(result.begin(), result.end());
    return result[0];
}

// Unless the plugin ends all devices, each device ends in a way of its own.
Ending endingOf(const EpisodePlan &plan, quint32 seed)
{
    constexpr std::array<Ending, 3> OfDevices{Ending::Close, Ending::HalfClose, Ending::Reset};
    return plan.ending == Ending::Close ? OfDevices[seed % OfDevices.size()] : plan.ending;
}

} // namespace

EpisodePlan EpisodePlan::random(quint32 seed, int number, int connections)
{
    const auto turn = static_cast<std::size_t>(number / 2);
    const bool spaced = number % 2 == 0;
    EpisodePlan plan;
    plan.ending = Endings[turn % Endings.size()];
    // It would take long, and show nothing more.
    if (!spaced && plan.ending == Ending::IdleTimeout)
        plan.ending = Ending::Close;
    plan.tlsVersion = TlsVersions[turn % TlsVersions.size()];
    plan.ownThreads = turn / 2 % 2 == 0;
    plan.wildcard = turn % 3 == 1;
    plan.slowLog = spaced && plan.ownThreads && turn % 3 == 1;
    if (plan.ending == Ending::IdleTimeout)
        plan.timeoutSeconds = SoonIdleSeconds;
    const quint32 own = mixed(seed, static_cast<quint32>(number));
    for (int i = 0; i < connections; ++i) {
        const quint32 script = mixed(own, static_cast<quint32>(i));
        const Ending ending = endingOf(plan, script);
        plan.scripts.append(spaced ? ScriptWriter::spaced(script, ending, plan.names(i))
                                   : ScriptWriter::hasty(script, ending));
    }
    return plan;
}

int EpisodePlan::threads() const
{
    return ownThreads ? static_cast<int>(scripts.size()) : SharedThreads;
}

CourseNames EpisodePlan::names(int connection) const
{
    CourseNames result;
    result.tls = tlsVersion != 0;
    result.wildcard = wildcard;
    result.task = ownThreads ? connection : connection % SharedThreads;
    result.timeoutMs = timeoutSeconds * 1000;
    result.local = testAddress().toString();
    result.listens = wildcard ? QStringLiteral("0.0.0.0") : result.local;
    return result;
}

QString EpisodePlan::toString() const
{
    return QStringLiteral("%1, %2%3%4%5, %6 connections")
            .arg(QLatin1String(tlsVersion == 0                        ? "TCP"
                                       : tlsVersion == TLS1_2_VERSION ? "TLS 1.2"
                                                                      : "TLS 1.3"),
                 QLatin1String(ownThreads ? "own threads" : "shared threads"),
                 QLatin1String(wildcard ? ", all addresses" : ""),
                 QLatin1String(slowLog ? ", slow log" : ""),
                 QLatin1String(ending == Ending::Stop                  ? ", stop()"
                                       : ending == Ending::Destroy     ? ", destroyed"
                                       : ending == Ending::IdleTimeout ? ", idle time-out"
                                                                       : ""))
            .arg(scripts.size());
}
