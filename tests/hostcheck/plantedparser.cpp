// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

// A parser of messages behind a count of two bytes, big-endian, and in it the fault that PLANTED
// names. Without a fault (0) it is right.

#include <cstddef>
#include <cstdint>

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

} // namespace

size_t consume(const char *bytes, size_t size)
{
    const size_t length = lengthAt(bytes, size);
    if (length == 0)
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
