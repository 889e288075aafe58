// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/kit/eventlog.h"
#include "tests/kit/movableclock.h"

#include <QtCore/QObject>

#include <memory>

namespace clienttest {

// Each test has a log and a clock of its own.
class ClientTest : public QObject
{
protected:
    void begin();
    void end();

    std::unique_ptr<EventLog> log;
    std::unique_ptr<MovableClock> clock;
};

inline void ClientTest::begin()
{
    log = std::make_unique<EventLog>();
    clock = std::make_unique<MovableClock>();
}

inline void ClientTest::end()
{
    clock.reset();
    log.reset();
}

} // namespace clienttest
