// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "hostcheck/parser/parserprocess.h"

#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>

#include <dlfcn.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace hostcheck {
namespace {

// A call has used up its time when so many ticks of the processor's clock have found it running.
constexpr int TicksPerLimit = 4;
// Without any progress for so long the process is killed: it sleeps, or the machine does.
constexpr int StandstillMs = 30000;
constexpr int ProgressIntervalMs = 100;
// consumeAll() gives so many bytes at a time, or all if nothing is consumed of them.
constexpr qsizetype ChainWindow = 65536;
// Each takes its whole time limit.
constexpr int MostEndless = 2;
// A crash counts as one of reading beyond the bytes if it was at most so far away.
constexpr qsizetype NearBytes = 4096;

using Consume = size_t (*)(const char *, size_t);

// What was left of a process that has not said how it ended.
enum EndOfProcess : int { Running, Done, NotLoaded, Fatal, OutOfTime };

// Limited, so that the sum of all answers still fits.
qsizetype asValue(size_t answer)
{
    constexpr auto most = static_cast<size_t>(std::numeric_limits<qsizetype>::max() / 2);
    return static_cast<qsizetype>(std::min(answer, most));
}

//! What a process and its parent share.
struct Shared
{
    std::atomic<size_t> next; // the call that is made, or to be made
    std::atomic<int> end; // an EndOfProcess
    int signal;
    uintptr_t address; // of the access that was fatal
    char error[512]; // NotLoaded: the reason
    size_t first; // the first call of this process
    size_t values[1]; // as many as there are calls
};

// For the signal handlers of the process that makes the calls. There is one at a time.
Shared *current = nullptr;
size_t callAtTick = 0;
int ticksOfCall = 0;

void onFatalSignal(int number, siginfo_t *info, void *)
{
    current->signal = number;
    current->address = reinterpret_cast<uintptr_t>(info->si_addr);
    current->end = Fatal;
    _exit(1);
}

void onTick(int)
{
    const size_t call = current->next;
    ticksOfCall = call == callAtTick ? ticksOfCall + 1 : 0;
    callAtTick = call;
    if (ticksOfCall < TicksPerLimit)
        return;
    current->end = OutOfTime;
    _exit(1);
}

void catchFatalSignals()
{
    static char stack[1U << 16U]; // the parser may have used up its own
    stack_t alternate = {};
    alternate.ss_sp = stack;
    alternate.ss_size = sizeof stack;
    sigaltstack(&alternate, nullptr);
    struct sigaction action = {};
    action.sa_sigaction = onFatalSignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP})
        sigaction(number, &action, nullptr);
}

// By processor time: a busy machine makes nothing endless.
void startClock(int limitMs)
{
    struct sigaction action = {};
    action.sa_handler = onTick;
    action.sa_flags = SA_ONSTACK | SA_RESTART;
    sigaction(SIGPROF, &action, nullptr);
    const int tickMs = std::max(limitMs / TicksPerLimit, 1);
    itimerval interval = {};
    interval.it_interval.tv_sec = tickMs / 1000;
    interval.it_interval.tv_usec = static_cast<suseconds_t>(tickMs % 1000) * 1000;
    interval.it_value = interval.it_interval;
    setitimer(ITIMER_PROF, &interval, nullptr);
}

// The descriptor is at its end when the process is. One that makes no progress is killed.
void awaitEnd(pid_t process, int descriptor, Shared &state, const ParserProcess::Progress &progress)
{
    size_t seen = state.next;
    int stillMs = 0;
    pollfd ended = {descriptor, POLLIN, 0};
    while (poll(&ended, 1, ProgressIntervalMs) <= 0) {
        stillMs = state.next == seen ? stillMs + ProgressIntervalMs : 0;
        seen = state.next;
        if (progress)
            progress(seen);
        if (stillMs < StandstillMs)
            continue;
        state.end = OutOfTime;
        kill(process, SIGKILL);
    }
    int status = 0;
    while (waitpid(process, &status, 0) < 0 && errno == EINTR) {}
    if (state.end != Running)
        return;
    state.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0; // 0: it has called exit()
    state.address = 0;
    state.end = Fatal;
}

} // namespace

//! Calls, the memory of their input, and what has become of them.
class ParserProcess::Batch
{
public:
    Batch(const QByteArray &stream, const std::vector<Call> &list, Order listOrder);
    ~Batch();
    Q_DISABLE_COPY_MOVE(Batch)

    bool isUsable() const { return memory.isUsable() && shared; }
    Shared &state() const { return *shared; }
    // In the process: makes the calls from the first one on.
    void makeCalls(const QByteArray &file, int limitMs);
    // Writes down what was returned, and the call that was fatal, if one was. Then the next process
    // begins behind it.
    void collect(std::vector<Outcome> &outcomes) const;

private:
    Call callAt(size_t index, qsizetype position) const;
    size_t answerTo(Consume consume, const Call &call);
    Outcome fatalOutcome(const Call &call) const;

    const QByteArray &bytes;
    const std::vector<Call> &calls;
    const Order order;
    FencedBytes memory;
    size_t sharedSize;
    Shared *shared = nullptr; // null: there was no memory
};

ParserProcess::Batch::Batch(const QByteArray &stream, const std::vector<Call> &list,
                            Order listOrder)
    : bytes(stream),
      calls(list),
      order(listOrder),
      memory(static_cast<size_t>(stream.size())),
      sharedSize(sizeof(Shared) + list.size() * sizeof(size_t))
{
    void *mapped =
            mmap(nullptr, sharedSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (mapped != MAP_FAILED)
        shared = new (mapped) Shared{};
}

ParserProcess::Batch::~Batch()
{
    if (shared)
        munmap(shared, sharedSize);
}

Call ParserProcess::Batch::callAt(size_t index, qsizetype position) const
{
    if (order == Order::Chained)
        return {position, bytes.size() - position, Fence::Behind};
    return calls[index];
}

size_t ParserProcess::Batch::answerTo(Consume consume, const Call &call)
{
    const char *first = bytes.constData() + call.begin;
    // To give all that follows with each message would take quadratic time.
    if (order == Order::Chained && call.size > ChainWindow) {
        const auto window = static_cast<size_t>(ChainWindow);
        if (const size_t answer = consume(memory.place(first, window, call.fence), window))
            return answer;
    }
    const auto size = static_cast<size_t>(call.size);
    return consume(memory.place(first, size, call.fence), size);
}

void ParserProcess::Batch::makeCalls(const QByteArray &file, int limitMs)
{
    void *library = dlopen(file.constData(), RTLD_NOW);
    const auto consume = library ? reinterpret_cast<Consume>(dlsym(library, "consume")) : nullptr;
    if (!consume) {
        std::strncpy(shared->error, dlerror(), sizeof shared->error - 1);
        shared->end = NotLoaded;
        return;
    }
    startClock(limitMs);
    qsizetype position = 0;
    for (size_t i = shared->first; i < calls.size(); ++i) {
        const Call call = callAt(i, position);
        const size_t answer = answerTo(consume, call);
        shared->values[i] = answer;
        shared->next = i + 1;
        const bool isOver = answer == 0 || asValue(answer) > call.size;
        if (order == Order::Chained && isOver)
            break;
        position += asValue(answer);
    }
    shared->end = Done;
}

void ParserProcess::Batch::collect(std::vector<Outcome> &outcomes) const
{
    const size_t next = shared->next;
    qsizetype position = 0;
    for (size_t i = shared->first; i < next; ++i) {
        outcomes[i].kind = Outcome::Returned;
        outcomes[i].value = asValue(shared->values[i]);
        position += outcomes[i].value;
    }
    const bool isFatal = shared->end == Fatal || shared->end == OutOfTime;
    if (!isFatal || next == calls.size())
        return;
    outcomes[next] = fatalOutcome(callAt(next, position));
    shared->next = next + 1;
}

Outcome ParserProcess::Batch::fatalOutcome(const Call &call) const
{
    Outcome outcome;
    if (shared->end == OutOfTime) {
        outcome.kind = Outcome::Endless;
        return outcome;
    }
    outcome.kind = Outcome::Crashed;
    outcome.signal = shared->signal;
    const char *first = memory.position(static_cast<size_t>(call.size), call.fence);
    outcome.distance = static_cast<qsizetype>(shared->address - reinterpret_cast<uintptr_t>(first));
    outcome.isNearBytes =
            outcome.distance >= -NearBytes && outcome.distance <= call.size + NearBytes;
    return outcome;
}

ParserProcess::ParserProcess(const QString &file, int limitMs)
    : fileName(QFile::encodeName(QFileInfo(file).absoluteFilePath())),
      timeLimitMs(limitMs)
{}

QString ParserProcess::loadError()
{
    runIn({}, {}, Order::Listed, {}, 1);
    return lastError;
}

std::vector<Outcome> ParserProcess::run(const QByteArray &bytes, const std::vector<Call> &calls,
                                        const Progress &progress, int maximumFatal)
{
    return runIn(bytes, calls, Order::Listed, progress, maximumFatal);
}

std::vector<Outcome> ParserProcess::consumeAll(const QByteArray &bytes)
{
    std::vector<Call> calls(static_cast<size_t>(bytes.size()) + 1);
    std::vector<Outcome> outcomes = runIn(bytes, calls, Order::Chained, {}, 1);
    const auto unused = std::find_if(outcomes.begin(), outcomes.end(), [](const Outcome &outcome) {
        return outcome.kind == Outcome::NotRun;
    });
    outcomes.erase(unused, outcomes.end());
    return outcomes;
}

std::vector<Outcome> ParserProcess::runIn(const QByteArray &bytes, const std::vector<Call> &calls,
                                          Order order, const Progress &progress, int maximumFatal)
{
    std::vector<Outcome> outcomes(calls.size());
    Batch batch(bytes, calls, order);
    if (!batch.isUsable()) {
        lastError = QStringLiteral("out of memory");
        return outcomes;
    }
    const Shared &state = batch.state();
    int endless = 0;
    for (int fatal = 0; fatal < maximumFatal && endless < MostEndless; ++fatal) {
        runProcess(batch, progress);
        batch.collect(outcomes);
        lastError = state.end == NotLoaded ? QString::fromLocal8Bit(state.error) : QString();
        if (state.end == Done || state.end == NotLoaded || state.next == calls.size())
            break;
        endless += state.end == OutOfTime ? 1 : 0;
    }
    return outcomes;
}

void ParserProcess::runProcess(Batch &batch, const Progress &progress)
{
    Shared &state = batch.state();
    state.first = state.next;
    state.end = Running;
    int ends[2] = {-1, -1}; // closed by the kernel when the process ends, however it ends
    const pid_t process = pipe(ends) == 0 ? fork() : -1;
    if (process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(STDERR_FILENO, STDOUT_FILENO); // what a parser prints is no report
        current = &state;
        catchFatalSignals();
        batch.makeCalls(fileName, timeLimitMs);
        _exit(0);
    }
    close(ends[1]);
    if (process > 0)
        awaitEnd(process, ends[0], state, progress);
    else
        std::strncpy(state.error, "no process can be started", sizeof state.error - 1);
    if (process < 0)
        state.end = NotLoaded;
    close(ends[0]);
}

} // namespace hostcheck
