#pragma once

#include "ZrUtility/Export.h"
#include "ZrUtility/ZrMap.h"
#include "platform/types.h"

class HashMapIterator;

// A map from integers to integers, each as wide as a pointer: cast them to void* and back. It owns neither keys nor
// values. Use it for identifiers and handles; a stored value 0 looks like an absent key to get(), so ask containsKey().
//
// The map grows by itself and never shrinks. Iterators yield in the order of the slots and read the map in place: a put
// that makes the map grow, clear() and destruction invalidate them; remove() and other puts do not. Any put may make
// the map grow, one of a key that is there too.
//
// Where a key is looked for depends on its low 32 bits alone when the others only extend them, by zeros or by the sign;
// a key that needs more bits is looked for by all of them. Keys are equal when all of their bits are.
//
// A removed slot stays on the paths that lead over it until it is taken again, or the map grows or is cleared: where
// much comes and goes for long without growth, looking for what is not there takes longer and longer.
//
// When memory is short a map stays as it is: it fills the slots it has, and when there is none left (or the map was
// created without memory) a put of a new key is dropped and returns NULL.
//
// Copies are shallow: a copy shares its source's slots, so only one of the two may be changed or destroyed. A copy
// whose source was changed counts wrong, and may find its slots full before it grows: a put is dropped then.
class ZRUTILITY_API ZrLLHashMap : public ZrMap {
public:
    // Grows before it is fuller than this, in per cent.
    static const int _loadFactor;

    // `capacity` is the number of slots, of which three quarters are used before the map grows; at least 1.
    explicit ZrLLHashMap(int capacity) noexcept;
    ZrLLHashMap(const ZrLLHashMap&) = default;
    ZrLLHashMap& operator=(const ZrLLHashMap&) = default;
    ~ZrLLHashMap() override;

    void* put(void* key, void* value) override;
    void* get(void* key) override;
    void* remove(void* key) override;
    bool containsKey(void* key) override;
    int size() override;
    ZrIterator* keys() override;
    ZrIterator* values() override;
    // Not supported: NULL.
    ZrIterator* entries() override;
    void clear() override;

protected:
    // What clear() does with the values before it forgets them: nothing here.
    virtual void clearElements();

    // The iterator of values() by value, for a class that must not depend on memory for one.
    HashMapIterator walkValues() const;

private:
    // Two maps in one set of slots: a second value stands beside each key.
    friend class ZrStringLongHashMap;

    // No slot's numbers.
    static constexpr ULONG NO_SLOT = 0xFFFFFFFF;
    static constexpr ULONG UNKNOWN = 0xFFFFFFFE;

    ZrLLHashMap(int capacity, int columns) noexcept;

    bool allocate(int capacity);
    void rehash();
    ULONGLONG reciprocal() const;
    ULONG findNearby(void* key) const;
    ULONG findFar(void* key) const;
    void* getFar(void* key) const;
    ULONG find(void* key) const;
    ULONG freeSlot(void* key) const;
    ULONG claim(void* key);
    void take(ULONG slot, void* key);
    void drop(ULONG slot);
    void*& valueAt(ULONG slot, int column) const;

    void** m_keys;
    void** m_values;
    BYTE* m_states;
    int m_count;
    int m_threshold;
    int m_capacity;
    int m_columns;  // arrays of values, one after the other
};
