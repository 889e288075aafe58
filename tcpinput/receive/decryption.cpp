// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "tcpinput/receive/decryption.h"

#include <algorithm>

#include <sys/socket.h>

namespace {

// In a turn; the others wait, so that the other connections of the thread do not.
constexpr int MostRecordsWithoutData = 32;
constexpr qsizetype MostUnsentBytes = 64 * 1024;

} // namespace

qsizetype Decryption::read(char *to, qsizetype most)
{
    qsizetype size = 0;
    int withoutData = 0;
    while (size < most && !isOver()) {
        const qsizetype more = session->read(to + size, most - size);
        size += more;
        if (more == 0 && (!session->hasRest() || ++withoutData > MostRecordsWithoutData))
            break;
    }
    return size;
}

void Decryption::endTurn(int descriptor)
{
    session->keepRest();
    send(descriptor);
}

void Decryption::end(int descriptor)
{
    if (!isOver())
        session->close();
    send(descriptor);
}

void Decryption::send(int descriptor)
{
    const QByteArray &unsent = session->unsent();
    if (unsent.isEmpty())
        return;
    const ssize_t size =
            ::send(descriptor, unsent.constData(), static_cast<std::size_t>(unsent.size()),
                   MSG_DONTWAIT | MSG_NOSIGNAL);
    session->sent(std::max<ssize_t>(size, 0));
    flooded = flooded || unsent.size() > MostUnsentBytes;
}
