// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <algorithm>
#include <chrono>
#include <utility>

/*!
    Bounds how often something happens: so many times a second on the average, and no more than a
    burst of them at once. A token bucket as in RFC 2697, 3, with one token for each time.

    Thread: one.
    Owner:  as a member.
*/
class TokenBucket
{
public:
    using Time = std::chrono::steady_clock::time_point;

    // Full at first. perSecond, burst: more than 0.
    TokenBucket(double perSecond, double burst) : rate(perSecond), depth(burst), tokens(burst) {}

    // now: never earlier than before.
    bool hasToken(Time now)
    {
        fill(now);
        return tokens >= 1;
    }
    // Also if there is none: the next one then takes longer.
    void take(Time now)
    {
        fill(now);
        tokens -= 1;
    }

private:
    void fill(Time now)
    {
        const std::chrono::duration<double> since = now - std::exchange(filled, now);
        tokens = std::min(depth, tokens + since.count() * rate);
    }

    double rate;
    double depth;
    double tokens;
    Time filled; // the latest time
};
