#include "ZrUtility/ZrLOHashMap.h"

#include <new>

#include "ZrUtility/HashMapIterator.h"

ZrLOHashMap::ZrLOHashMap(int capacity) noexcept : ZrLLHashMap(capacity) {}

ZrLOHashMap::~ZrLOHashMap() = default;

void ZrLOHashMap::clearElements() {
    if (ZrIterator* items = values()) {
        while (items->hasNext()) {
            ::operator delete(items->next());
        }
        delete items;
        return;
    }
    // No memory for an iterator is no reason to leak the values.
    for (HashMapIterator walk = walkValues(); walk.hasNext();) {
        ::operator delete(walk.next());
    }
}
