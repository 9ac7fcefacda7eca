#pragma once

#include "ZrUtility/Export.h"

// Walks a container's items once, from its first to its last. Whoever asked a container for an iterator deletes it.
// Not thread-safe; what invalidates an iterator is the container's to say.
class ZRUTILITY_API ZrIterator {
public:
    virtual ~ZrIterator() = default;

    // 1 while next() has an item to give, else 0.
    virtual int hasNext() = 0;
    // The next item; NULL, however often it is asked, when there is none left.
    virtual void* next() = 0;

protected:
    ZrIterator() = default;
    ZrIterator(const ZrIterator&) = default;
    ZrIterator& operator=(const ZrIterator&) = default;
};
