// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receive/backlogcheck.h"

namespace {

constexpr std::chrono::steady_clock::duration Interval = std::chrono::seconds(2);

} // namespace

BacklogCheck::BacklogCheck(const UnconsumedBytes &bytes)
    : unconsumed(bytes),
      created(std::chrono::steady_clock::now())
{
    setSingleShot(true);
}

BacklogCheck::~BacklogCheck()
{
    if (place != BacklogWatch::None)
        watch->remove(place);
}

void BacklogCheck::bytesCame(qsizetype size)
{
    if (size <= AboveBytes || isActive())
        return;
    if (!watch)
        startNext();
    else if (place == BacklogWatch::None)
        place = watch->add(this);
}

void BacklogCheck::endWatch()
{
    place = BacklogWatch::None;
    if (unconsumed.size() > AboveBytes && !isActive())
        startNext();
}

void BacklogCheck::startNext()
{
    const auto age = std::chrono::steady_clock::now() - created;
    start(std::chrono::ceil<std::chrono::milliseconds>(Interval - age % Interval));
}
