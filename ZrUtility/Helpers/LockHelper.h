#pragma once

#include "ZrUtility/Export.h"
#include "platform/kernel.h"

// Interchangeable locks behind one interface, and the scoped holder that takes and releases them.
//
//     MutexLock lock;
//     if (!lock.Init()) return;         // once, by the owner
//     {
//         LockHelper hold(&lock);       // taken here
//         ...
//     }                                 // released here
//
// A lock is used only through LockHelper, may be taken again by the thread that holds it, and is released as often.
// Each taking and releasing, and the making and ending of each lock but NullLock, is written to the log with the lock's
// address. An order among several locks is the callers' business.
//
// A lock that was not initialised, or whose Init failed, counts its holds and excludes nobody; nothing says so later.
//
// Copies are member-wise and log nothing when they are made. A copied MutexLock or DebugMutexLock shares the handle,
// which the first of them that is destroyed closes. A copied CriticalSectionLock is another lock, in the state that the
// first one had. A copied holder releases the lock once more without having taken it.

// What a holder holds. Its operations are called with no requirement but that the object lives; from any thread.
class ZRUTILITY_API LockInterface {
public:
    LockInterface();
    LockInterface(const LockInterface&) = default;
    LockInterface& operator=(const LockInterface&) = default;
    virtual ~LockInterface();

    // Makes what the lock needs of the system. Nonzero on success, 0 on failure.
    virtual int Init() = 0;

protected:
    friend class LockHelper;

    virtual void LockImpl() = 0;
    virtual void UnlockImpl() = 0;

    void Lock();
    void Unlock();
    // How often the lock is held now, counting every hold of its owner. It changes only while the lock is held, so it
    // is exact as long as the lock excludes; where it does not, holds that meet may be miscounted.
    int GetLockCount();

private:
    LONG m_lockCount;
};

// A kernel mutex. Waits without limit; a mutex that its owner abandoned counts as taken.
class ZRUTILITY_API MutexLock : public LockInterface {
public:
    MutexLock();
    MutexLock(const MutexLock&) = default;
    MutexLock& operator=(const MutexLock&) = default;
    ~MutexLock() override;

    // A second call makes a new mutex and leaves the first one open.
    int Init() override;

protected:
    void LockImpl() override;
    void UnlockImpl() override;

private:
    HANDLE m_mutex;
};

// A kernel mutex that waits 30 seconds at most and then carries on as if it had the mutex, so that a dead-lock shows as
// a stall and a record in the log. The release that belongs to such a hold does nothing.
class ZRUTILITY_API DebugMutexLock : public LockInterface {
public:
    DebugMutexLock();
    DebugMutexLock(const DebugMutexLock&) = default;
    DebugMutexLock& operator=(const DebugMutexLock&) = default;
    ~DebugMutexLock() override;

    // As MutexLock has it.
    int Init() override;

protected:
    void LockImpl() override;
    void UnlockImpl() override;

private:
    HANDLE m_mutex;
};

// A critical section: the threads of one process, no handle, and no system call unless threads meet.
class ZRUTILITY_API CriticalSectionLock : public LockInterface {
public:
    CriticalSectionLock();
    CriticalSectionLock(const CriticalSectionLock&) = default;
    CriticalSectionLock& operator=(const CriticalSectionLock&) = default;
    ~CriticalSectionLock() override;

    // Always 1. A second call, which is for a section that nobody is in, makes it anew.
    int Init() override;

protected:
    void LockImpl() override;
    void UnlockImpl() override;

private:
    BOOL m_initialised;
    CRITICAL_SECTION m_section;
};

// No lock, for what one thread uses alone.
class ZRUTILITY_API NullLock : public LockInterface {
public:
    // Always 1.
    int Init() override;

protected:
    void LockImpl() override;
    void UnlockImpl() override;
};

// What has a lock to give. Not deleted through this interface.
class ZRUTILITY_API LockHelperInterface {
public:
    LockHelperInterface();

    // The lock that a holder is to take; may be NULL.
    virtual LockInterface* GetLockInterface() = 0;

protected:
    ~LockHelperInterface() = default;
};

// Holds a lock from its construction to its destruction. The lock is not owned and outlives the holder. A NULL lock, or
// a NULL provider or one that gives NULL, is no lock: then nothing is held and the count is 0.
class ZRUTILITY_API LockHelper {
public:
    // Returns once the lock is taken. When the thread is ended while it waits, nothing is held.
    LockHelper(LockInterface* lock);
    LockHelper(const LockHelper&) = default;
    LockHelper& operator=(const LockHelper&) = default;
    virtual ~LockHelper();

    // The lock's count of holds.
    int GetLockCount();

protected:
    // For holders that get their lock from an object.
    LockHelper(LockHelperInterface* provider);

private:
    LockInterface* m_lock;
};
