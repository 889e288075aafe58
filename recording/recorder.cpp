// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "recording/recorder.h"

#include <system_error>
#include <utility>

namespace recording {
namespace {

using namespace std::chrono_literals;

// The thread is woken once for all that comes in this time. What comes in it is lost with the
// process.
constexpr auto GatherTime = 100ms;
// A block of few entries costs more a byte, and is larger.
constexpr auto BlockGatherTime = 1s;
constexpr qsizetype EagerBytes = 1024 * 1024; // so much is written at once
// For beginnings, ends and gaps, which are small: they come after the queue is full for bytes.
constexpr qsizetype ReserveBytes = 16 * 1024 * 1024;
constexpr qsizetype MostOverhead = 64; // of an entry, without texts

// What the gaps among the entries tell. Nothing if there are none.
std::optional<quint64> missingBytes(QByteArrayView entries)
{
    std::optional<quint64> missing;
    while (const auto raw = takeEntry(entries)) {
        const auto gap = raw->type == Entry::Gap ? parseEntry(*raw) : std::nullopt;
        if (gap)
            missing = missing.value_or(0) + gap->size;
    }
    return missing;
}

qint64 nowUs()
{
    const auto time = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(time).count();
}

} // namespace

Recorder::Recorder(const WriterOptions &given, RecorderNotices told, qsizetype queueBytes)
    : options(given),
      notices(std::move(told)),
      queueLimit(queueBytes),
      writer(given)
{}

Recorder::~Recorder()
{
    finish();
}

bool Recorder::start(const QString &fileName)
{
    lastTime = Clock::now();
    if (!writer.open(fileName, nowUs())) {
        error = writer.errorString();
        return false;
    }
    aside = writer.putAside();
    try {
        thread = std::thread(&Recorder::run, this);
    } catch (const std::system_error &failure) {
        error = QString::fromLocal8Bit(failure.what());
        return false;
    }
    return true;
}

void Recorder::begin(quint64 connection, const Endpoints &endpoints)
{
    Entry entry;
    entry.type = Entry::Begin;
    entry.connection = connection;
    entry.endpoints = endpoints;
    enqueue(entry);
}

void Recorder::end(quint64 connection, quint64 position, const QByteArray &reason)
{
    Entry entry;
    entry.type = Entry::End;
    entry.connection = connection;
    entry.position = position;
    entry.reason = reason;
    enqueue(entry);
}

void Recorder::enqueue(const Entry &entry)
{
    {
        const std::lock_guard lock(mutex);
        noteOpen(entry); // also if it is lost
        const bool wasEmpty = queue.isEmpty();
        if (hasRoom(MostOverhead, queueLimit + ReserveBytes)) {
            Entry timed = entry;
            timed.elapsedUs = takeElapsed();
            appendEntry(queue, timed);
            wakeWriter(wasEmpty);
            return;
        }
    }
    noteLoss(0, 1, QStringLiteral("it is written too slowly"));
}

// Requires mutex.
void Recorder::noteOpen(const Entry &entry)
{
    if (entry.type == Entry::Begin)
        open.insert(entry.connection, entry.endpoints);
    else
        open.remove(entry.connection);
}

void Recorder::bytes(quint64 connection, quint64 position, QByteArrayView bytes)
{
    const qsizetype size = MostOverhead + (options.withPayload ? bytes.size() : 0);
    {
        const std::lock_guard lock(mutex);
        const bool wasEmpty = queue.isEmpty();
        if (hasRoom(size, queueLimit)) {
            appendBytes(queue, takeElapsed(), connection, position, bytes, options.withPayload);
            wakeWriter(wasEmpty);
            return;
        }
    }
    noteLoss(static_cast<quint64>(bytes.size()), 1, QStringLiteral("it is written too slowly"));
}

// Requires mutex. Where there is room again, the gap comes first. A single entry that is larger
// than the limit goes into an empty queue.
bool Recorder::hasRoom(qsizetype size, qsizetype limit)
{
    if (!queue.isEmpty() && queue.size() + size > limit)
        return false;
    if (lostEntries > 0)
        appendGap();
    return true;
}

// Requires mutex.
void Recorder::appendGap()
{
    Entry gap;
    gap.type = Entry::Gap;
    gap.elapsedUs = takeElapsed();
    gap.size = std::exchange(lostBytes, 0);
    gap.entries = std::exchange(lostEntries, 0);
    appendEntry(queue, gap);
    gapIsQueued = true;
}

// Requires mutex.
qint64 Recorder::takeElapsed()
{
    using std::chrono::microseconds;
    const auto elapsed = std::chrono::duration_cast<microseconds>(Clock::now() - lastTime);
    lastTime += elapsed; // what is left of a microsecond counts for the next entry
    return elapsed.count();
}

// Requires mutex.
void Recorder::wakeWriter(bool wasEmpty)
{
    if (wasEmpty || queue.size() >= EagerBytes)
        hasEntries.notify_one();
}

void Recorder::finish()
{
    if (!thread.joinable())
        return;
    {
        const std::lock_guard lock(mutex);
        isStopping = true;
    }
    writer.giveUpSoon();
    hasEntries.notify_one();
    thread.join();
    tellCutShort();
}

void Recorder::tellCutShort()
{
    quint64 missing = missingSoFar;
    {
        const std::lock_guard lock(mutex);
        if (!isDropping)
            return;
        missing += lostBytes;
    }
    if (notices.cutShort)
        notices.cutShort(missing);
}

void Recorder::run()
{
    std::unique_lock lock(mutex);
    while (waitForEntries(lock))
        writeQueue(lock);
    if (lostEntries == 0)
        return;
    appendGap(); // nothing came behind what is missing
    writeQueue(lock);
}

// False: nothing waits, and nothing more will come.
bool Recorder::waitForEntries(std::unique_lock<std::mutex> &lock)
{
    hasEntries.wait(lock, [this] { return isStopping || !queue.isEmpty(); });
    hasEntries.wait_for(lock, options.compress ? BlockGatherTime : GatherTime,
                        [this] { return isStopping || queue.size() >= EagerBytes; });
    return !queue.isEmpty();
}

// lock: of mutex; not held while writing.
void Recorder::writeQueue(std::unique_lock<std::mutex> &lock)
{
    emptyBuffer(batch);
    std::swap(batch, queue);
    openBehindGap = std::exchange(gapIsQueued, false) ? std::optional(open) : std::nullopt;
    lock.unlock();
    writeBatch();
    lock.lock();
}

void Recorder::writeBatch()
{
    if (!writer.write(batch, std::exchange(openBehindGap, {}))) {
        const Amount lost = amountIn(batch);
        return noteLoss(lost.bytes, lost.entries, writer.errorString());
    }
    {
        const std::lock_guard lock(mutex);
        if (!isDropping)
            return;
    }
    tellResumed();
}

// The end of what is missing is reached where its last gap is written.
void Recorder::tellResumed()
{
    const auto missing = missingBytes(batch);
    if (!missing)
        return;
    missingSoFar += *missing;
    {
        const std::lock_guard lock(mutex);
        isDropping = lostEntries > 0 || gapIsQueued;
        if (isDropping)
            return;
    }
    const quint64 all = std::exchange(missingSoFar, 0);
    if (notices.resumed)
        notices.resumed(all);
}

// Requires that mutex is not held.
void Recorder::noteLoss(quint64 lost, quint64 entries, const QString &reason)
{
    {
        const std::lock_guard lock(mutex);
        lostBytes += lost;
        lostEntries += entries;
        if (std::exchange(isDropping, true))
            return;
    }
    if (notices.dropping)
        notices.dropping(reason);
}

} // namespace recording
