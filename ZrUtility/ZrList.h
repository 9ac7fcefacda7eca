#pragma once

#include "ZrUtility/Export.h"
#include "ZrUtility/ZrIterator.h"

// A sequence of item pointers, counted from 0. A list never owns its items: removing an element or destroying the list
// leaves the item alone. Not thread-safe: who shares a list guards it with a lock of his own.
class ZRUTILITY_API ZrList {
public:
    virtual ~ZrList() = default;

    // Puts an item at the end. 0, or -1 when memory is short (the list is then as it was).
    virtual int appendElement(void* item) = 0;
    // Puts an item before the element at `index`, which must be below the count; an empty list takes any index. 0, or
    // -1 when the index is refused or memory is short (the list is then as it was).
    virtual int insertElement(int index, void* item) = 0;
    virtual int getNumberOfElement() = 0;
    // The item at an index; NULL when there is none.
    virtual void* getElementByIndex(int index) = 0;
    // The last item; NULL for an empty list.
    virtual void* getLastElement() = 0;
    // Takes out the first element that holds this very pointer. 1, or 0 when there is none.
    virtual int removeElement(void* item) = 0;
    // Takes out the element at an index and returns its item; NULL when there is none.
    virtual void* removeElement(int index) = 0;
    virtual void clear() = 0;
    // The index of the first element that holds this very pointer, or -1.
    virtual int indexOf(void* item) = 0;
    // A new iterator at the first element, which the caller deletes; NULL when memory is short.
    virtual ZrIterator* iterator() = 0;

protected:
    ZrList() = default;
    ZrList(const ZrList&) = default;
    ZrList& operator=(const ZrList&) = default;
};
