#pragma once

#include "ZrUtility/Export.h"
#include "ZrUtility/ZrIterator.h"

// Iterators over packed arrays: any that a caller has, or the one inside a ZrArray (getArray(), getSizeOfElement(),
// getNumberOfElement()). They hold the array's address and count as they were at the start, own nothing, and are
// invalid once the array has moved. Unlike other iterators they do not check the end: next() is for when hasNext() has
// said 1. Copies walk on their own from where their source stood.

// Yields the address of each element.
class ZRUTILITY_API ArrayIterator : public ZrIterator {
public:
    ArrayIterator(void* array, int elementSize, int count) noexcept
        : m_pArray(static_cast<unsigned char*>(array)), m_nElementSize(elementSize), m_nCount(count), m_nPosition(0) {}
    ArrayIterator(const ArrayIterator&) = default;
    ArrayIterator& operator=(const ArrayIterator&) = default;

    int hasNext() override { return m_nPosition < m_nCount ? 1 : 0; }
    void* next() override { return m_pArray + static_cast<long long>(m_nElementSize) * m_nPosition++; }

protected:
    unsigned char* m_pArray;
    int m_nElementSize;
    int m_nCount;
    int m_nPosition;
};

// Yields the pointers that an array of pointers holds.
class ZRUTILITY_API PointerArrayIterator : public ArrayIterator {
public:
    PointerArrayIterator(void** array, int count) noexcept : ArrayIterator(array, sizeof(void*), count) {}
    PointerArrayIterator(const PointerArrayIterator&) = default;
    PointerArrayIterator& operator=(const PointerArrayIterator&) = default;

    void* next() override { return *static_cast<void**>(ArrayIterator::next()); }
};
