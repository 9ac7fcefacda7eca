#pragma once

#include <cstring>
#include <typeinfo>

#include "ZrUtility/Export.h"

// A packed array of elements that all have the same number of bytes, in one buffer.
//
// An array that owns its buffer grows by the same number of bytes whenever it is full: half of the capacity it was made
// with, one element at least. So choose the capacity near the number that is expected; many elements in an array made
// for few cost a reallocation each few appends. An array in a caller's buffer never grows, and then an append replaces
// the last element: see acquireSlot().
//
// Elements are bytes: they are moved with the buffer, never constructed or destroyed. A growth moves them, so an
// element's address is good until the next acquireSlot() or appendElement() only.
//
// Copies are shallow: a copy shares its source's buffer, the right to free it included, so only one of the two may be
// destroyed, and neither may be used once the other has grown. Not thread-safe.
class ZRUTILITY_API ZrArray {
public:
    // An empty array in a buffer of its own with room for `capacity` elements, all zero. It starts without room, as
    // with a capacity of 0, when memory is short, when one of the two numbers is negative, or when the bytes are more
    // than an int counts. An array whose elements have less than one byte never takes one.
    ZrArray(int elementSize, int capacity);
    // An array in `buffer`, of `totalSize` bytes, of which the first `count` elements, which must fit into them, are in
    // use already; the others need not be zero. `owned`: the buffer comes from malloc, calloc or realloc, and the array
    // grows and frees it. Otherwise it stays the caller's and must outlive the array. NULL is an array that takes no
    // element, unless it is owned and has no bytes.
    ZrArray(void* buffer, int elementSize, int count, int totalSize, bool owned);
    ZrArray(const ZrArray&) = default;
    ZrArray& operator=(const ZrArray&) = default;
    // Frees the buffer if it is owned.
    virtual ~ZrArray();

    // The next free element, zeroed, which counts as in use from now on. When there is no room and the array cannot
    // grow (the log says so), the last element in use as it is, and the count stays. NULL when there is no such element
    // either, or no buffer any more.
    virtual void* acquireSlot();
    // Closes the gap. 1; 0 when there is no such element. The bytes of the place that falls free stay as they were.
    virtual int removeElement(int index);
    // Takes all elements out and zeroes the whole buffer.
    virtual void reset();
    // Frees the buffer with free(), even one that is not owned: only for what malloc, calloc or realloc gave. The count
    // and the sizes stay; of the elements nothing is left, and none is taken any more.
    virtual void destroy();

    // Copies the element's bytes into what acquireSlot() gives: so in a full array that cannot grow they replace the
    // last element, and that is success. 1; 0 when there is no slot at all, which the log tells, or for NULL. The
    // element may be one of this array.
    int appendElement(const void* element);
    // The index is not checked: one that is not below the count gives an address that must not be read. NULL without a
    // buffer.
    void* getElementByIndex(int index);
    int getNumberOfElement() { return m_nCount; }
    int getSizeOfElement() { return m_nElementSize; }
    // The size of the buffer, and of the elements in use, in bytes.
    int getTotalSize() { return m_nTotalSize; }
    int getNumberOfBytes() { return m_nCount * m_nElementSize; }
    void* getArray() { return m_pData; }

private:
    void init();
    bool hasRoom() const;
    bool grow();
    unsigned char* takeSlot(int size);
    template <int size>
    int appendBytes(const void* element);
    int appendToAcquired(const void* element);

    unsigned char* m_pData;
    unsigned char* m_pNext;  // the first free byte
    int m_nElementSize;
    int m_nCount;
    int m_nTotalSize;
    bool m_bOwned;
    int m_nGrowBy;  // bytes; 0 when not owned
};

// A multiple of the element's size, and widened first: the address is right for any array that memory can hold.
inline void* ZrArray::getElementByIndex(int index) {
    return m_pData != nullptr ? m_pData + static_cast<long long>(m_nElementSize) * index : nullptr;
}

inline unsigned char* ZrArray::takeSlot(int size) {
    unsigned char* slot = m_pNext;
    ++m_nCount;
    m_pNext += size;
    return slot;
}

// The size as a constant needs no call to clear and copy.
template <int size>
inline int ZrArray::appendBytes(const void* element) {
    if (m_pData == nullptr || m_pData + m_nTotalSize - m_pNext < size) return appendToAcquired(element);
    unsigned char* slot = takeSlot(size);
    std::memset(slot, 0, size);
    std::memmove(slot, element, size);
    return 1;
}

inline int ZrArray::appendElement(const void* element) {
    // Nearly always the array is of this very class and has room, and then nothing needs to be called. The addresses of
    // one type's information may differ between libraries; that only costs the call.
    if (element == nullptr || &typeid(*this) != &typeid(ZrArray)) return appendToAcquired(element);
    // Where the compiler sees the element, it would warn of the sizes that are not its own.
    __asm__("" : "+r"(element));
    switch (m_nElementSize) {
        case 4:
            return appendBytes<4>(element);
        case 8:
            return appendBytes<8>(element);
        case 16:
            return appendBytes<16>(element);
        default:
            return appendToAcquired(element);
    }
}
