// SPDX-FileCopyrightText: the tcpinputplugin2 authors
// SPDX-License-Identifier: MIT

#pragma once

#include <QtCore/QMutex>
#include <QtCore/QReadWriteLock>
#include <QtCore/QThread>

// Qt's locks, annotated: Clang proves at compile time that guarded members are used only under
// their lock. See https://clang.llvm.org/docs/ThreadSafetyAnalysis.html. Other compilers see plain
// Qt locks.
#if defined(__clang__)
#define TCPINPUT_ANNOTATE(attribute) __attribute__((attribute))
#else
#define TCPINPUT_ANNOTATE(attribute)
#endif
#define GUARDED_BY(lock) TCPINPUT_ANNOTATE(guarded_by(lock))
#define REQUIRES_LOCK(lock) TCPINPUT_ANNOTATE(requires_capability(lock))

//! As QMutex.
class TCPINPUT_ANNOTATE(capability("mutex")) Mutex
{
public:
    void lock() TCPINPUT_ANNOTATE(acquire_capability()) { mutex.lock(); }
    void unlock() TCPINPUT_ANNOTATE(release_capability()) { mutex.unlock(); }

private:
    QMutex mutex;
};

//! As QReadWriteLock.
class TCPINPUT_ANNOTATE(capability("mutex")) SharedMutex
{
public:
    void lockForRead() TCPINPUT_ANNOTATE(acquire_shared_capability()) { mutex.lockForRead(); }
    void lockForWrite() TCPINPUT_ANNOTATE(acquire_capability()) { mutex.lockForWrite(); }
    void unlockRead() TCPINPUT_ANNOTATE(release_shared_capability()) { mutex.unlock(); }
    void unlockWrite() TCPINPUT_ANNOTATE(release_capability()) { mutex.unlock(); }
    // For the thread that is the only writer: it may read without the lock.
    void assumeReadable() const TCPINPUT_ANNOTATE(assert_shared_capability()) {}

private:
    QReadWriteLock mutex;
};

//! Holds a mutex while it lives.
class TCPINPUT_ANNOTATE(scoped_lockable) MutexLocker
{
public:
    explicit MutexLocker(Mutex &held) TCPINPUT_ANNOTATE(acquire_capability(held)) : mutex(held)
    {
        mutex.lock();
    }
    ~MutexLocker() TCPINPUT_ANNOTATE(release_capability()) { mutex.unlock(); }
    Q_DISABLE_COPY_MOVE(MutexLocker)

private:
    Mutex &mutex;
};

class TCPINPUT_ANNOTATE(scoped_lockable) ReadLocker
{
public:
    explicit ReadLocker(SharedMutex &held) TCPINPUT_ANNOTATE(acquire_shared_capability(held))
        : mutex(held)
    {
        mutex.lockForRead();
    }
    ~ReadLocker() TCPINPUT_ANNOTATE(release_capability()) { mutex.unlockRead(); }
    Q_DISABLE_COPY_MOVE(ReadLocker)

private:
    SharedMutex &mutex;
};

class TCPINPUT_ANNOTATE(scoped_lockable) WriteLocker
{
public:
    explicit WriteLocker(SharedMutex &held) TCPINPUT_ANNOTATE(acquire_capability(held))
        : mutex(held)
    {
        mutex.lockForWrite();
    }
    ~WriteLocker() TCPINPUT_ANNOTATE(release_capability()) { mutex.unlockWrite(); }
    Q_DISABLE_COPY_MOVE(WriteLocker)

private:
    SharedMutex &mutex;
};
