// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#include "hostcheck/parser/parserprocess.h"

#include "hostcheck/parser/childwatch.h"

#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <limits>

#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

namespace hostcheck {
namespace {

// A call has used up its time when so many ticks of the processor's clock have found it running.
constexpr int TicksPerLimit = 4;
// Processor time for loading the shared object, if a call has less.
constexpr int LoadMs = 30000;
// messageEnds() gives so many bytes at a time, or all if nothing is consumed of them; a process of
// it makes so many calls.
constexpr qsizetype ChainWindow = 65536;
constexpr size_t ChainCalls = 65536;
// Each takes its whole time limit.
constexpr int MostEndless = 2;
// A crash counts as one of reading beyond the bytes if it was at most so far away.
constexpr qsizetype NearBytes = 4096;

using Consume = size_t (*)(const char *, size_t);

// How a process has ended. Running: it has not said so.
enum EndOfProcess : int { Running, Done, NotLoaded, Fatal, OutOfTime };

// Limited, so that the sum of all answers still fits.
qsizetype asValue(size_t answer)
{
    constexpr auto most = static_cast<size_t>(std::numeric_limits<qsizetype>::max() / 2);
    return static_cast<qsizetype>(std::min(answer, most));
}

//! What a process and its parent share. The parser may write anywhere into it.
struct Shared
{
    std::atomic<size_t> next; // the call that is made, or to be made
    std::atomic<int> end; // an EndOfProcess
    int signal;
    uintptr_t address; // of the access that was fatal
    char error[512]; // NotLoaded: the reason
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

} // namespace

//! How a process has ended, as its parent takes it.
struct ParserProcess::Ending
{
    EndOfProcess end = NotLoaded;
    size_t next = 0; // the call that was made; the number of all calls: none
    int signal = 0; // Fatal; 0: it has called exit()
    uintptr_t address = 0; // Fatal: of the access; 0: not known
    QString error; // NotLoaded: the reason
};

//! Calls, the memory of their input, and what has become of them.
class ParserProcess::Batch
{
public:
    Batch(const QByteArray &stream, const std::vector<Call> &list, Order listOrder);
    ~Batch();
    Q_DISABLE_COPY_MOVE(Batch)

    bool isUsable() const { return memory.isUsable() && shared; }
    Shared &state() const { return *shared; }
    size_t currentCall() const { return std::min(shared->next.load(), calls.size()); }
    // Before a process is started.
    void prepare();
    // In the process: makes the calls from the first one on.
    void makeCalls(const QByteArray &file, int limitMs);
    // In the parent: for the process that has ended with this status of waitpid().
    Ending endingOf(int status, bool isKilled) const;
    // Writes down what was returned, and the call that was fatal, if one was. Then the next process
    // begins behind it.
    void collect(const Ending &ending, std::vector<Outcome> &outcomes);
    bool isOver() const { return firstCall == calls.size(); }

private:
    // Where the first call of a chain begins.
    qsizetype chainBegin() const { return calls.empty() ? 0 : calls.front().begin; }
    Call callAt(size_t index, qsizetype position) const;
    size_t answerTo(Consume consume, const Call &call);
    Outcome fatalOutcome(const Ending &ending, const Call &call) const;

    const QByteArray &bytes;
    const std::vector<Call> &calls;
    const Order order;
    FencedBytes memory;
    size_t firstCall = 0; // the first call of a process; not shared
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

void ParserProcess::Batch::prepare()
{
    shared->next = firstCall;
    shared->end = Running;
}

void ParserProcess::Batch::makeCalls(const QByteArray &file, int limitMs)
{
    startClock(std::max(limitMs, LoadMs));
    void *library = dlopen(file.constData(), RTLD_NOW);
    const auto consume = library ? reinterpret_cast<Consume>(dlsym(library, "consume")) : nullptr;
    if (!consume) {
        std::strncpy(shared->error, dlerror(), sizeof shared->error - 1);
        shared->end = NotLoaded;
        return;
    }
    startClock(limitMs);
    qsizetype position = chainBegin();
    for (size_t i = firstCall; i < calls.size(); ++i) {
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

ParserProcess::Ending ParserProcess::Batch::endingOf(int status, bool isKilled) const
{
    Ending ending;
    ending.next = shared->next;
    if (ending.next < firstCall || ending.next > calls.size()) // overwritten by the parser
        ending.next = firstCall;
    const int said = isKilled ? OutOfTime : WIFEXITED(status) ? shared->end.load() : Running;
    const bool isAllDone = order == Order::Chained || ending.next == calls.size();
    if (said == NotLoaded && ending.next == firstCall && shared->error[0] != 0) {
        ending.error = QString::fromLocal8Bit(
                shared->error,
                static_cast<qsizetype>(strnlen(shared->error, sizeof shared->error)));
    } else if (said == OutOfTime || (said == Done && isAllDone)) {
        ending.end = static_cast<EndOfProcess>(said);
    } else {
        ending.end = Fatal;
        ending.signal = said == Fatal ? shared->signal : 0;
        ending.address = said == Fatal ? shared->address : 0;
        if (WIFSIGNALED(status))
            ending.signal = WTERMSIG(status);
    }
    return ending;
}

void ParserProcess::Batch::collect(const Ending &ending, std::vector<Outcome> &outcomes)
{
    qsizetype position = chainBegin();
    for (size_t i = firstCall; i < ending.next; ++i) {
        outcomes[i].kind = Outcome::Returned;
        outcomes[i].value = asValue(shared->values[i]);
        position = std::min(position + outcomes[i].value, bytes.size());
    }
    firstCall = ending.next;
    const bool isFatal = ending.end == Fatal || ending.end == OutOfTime;
    if (isFatal && !isOver())
        outcomes[firstCall++] = fatalOutcome(ending, callAt(ending.next, position));
}

Outcome ParserProcess::Batch::fatalOutcome(const Ending &ending, const Call &call) const
{
    Outcome outcome;
    if (ending.end == OutOfTime) {
        outcome.kind = Outcome::Endless;
        return outcome;
    }
    outcome.kind = Outcome::Crashed;
    outcome.signal = ending.signal;
    const char *begin = memory.position(static_cast<size_t>(call.size), call.fence);
    outcome.distance = static_cast<qsizetype>(ending.address - reinterpret_cast<uintptr_t>(begin));
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

std::vector<qsizetype> ParserProcess::messageEnds(const QByteArray &bytes)
{
    std::vector<qsizetype> ends;
    std::vector<Call> calls(ChainCalls);
    for (;;) {
        qsizetype &position = calls.front().begin;
        for (const Outcome &outcome : runIn(bytes, calls, Order::Chained, {}, 1)) {
            if (outcome.kind != Outcome::Returned || outcome.value == 0
                || outcome.value > bytes.size() - position)
                return ends;
            position += outcome.value;
            ends.push_back(position);
        }
    }
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
    int endless = 0;
    for (int fatal = 0; fatal < maximumFatal && endless < MostEndless; ++fatal) {
        const Ending ending = runProcess(batch, progress);
        batch.collect(ending, outcomes);
        if (ending.end == NotLoaded)
            lastError = ending.error;
        if (ending.end == Done || ending.end == NotLoaded || batch.isOver())
            break;
        endless += ending.end == OutOfTime ? 1 : 0;
    }
    return outcomes;
}

ParserProcess::Ending ParserProcess::runProcess(Batch &batch, const Progress &progress)
{
    batch.prepare();
    const pid_t process = fork();
    if (process == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        setpgid(0, 0);
        dup2(STDERR_FILENO, STDOUT_FILENO); // what a parser prints is no report
        current = &batch.state();
        catchFatalSignals();
        batch.makeCalls(fileName, timeLimitMs);
        _exit(0);
    }
    Ending ending;
    ending.error = QStringLiteral("no process can be started: ") + qt_error_string();
    if (process < 0)
        return ending;
    ChildWatch watch(process, timeLimitMs, std::max(standstillMs, timeLimitMs));
    ending.error = QStringLiteral("no process can be watched: ") + qt_error_string();
    const int status = watch.await([&] {
        const size_t call = batch.currentCall();
        if (progress)
            progress(call);
        return call;
    });
    return watch.isUsable() ? batch.endingOf(status, watch.hasKilled()) : ending;
}

} // namespace hostcheck
