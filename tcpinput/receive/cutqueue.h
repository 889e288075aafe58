// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tcpinput/receive/unconsumedbytes.h"

#include <QtCore/QObject>

#include <functional>
#include <utility>

/*!
    Carries out the cuts that hosts ask for: in their order, in the client's thread, or ahead where
    nobody can tell (UnconsumedBytes).

    Thread: the client's; ask() also from any other.
    Owner:  the client, as a member.
*/
class CutQueue
{
public:
    using Cut = UnconsumedBytes::Cut;

    // bytes: not owned, outlive this. wasCut: called in the client's thread after each cut but
    // those made ahead, with the number of bytes left.
    CutQueue(UnconsumedBytes &bytes, QObject &owner, std::function<void(qsizetype left)> wasCut)
        : unconsumed(bytes),
          client(owner),
          tell(std::move(wasCut))
    {}
    Q_DISABLE_COPY_MOVE(CutQueue)

    void ask(const Cut &asked);
    // At once, before others that wait. In the client's thread.
    void carryOut(const Cut &asked);

private:
    UnconsumedBytes &unconsumed;
    QObject &client;
    const std::function<void(qsizetype left)> tell;
};
