#include "ZrUtility/Helpers/LockHelper.h"

#include <atomic>

#include "ZrLog/ZrLog.h"

namespace {

constexpr const char* LOG_SOURCE = ".\\Helpers\\LockHelper.cppzrwindowsmobile";
constexpr std::uint32_t LOG_TRACE = zrLogCategory(0x98, kZrLogTrace);

// The lines by which readers of the log know these records.
constexpr int LINE_LOCK = 12;
constexpr int LINE_LOCKED = 15;
constexpr int LINE_UNLOCK = 20;
constexpr int LINE_MUTEX_MADE = 28;
constexpr int LINE_MUTEX_ENDED = 32;
constexpr int LINE_DEBUG_MUTEX_MADE = 62;
constexpr int LINE_DEBUG_MUTEX_ENDED = 66;
constexpr int LINE_DEBUG_MUTEX_WAITED = 84;
constexpr int LINE_SECTION_MADE = 100;
constexpr int LINE_SECTION_ENDED = 104;

constexpr DWORD DEBUG_MUTEX_PATIENCE = 30000;  // milliseconds

void LogLock(int line, const LockInterface* lock) {
    if (zrLogIsWanted()) zrKelDebugBinLog1(LOG_SOURCE, line, LOG_TRACE, reinterpret_cast<std::uintptr_t>(lock));
}

void LogCount(int line, const LockInterface* lock, LONG count) {
    if (!zrLogIsWanted()) return;
    zrKelDebugBinLog2(LOG_SOURCE, line, LOG_TRACE, reinterpret_cast<std::uintptr_t>(lock), static_cast<ULONG>(count));
}

// The holder alone changes the count, so it is a plain addition; but where a lock lets two in they may meet here.
LONG AddTo(LONG& count, LONG difference) {
    const std::atomic_ref<LONG> shared(count);
    const LONG sum = shared.load(std::memory_order_relaxed) + difference;
    shared.store(sum, std::memory_order_relaxed);
    return sum;
}

}  // namespace

LockInterface::LockInterface() : m_lockCount(0) {}

LockInterface::~LockInterface() = default;

void LockInterface::Lock() {
    LogLock(LINE_LOCK, this);
    LockImpl();
    LogCount(LINE_LOCKED, this, AddTo(m_lockCount, 1));
}

void LockInterface::Unlock() {
    LogCount(LINE_UNLOCK, this, AddTo(m_lockCount, -1));
    UnlockImpl();
}

int LockInterface::GetLockCount() {
    return std::atomic_ref<LONG>(m_lockCount).load(std::memory_order_relaxed);
}

// ---- MutexLock

MutexLock::MutexLock() : m_mutex(nullptr) {
    LogLock(LINE_MUTEX_MADE, this);
}

MutexLock::~MutexLock() {
    LogLock(LINE_MUTEX_ENDED, this);
    if (m_mutex != nullptr) CloseHandle(m_mutex);
}

int MutexLock::Init() {
    m_mutex = CreateMutexW(nullptr, FALSE, nullptr);
    return m_mutex != nullptr ? 1 : 0;
}

void MutexLock::LockImpl() {
    if (m_mutex != nullptr) WaitForSingleObject(m_mutex, INFINITE);
}

void MutexLock::UnlockImpl() {
    if (m_mutex != nullptr) ReleaseMutex(m_mutex);
}

// ---- DebugMutexLock

DebugMutexLock::DebugMutexLock() : m_mutex(nullptr) {
    LogLock(LINE_DEBUG_MUTEX_MADE, this);
}

DebugMutexLock::~DebugMutexLock() {
    LogLock(LINE_DEBUG_MUTEX_ENDED, this);
    if (m_mutex != nullptr) CloseHandle(m_mutex);
}

int DebugMutexLock::Init() {
    m_mutex = CreateMutexW(nullptr, FALSE, nullptr);
    return m_mutex != nullptr ? 1 : 0;
}

void DebugMutexLock::LockImpl() {
    if (m_mutex == nullptr) return;
    WaitForSingleObject(m_mutex, DEBUG_MUTEX_PATIENCE);
    LogLock(LINE_DEBUG_MUTEX_WAITED, this);
}

void DebugMutexLock::UnlockImpl() {
    if (m_mutex != nullptr) ReleaseMutex(m_mutex);
}

// ---- CriticalSectionLock

CriticalSectionLock::CriticalSectionLock() : m_initialised(FALSE), m_section() {
    LogLock(LINE_SECTION_MADE, this);
}

CriticalSectionLock::~CriticalSectionLock() {
    LogLock(LINE_SECTION_ENDED, this);
    if (m_initialised != FALSE) DeleteCriticalSection(&m_section);
}

int CriticalSectionLock::Init() {
    InitializeCriticalSection(&m_section);
    m_initialised = TRUE;
    return 1;
}

void CriticalSectionLock::LockImpl() {
    if (m_initialised != FALSE) EnterCriticalSection(&m_section);
}

void CriticalSectionLock::UnlockImpl() {
    if (m_initialised != FALSE) LeaveCriticalSection(&m_section);
}

// ---- NullLock

int NullLock::Init() {
    return 1;
}

void NullLock::LockImpl() {}

void NullLock::UnlockImpl() {}

// ---- Holders

LockHelperInterface::LockHelperInterface() = default;

LockHelper::LockHelper(LockInterface* lock) : m_lock(lock) {
    if (m_lock != nullptr) m_lock->Lock();
}

LockHelper::LockHelper(LockHelperInterface* provider) : m_lock(nullptr) {
    if (provider == nullptr) return;
    m_lock = provider->GetLockInterface();
    if (m_lock != nullptr) m_lock->Lock();
}

LockHelper::~LockHelper() {
    if (m_lock != nullptr) m_lock->Unlock();
}

int LockHelper::GetLockCount() {
    return m_lock != nullptr ? m_lock->GetLockCount() : 0;
}
