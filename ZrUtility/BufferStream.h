#pragma once

#include "ZrUtility/Export.h"
#include "platform/com.h"

// A byte stream in one growable block of the process heap, with the platform's IStream interface. Beyond IStream it
// inserts and deletes in the middle, hands out its block, and can tell an owner that it is about to go.
//
// It may live on the stack, or on the heap under its reference count, which starts at 1. Sizes and offsets are 32 bits:
// a stream that would pass 4 GB fails as if memory were short. Only the reference count is safe to use from several
// threads; all else expects one thread at a time.
//
// A stream whose block could not be allocated, or was lost when it could not grow, is empty and stays so: it has no
// capacity, GetBuffer() is NULL and Ensure() fails for all but 0.
//
// Copies are shallow: a copy shares the block and carries the reference count's value, so only one of the two may be
// changed or destroyed.
class ZRUTILITY_API BufferStream : public IStream {
public:
    // The size of the first block, and the spare room added at each growth, in bytes.
    static const unsigned int LAZY_CAPACITY;

    BufferStream();
    BufferStream(const BufferStream&) = default;
    BufferStream& operator=(const BufferStream&) = default;

    // E_NOINTERFACE and *object = NULL for every interface, IUnknown and IStream too: the stream is used through
    // pointers to itself only. E_POINTER for a NULL `object`.
    HRESULT QueryInterface(REFIID riid, void** object) override;
    ULONG AddRef() override;
    // The last one deletes the stream.
    ULONG Release() override;

    // Copies what is left after the position, at most `count` bytes, and moves the position past it. S_OK also at the
    // end, with *read 0. E_POINTER for a NULL `to`. `read` may be NULL.
    HRESULT Read(void* to, ULONG count, ULONG* read) override;
    // Writes over what follows the position and extends the stream. E_POINTER for a NULL `from`; E_OUTOFMEMORY, with
    // *written 0, when the stream cannot grow. `written` may be NULL; `from` may lie in the stream's own data.
    HRESULT Write(const void* from, ULONG count, ULONG* written) override;
    // From the start (origin 0) or the position (1), `move` counts forwards; from the end (2) it counts backwards, so
    // 10 is ten bytes before the end. Another origin asks where the position is. STG_E_INVALIDFUNCTION, and no move,
    // for a target before the start or beyond the length. `newPosition` may be NULL.
    HRESULT Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* newPosition) override;
    // Makes room for `size` bytes after the data, then sets the length, pulling the position back to it if need be.
    // Bytes that appear are what the block holds there: zero in a part that was never used. E_OUTOFMEMORY when there is
    // no room.
    HRESULT SetSize(ULARGE_INTEGER size) override;
    // Writes the first `count` bytes of the stream, whatever the position, to `target` in one piece, and returns the
    // target's result. *read is the number of bytes offered, *written the target's count; both may be NULL. E_POINTER
    // for a NULL target.
    HRESULT CopyTo(IStream* target, ULARGE_INTEGER count, ULARGE_INTEGER* read, ULARGE_INTEGER* written) override;
    // These four and Clone: E_NOTIMPL.
    HRESULT Commit(DWORD flags) override;
    HRESULT Revert() override;
    HRESULT LockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER count, DWORD type) override;
    HRESULT UnlockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER count, DWORD type) override;
    // Type 4 and the length, all else zero. Only STATFLAG_NONAME is served, otherwise E_NOTIMPL. E_POINTER for a NULL
    // `stat`.
    HRESULT Stat(STATSTG* stat, DWORD flag) override;
    HRESULT Clone(IStream** stream) override;

    // Calls the release callback, then frees the block. The callback finds the reference count as it was (0 after the
    // last Release); references taken or given back there change it and nothing else, balanced or not.
    virtual ~BufferStream();

    // Removes the bytes at the position, at most `count`; the position stays. STG_E_INVALIDFUNCTION when the position
    // is beyond the length.
    virtual HRESULT Delete(ULONG count);
    // Inserts at the position and moves the position past what was inserted. E_POINTER for a NULL `from`; E_FAIL when
    // the stream cannot grow. `from` may lie in the stream's own data.
    virtual HRESULT Insert(const void* from, ULONG count);

    // Makes room for `count` more bytes after the data: 0 need none. S_OK or E_FAIL; when the heap refuses the larger
    // block, the old one is freed, and the stream is empty from then on.
    HRESULT Ensure(unsigned int count);
    // Zeroes the whole block; length and position become 0.
    void Reset();

    // The block: the stream's until it grows or goes.
    unsigned char* GetBuffer() { return m_pBuffer; }
    unsigned int GetLength() { return m_nLength; }
    unsigned int GetCurrentPos() { return m_nPosition; }
    // The size of the block, not of the data.
    unsigned int GetSize() { return m_nCapacity; }
    int IsEndOfStream() { return m_nLength <= m_nPosition ? 1 : 0; }

    // The destructor will call `callback` with the stream and `context`; NULL for none.
    void SetReleaseCallBack(void (*callback)(BufferStream*, void*), void* context);

private:
    unsigned int remaining() const;
    void loseBlock();

    LONG m_nRefCount;
    unsigned int m_nLength;
    unsigned int m_nPosition;
    unsigned int m_nCapacity;
    unsigned char* m_pBuffer;
    void (*m_pReleaseCallback)(BufferStream*, void*);
    void* m_pReleaseContext;
    bool m_bGoing;  // the destructor has begun
};
