#include "ZrUtility/BufferStream.h"

#include <algorithm>
#include <cstring>
#include <limits>

#include "platform/base.h"

const unsigned int BufferStream::LAZY_CAPACITY = 4096;

namespace {

constexpr unsigned int kLargest = std::numeric_limits<unsigned int>::max();
constexpr SIZE_T kNoSize = static_cast<SIZE_T>(-1);

// A block's size as a stream counts it; `otherwise` when the heap does not say.
unsigned int blockSize(const void* block, unsigned int otherwise) {
    const SIZE_T size = HeapSize(GetProcessHeap(), 0, block);
    return size == kNoSize ? otherwise : static_cast<unsigned int>(std::min<SIZE_T>(size, kLargest));
}

// Where `from` lies in a block, or kNoSize when it lies elsewhere.
SIZE_T offsetIn(const unsigned char* block, unsigned int capacity, const void* from) {
    const auto start = reinterpret_cast<std::uintptr_t>(block);
    const auto at = reinterpret_cast<std::uintptr_t>(from);
    return block != nullptr && at >= start && at - start < capacity ? at - start : kNoSize;
}

}  // namespace

BufferStream::BufferStream()
    : m_nRefCount(1),
      m_nLength(0),
      m_nPosition(0),
      m_nCapacity(0),
      m_pBuffer(static_cast<unsigned char*>(HeapAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, LAZY_CAPACITY))),
      m_pReleaseCallback(nullptr),
      m_pReleaseContext(nullptr),
      m_bGoing(false) {
    if (m_pBuffer != nullptr) m_nCapacity = blockSize(m_pBuffer, 0);
}

BufferStream::~BufferStream() {
    m_bGoing = true;
    if (m_pReleaseCallback != nullptr) m_pReleaseCallback(this, m_pReleaseContext);
    HeapFree(GetProcessHeap(), 0, m_pBuffer);
}

HRESULT BufferStream::QueryInterface(REFIID, void** object) {
    if (object == nullptr) return E_POINTER;
    *object = nullptr;
    return E_NOINTERFACE;
}

ULONG BufferStream::AddRef() {
    return static_cast<ULONG>(InterlockedIncrement(&m_nRefCount));
}

ULONG BufferStream::Release() {
    const LONG count = InterlockedDecrement(&m_nRefCount);
    if (count == 0 && !m_bGoing) delete this;
    return static_cast<ULONG>(count);
}

HRESULT BufferStream::Read(void* to, ULONG count, ULONG* read) {
    if (to == nullptr) return E_POINTER;
    const unsigned int copied = std::min(count, remaining());
    if (copied != 0) std::memcpy(to, m_pBuffer + m_nPosition, copied);
    m_nPosition += copied;
    if (read != nullptr) *read = copied;
    return S_OK;
}

HRESULT BufferStream::Write(const void* from, ULONG count, ULONG* written) {
    if (written != nullptr) *written = 0;
    if (from == nullptr) return E_POINTER;
    if (count > remaining()) {
        const SIZE_T own = offsetIn(m_pBuffer, m_nCapacity, from);
        if (FAILED(Ensure(count - remaining()))) return E_OUTOFMEMORY;
        if (own != kNoSize) from = m_pBuffer + own;
    }
    const unsigned int copied = std::min(count, m_nCapacity - m_nPosition);
    if (copied != 0) std::memmove(m_pBuffer + m_nPosition, from, copied);
    m_nPosition += copied;
    m_nLength = std::max(m_nLength, m_nPosition);
    if (written != nullptr) *written = copied;
    return copied == count ? S_OK : E_OUTOFMEMORY;
}

HRESULT BufferStream::Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* newPosition) {
    const LONGLONG length = m_nLength;
    const LONGLONG position = m_nPosition;
    const LONGLONG offset = move.QuadPart;
    LONGLONG target = position;
    // Bounds are checked before anything is added, as an offset may be as far off as 64 bits go.
    if (origin == STREAM_SEEK_SET || origin == STREAM_SEEK_END) {
        if (offset < 0 || offset > length) return STG_E_INVALIDFUNCTION;
        target = origin == STREAM_SEEK_SET ? offset : length - offset;
    } else if (origin == STREAM_SEEK_CUR) {
        if (offset < -position || offset > length - position) return STG_E_INVALIDFUNCTION;
        target = position + offset;
    }
    m_nPosition = static_cast<unsigned int>(target);
    if (newPosition != nullptr) newPosition->QuadPart = m_nPosition;
    return S_OK;
}

HRESULT BufferStream::SetSize(ULARGE_INTEGER size) {
    if (size.QuadPart > kLargest) return E_OUTOFMEMORY;
    const auto length = static_cast<unsigned int>(size.QuadPart);
    if (FAILED(Ensure(length))) return E_OUTOFMEMORY;
    m_nLength = length;
    m_nPosition = std::min(m_nPosition, m_nLength);
    return S_OK;
}

HRESULT BufferStream::CopyTo(IStream* target, ULARGE_INTEGER count, ULARGE_INTEGER* read, ULARGE_INTEGER* written) {
    if (target == nullptr) return E_POINTER;
    const auto offered = static_cast<ULONG>(std::min<ULONGLONG>(count.QuadPart, m_nLength));
    ULONG taken = 0;
    const HRESULT result = target->Write(m_pBuffer, offered, &taken);
    if (read != nullptr) read->QuadPart = offered;
    if (written != nullptr) written->QuadPart = taken;
    return result;
}

HRESULT BufferStream::Commit(DWORD) {
    return E_NOTIMPL;
}

HRESULT BufferStream::Revert() {
    return E_NOTIMPL;
}

HRESULT BufferStream::LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) {
    return E_NOTIMPL;
}

HRESULT BufferStream::UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) {
    return E_NOTIMPL;
}

HRESULT BufferStream::Stat(STATSTG* stat, DWORD flag) {
    if (stat == nullptr) return E_POINTER;
    if (flag != STATFLAG_NONAME) return E_NOTIMPL;
    *stat = {};
    stat->type = STGTY_PROPERTY;
    stat->cbSize.QuadPart = m_nLength;
    return S_OK;
}

HRESULT BufferStream::Clone(IStream**) {
    return E_NOTIMPL;
}

HRESULT BufferStream::Delete(ULONG count) {
    if (m_nPosition > m_nLength) return STG_E_INVALIDFUNCTION;
    const unsigned int removed = std::min(count, remaining());
    if (removed == 0) return S_OK;
    unsigned char* at = m_pBuffer + m_nPosition;
    std::memmove(at, at + removed, remaining() - removed);
    m_nLength -= removed;
    return S_OK;
}

HRESULT BufferStream::Insert(const void* from, ULONG count) {
    if (from == nullptr) return E_POINTER;
    if (count == 0) return S_OK;
    const SIZE_T own = offsetIn(m_pBuffer, m_nCapacity, from);
    if (const HRESULT result = Ensure(count); FAILED(result)) return result;
    unsigned char* at = m_pBuffer + m_nPosition;
    unsigned char* end = m_pBuffer + m_nLength;
    if (own != kNoSize) {
        std::memmove(end, m_pBuffer + own, count);
        std::rotate(at, end, end + count);
    } else {
        std::memmove(at + count, at, remaining());
        std::memcpy(at, from, count);
    }
    m_nLength += count;
    m_nPosition += count;
    return S_OK;
}

HRESULT BufferStream::Ensure(unsigned int count) {
    const unsigned int free = m_nCapacity - m_nLength;
    if (count <= free) return S_OK;
    const ULONGLONG wanted = ULONGLONG{m_nCapacity} + LAZY_CAPACITY - free + count;
    if (m_pBuffer == nullptr || wanted > kLargest) return E_FAIL;
    void* block = HeapReAlloc(GetProcessHeap(), HEAP_ZERO_MEMORY, m_pBuffer, static_cast<SIZE_T>(wanted));
    if (block == nullptr) {
        loseBlock();
        return E_FAIL;
    }
    m_pBuffer = static_cast<unsigned char*>(block);
    const unsigned int size = blockSize(block, 0);
    if (size == 0) return E_FAIL;
    m_nCapacity = size;
    return S_OK;
}

void BufferStream::Reset() {
    if (m_nCapacity != 0) std::memset(m_pBuffer, 0, m_nCapacity);
    m_nLength = 0;
    m_nPosition = 0;
}

void BufferStream::SetReleaseCallBack(void (*callback)(BufferStream*, void*), void* context) {
    m_pReleaseCallback = callback;
    m_pReleaseContext = context;
}

// The bytes of data from the position on.
unsigned int BufferStream::remaining() const {
    return m_nPosition < m_nLength ? m_nLength - m_nPosition : 0;
}

// What the fields say must never be more than the block there is.
void BufferStream::loseBlock() {
    HeapFree(GetProcessHeap(), 0, m_pBuffer);
    m_pBuffer = nullptr;
    m_nCapacity = 0;
    m_nLength = 0;
    m_nPosition = 0;
}
