#pragma once

#include "ZrUtility/Export.h"
#include "ZrUtility/ZrLLHashMap.h"
#include "ZrUtility/ZrMap.h"

// A map from narrow texts to integers as wide as a pointer. Keys are char* passed as void*, never NULL. They are not
// copied: the map keeps the caller's pointer, so a key must stay alive and as it is while it is in the map.
//
// Keys are told apart by a 32-bit hash. A put of a key whose hash another key has replaces that one, and logs it.
// containsKey() and remove() compare the text and do not take one for the other; get() does not compare, and returns
// the value of whatever key has the hash. Use it where that cannot hurt.
//
// A NULL key is not there, and a put of it is dropped. When memory is short a put of a new key may be dropped, as
// ZrLLHashMap says; a map that got no memory at all stays empty.
//
// Copies are shallow: a copy shares its source's contents, and only one of the two may be destroyed.
class ZRUTILITY_API ZrStringLongHashMap : public ZrMap {
public:
    // `capacity` as for ZrLLHashMap.
    explicit ZrStringLongHashMap(int capacity) noexcept;
    ZrStringLongHashMap(const ZrStringLongHashMap&) = default;
    ZrStringLongHashMap& operator=(const ZrStringLongHashMap&) = default;
    // Leaves the keys alone.
    ~ZrStringLongHashMap() override;

    void* put(void* key, void* value) override;
    void* get(void* key) override;
    void* remove(void* key) override;
    bool containsKey(void* key) override;
    int size() override;
    // Yields the stored key pointers.
    ZrIterator* keys() override;
    ZrIterator* values() override;
    // Not supported: NULL.
    ZrIterator* entries() override;
    void clear() override;

private:
    static int getStringHashCode(const char* text);
    int getHashCodeWithChecking(void* key, bool* found, bool* collision) const;
    void followKeyMap();

    // From hashes to keys and from hashes to values. They always hold the same hashes in the same slots, so the value
    // map has none of its own: it shares the key map's, where each slot has room for a key and a value. Both are NULL
    // when one could not be had.
    ZrLLHashMap* m_keyMap;
    ZrLLHashMap* m_valueMap;
};

inline ZrIterator* ZrStringLongHashMap::keys() {
    return m_keyMap != nullptr ? m_keyMap->ZrLLHashMap::values() : nullptr;
}

inline ZrIterator* ZrStringLongHashMap::values() {
    return m_valueMap != nullptr ? m_valueMap->ZrLLHashMap::values() : nullptr;
}
