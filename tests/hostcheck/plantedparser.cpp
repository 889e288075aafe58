// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// A parser of messages behind a count of two bytes, big-endian, and in it the fault that PLANTED
// names. Without a fault (0) it is right.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <sys/time.h>
#include <unistd.h>

extern "C" __attribute__((visibility("default"))) size_t consume(const char *bytes, size_t size);

namespace {

enum {
    None,
    OneTooFew, // leaves the last byte
    OneTooMany, // takes a byte of the next message, if there is one
    CountInclusive, // believes that the count counts itself
    TooEarly, // does not wait for the last byte
    AllAtOnce, // takes two messages as one
    StallsWithMore, // waits until a message is alone
    OtherByteOrder, // for messages that are long enough
    ReadsBehind, // looks at the byte behind a message
    ReadsBefore, // looks at the byte before it
    WritesInput, // puts an end behind the text
    NeverReturns, // for an empty message
    RemembersCount, // of a message that was not complete
    ClaimsMore, // than was given
    DividesByZero, // for an empty message
    LeavesProcess, // that lives on
    ClosesAndPauses, // all descriptors, and for ever
    WritesWildly, // into all memory that is shared, and crashes
    UsesTime, // a quarter of a second in its first call
    StopsClock, // and never returns
    ConsumesNothing,
};

size_t countAt(const char *bytes)
{
    const auto high = static_cast<uint8_t>(bytes[0]);
    const auto low = static_cast<uint8_t>(bytes[1]);
    const size_t count = static_cast<size_t>(high) * 256 + low;
    return PLANTED == OtherByteOrder && count > 40 ? static_cast<size_t>(low) * 256 + high : count;
}

// The length of the message; 0 if it is not known yet.
size_t lengthAt(const char *bytes, size_t size)
{
    static size_t remembered = 0;
    if (size < 2)
        return 0;
    size_t length = countAt(bytes) + (PLANTED == CountInclusive ? 0 : 2);
    if (PLANTED == RemembersCount) {
        const size_t known = remembered > 0 ? remembered : length;
        remembered = size < known ? known : 0;
        length = known;
    }
    return length;
}

void closeAndPause()
{
    for (int descriptor = 3; descriptor < 1024; ++descriptor)
        close(descriptor);
    for (;;)
        pause();
}

void writeWildly()
{
    FILE *maps = std::fopen("/proc/self/maps", "re");
    char line[512];
    while (maps && std::fgets(line, sizeof line, maps)) {
        char *begin = nullptr;
        char *end = nullptr;
        char flags[8] = {};
        if (std::sscanf(line, "%p-%p %7s", reinterpret_cast<void **>(&begin),
                        reinterpret_cast<void **>(&end), flags)
                    == 3
            && std::strcmp(flags, "rw-s") == 0)
            std::memset(begin, 0x41, static_cast<size_t>(end - begin));
    }
    __builtin_trap();
}

void useTime()
{
    static bool isUsed = false;
    while (!isUsed && std::clock() < CLOCKS_PER_SEC / 4) {}
    isUsed = true;
}

void stopClock()
{
    const itimerval never = {};
    setitimer(ITIMER_PROF, &never, nullptr);
    for (volatile int turns = 0;;)
        turns = 1 - turns;
}

// What concerns the process, whatever the bytes are.
void harmProcess()
{
    if (PLANTED == LeavesProcess && fork() == 0)
        closeAndPause();
    if (PLANTED == ClosesAndPauses)
        closeAndPause();
    if (PLANTED == WritesWildly)
        writeWildly();
    if (PLANTED == UsesTime)
        useTime();
    if (PLANTED == StopsClock)
        stopClock();
}

} // namespace

size_t consume(const char *bytes, size_t size)
{
    harmProcess();
    const size_t length = lengthAt(bytes, size);
    if (length == 0 || PLANTED == ConsumesNothing)
        return 0;
    volatile int zero = 0;
    if (PLANTED == DividesByZero && length == 2)
        return size / static_cast<size_t>(zero);
    if (PLANTED == NeverReturns && length == 2) {
        for (;;)
            zero = zero + 1;
    }
    if (PLANTED == ReadsBehind && bytes[length] == 0)
        return 0;
    if (PLANTED == ReadsBefore && bytes[-1] == 0)
        return 0;
    if (PLANTED == ClaimsMore && size < length)
        return length;
    if (size + (PLANTED == TooEarly ? 1 : 0) < length)
        return 0;
    if (PLANTED == TooEarly && size < length)
        return size;
    if (PLANTED == WritesInput && length > 2)
        const_cast<char *>(bytes)[length - 1] = 0;
    if (PLANTED == StallsWithMore && size > length)
        return 0;
    if (PLANTED == OneTooMany && size > length)
        return length + 1;
    if (PLANTED == OneTooFew)
        return length - 1;
    if (PLANTED == AllAtOnce && size >= length + 2) {
        const size_t both = length + countAt(bytes + length) + 2;
        return both <= size ? both : length;
    }
    return length;
}
