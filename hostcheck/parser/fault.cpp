// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "hostcheck/parser/fault.h"

#include <csignal>
#include <cstring>

namespace hostcheck {

QString nameOf(Fault fault)
{
    switch (fault) {
    case Fault::None:
        return QStringLiteral("none");
    case Fault::Crash:
        return QStringLiteral("crash");
    case Fault::Endless:
        return QStringLiteral("endless");
    case Fault::Outside:
        return QStringLiteral("outside");
    case Fault::Writes:
        return QStringLiteral("writes");
    case Fault::OverConsumption:
        return QStringLiteral("over-consumption");
    case Fault::Unsteady:
        return QStringLiteral("unsteady");
    case Fault::Stall:
        return QStringLiteral("stall");
    case Fault::CutOff:
        return QStringLiteral("cut-off");
    case Fault::Lost:
        return QStringLiteral("lost");
    case Fault::Split:
        return QStringLiteral("split");
    }
    return {};
}

Fault obviousFault(const Outcome &outcome, qsizetype size)
{
    switch (outcome.kind) {
    case Outcome::NotRun:
        return Fault::None;
    case Outcome::Endless:
        return Fault::Endless;
    case Outcome::Crashed:
        if (!outcome.isNearBytes || (outcome.signal != SIGSEGV && outcome.signal != SIGBUS))
            return Fault::Crash;
        // The bytes can be read, so an access to them that fails was no reading.
        return outcome.distance >= 0 && outcome.distance < size ? Fault::Writes : Fault::Outside;
    case Outcome::Returned:
        break;
    }
    return outcome.value > size ? Fault::OverConsumption : Fault::None;
}

Fault faultAgainst(const Outcome &outcome, qsizetype size, qsizetype due)
{
    const Fault obvious = obviousFault(outcome, size);
    if (obvious != Fault::None || outcome.kind != Outcome::Returned || outcome.value == due)
        return obvious;
    if (outcome.value == 0)
        return Fault::Stall;
    return outcome.value > due && due > 0 ? Fault::Lost : Fault::CutOff;
}

Fault faultAgainstItself(const Outcome &outcome, qsizetype size, qsizetype due, bool consumesAll)
{
    const Fault obvious = obviousFault(outcome, size);
    if (obvious != Fault::None || outcome.kind != Outcome::Returned || outcome.value == due)
        return obvious;
    // Where it consumes nothing with all bytes, it has consumed a message when there were fewer.
    return outcome.value == 0 || !consumesAll ? Fault::Stall : Fault::Split;
}

QString describe(const Outcome &outcome, qsizetype size)
{
    switch (outcome.kind) {
    case Outcome::NotRun:
        return QStringLiteral("not called");
    case Outcome::Endless:
        return QStringLiteral("does not return");
    case Outcome::Returned:
        return QStringLiteral("consumed %1 of %2 bytes").arg(outcome.value).arg(size);
    case Outcome::Crashed:
        break;
    }
    if (outcome.signal == 0)
        return QStringLiteral("ended the process");
    QString text = QString::fromLocal8Bit(strsignal(outcome.signal));
    if (!outcome.isNearBytes)
        return text;
    if (outcome.distance < 0)
        return text + QStringLiteral(", %1 bytes before the first one").arg(-outcome.distance);
    if (outcome.distance < size)
        return text + QStringLiteral(", writing to byte %1").arg(outcome.distance);
    return text + QStringLiteral(", %1 bytes behind the last one").arg(outcome.distance - size + 1);
}

} // namespace hostcheck
