// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "hostcheck/parser/fault.h"
#include "hostcheck/parser/traffic.h"
#include "hostcheck/report.h"

#include <QtCore/QRegularExpression>

#include <map>
#include <vector>

namespace hostcheck {

/*!
    Checks a parser with what one device sends: calls it with every beginning of each message, alone
    and with the messages that follow, in other orders and again.

    Thread: one at a time.
    Owner:  the caller.
*/
class ParserChecks
{
public:
    // Both outlive this object.
    ParserChecks(ParserProcess &parserProcess, const Traffic &deviceTraffic)
        : parser(parserProcess),
          traffic(deviceTraffic)
    {}

    // A verdict for each kind of fault whose name matches.
    QList<Verdict> run(const QRegularExpression &only);

private:
    //! A call, and what it is compared with.
    struct Planned
    {
        Call call;
        qsizetype due = 0; // what had to be consumed
        bool isTail = false; // no message is known to end behind its begin
        size_t same = 0; // the first call with the same bytes
    };
    //! The call that shows a fault best: the one with the fewest bytes.
    struct Finding
    {
        size_t index = 0; // of the planned call
        int count = 0; // of such calls
    };

    QString fullName(const QString &check) const;
    void findEnds();
    qsizetype beginOf(size_t number) const;
    // The size of a message with its neighbours; of what is left if there is no such message.
    qsizetype windowOf(size_t number) const;
    void planMessages();
    void planMessage(size_t number, bool isGivenAll);
    void planAgain();
    void judge();
    Fault faultOf(size_t index) const;
    void note(Fault fault, size_t index);
    Verdict verdictOn(Fault fault);
    Verdict summary() const;
    QString place(const Planned &planned) const;

    bool needsBeginnings(Fault fault) const;
    QByteArray inputOf(Fault fault, const Planned &planned) const;
    QString smallest(Fault fault, const Planned &planned);
    Fault faultOfInput(const QByteArray &input, Fence fence, Fault wanted);
    Fault faultOfBeginnings(const QByteArray &input);
    bool isSteady(const QByteArray &input);

    ParserProcess &parser;
    const Traffic &traffic;
    std::vector<qsizetype> ends; // of whole messages
    std::vector<Planned> plan;
    size_t messagesLeftOut = 0; // of the plan
    qsizetype beginningsLeftOut = 0; // of the others
    size_t firstCalls = 0; // of the plan: what is judged; the others are the same calls again
    std::vector<Outcome> outcomes;
    std::map<Fault, Finding> findings;
};

} // namespace hostcheck
