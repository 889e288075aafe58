// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "simulator/inputlines.h"

#include "simulator/filelines.h"
#include "simulator/tcpsocket.h"

#include <algorithm>
#include <cerrno>
#include <limits>

#include <sys/stat.h>
#include <unistd.h>

namespace simulator {
namespace {

constexpr qsizetype ReadBytes = 64 * 1024;
constexpr qsizetype LongestLine = 64 * 1024 * 1024;
// So much may wait for devices; then nothing is read until half of it has gone.
constexpr qsizetype MostLines = 10000;
constexpr qsizetype MostBytes = 16 * 1024 * 1024;

} // namespace

bool InputLines::isStream(int descriptor)
{
    struct stat status = {};
    if (::fstat(descriptor, &status) != 0)
        return false;
    return S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode) || ::isatty(descriptor) == 1;
}

InputLines::InputLines(int descriptor, const Options &given)
    : fd(descriptor),
      options(given),
      positions(given.connections)
{
    connect(&readable, &QSocketNotifier::activated, this, &InputLines::onReadable);
}

void InputLines::start()
{
    readable.setSocket(fd);
    readable.setEnabled(true);
}

QByteArray InputLines::line(quint64 number) const
{
    return number > dropped && number <= count()
            ? payloads.at(static_cast<qsizetype>(number - dropped - 1))
            : QByteArray();
}

void InputLines::passed(quint64 device, quint64 number)
{
    positions.at(device - 1) = number;
    readOn();
}

void InputLines::leave(quint64 device)
{
    passed(device, std::numeric_limits<quint64>::max());
}

void InputLines::onReadable()
{
    QByteArray bytes(ReadBytes, Qt::Uninitialized);
    const ssize_t size = ::read(fd, bytes.data(), static_cast<size_t>(bytes.size()));
    if (size < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (size < 0)
        complain(QStringLiteral("standard input: %1").arg(errorText(errno)));
    if (size <= 0)
        return end();
    bytes.truncate(size);
    take(bytes);
    if (payloads.size() >= MostLines || keptBytes >= MostBytes)
        readable.setEnabled(false);
    Q_EMIT came();
}

void InputLines::take(const QByteArray &bytes)
{
    qsizetype at = 0;
    while (at < bytes.size()) {
        const qsizetype found =
                options.messagesAs == MessageSyntax::Whole ? -1 : bytes.indexOf('\n', at);
        const qsizetype behind = found < 0 ? bytes.size() : found;
        if (!isSkipping)
            rest += QByteArrayView(bytes).sliced(at, behind - at);
        if (rest.size() > LongestLine) {
            complain(QStringLiteral("standard input, line %1: longer than %2 bytes")
                             .arg(lineNumber + 1)
                             .arg(LongestLine));
            isSkipping = true;
            rest.clear();
        }
        if (found >= 0) {
            ++lineNumber;
            if (!isSkipping)
                takeLine(rest);
            isSkipping = false;
            rest.clear();
        }
        at = behind + 1;
    }
}

void InputLines::takeLine(QByteArrayView text)
{
    QString error;
    const auto payload = payloadOf(text, options.messagesAs, error);
    if (payload && !options.messageTemplate && !options.framing.fits(payload->size()))
        error = QStringLiteral("%1 bytes do not fit the framing").arg(payload->size());
    if (!error.isEmpty())
        return complain(QStringLiteral("standard input, line %1: %2").arg(lineNumber).arg(error));
    payloads += *payload;
    keptBytes += payload->size();
}

void InputLines::end()
{
    readable.setEnabled(false);
    if (!rest.isEmpty()) {
        ++lineNumber;
        takeLine(rest);
    }
    ended = true;
    Q_EMIT came();
}

// Forgets what every device has sent.
void InputLines::drop()
{
    const quint64 least = *std::min_element(positions.begin(), positions.end());
    const quint64 sent = std::min(least, count());
    for (; dropped < sent; ++dropped)
        keptBytes -= payloads.takeFirst().size();
}

void InputLines::readOn()
{
    const bool isMuch = payloads.size() >= MostLines / 2 || keptBytes >= MostBytes / 2;
    if (isMuch)
        drop();
    const bool isStillMuch = payloads.size() >= MostLines / 2 || keptBytes >= MostBytes / 2;
    if (!ended && !isStillMuch && readable.isValid())
        readable.setEnabled(true);
}

void InputLines::complain(const QString &text)
{
    faulty = true;
    Q_EMIT complained(text);
}

} // namespace simulator
