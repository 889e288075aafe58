// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "hostcheck/parser/parserprocess.h"

#include <QtCore/QString>

#include <initializer_list>

namespace hostcheck {

//! What a parser does wrong.
enum class Fault {
    None,
    Crash, // ended by a signal, by itself, or by an access far from its bytes
    Endless,
    Outside, // reads or writes beside its bytes
    Writes, // into its bytes
    OverConsumption, // more than there is
    Unsteady, // the same bytes, another answer
    Stall, // a whole message is there, and nothing is consumed
    CutOff, // a part of a message is consumed as if it were all of it
    Lost, // more than a message is consumed: what follows is gone
    Split, // the answer depends on how much more is there
};

// Every fault that the checks tell apart, in the order of the report.
inline constexpr std::initializer_list<Fault> AllFaults = {
        Fault::Crash,    Fault::Endless, Fault::Outside, Fault::Writes, Fault::OverConsumption,
        Fault::Unsteady, Fault::Stall,   Fault::CutOff,  Fault::Lost,   Fault::Split};

// The name of its check.
QString nameOf(Fault fault);
// A fault that shows without knowing where messages end; or None.
Fault obviousFault(const Outcome &outcome, qsizetype size);
// due: what had to be consumed of so many bytes, by what is known of the messages.
Fault faultAgainst(const Outcome &outcome, qsizetype size, qsizetype due);
// due: what the parser itself consumes if all bytes that follow are there.
Fault faultAgainstItself(const Outcome &outcome, qsizetype size, qsizetype due, bool consumesAll);
// The outcome in words.
QString describe(const Outcome &outcome, qsizetype size);

} // namespace hostcheck
