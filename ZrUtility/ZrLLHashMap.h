#pragma once

#include <cstring>
#include <new>

#include "ZrUtility/Export.h"
#include "ZrUtility/HashMapIterator.h"
#include "ZrUtility/Reciprocal.h"
#include "ZrUtility/ZrMap.h"
#include "platform/types.h"

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

    // The low two bits of a slot's state say what the slot holds. The other six are a filter of the keys whose search
    // starts at the slot, wherever they ended up: each key sets two of them. A search that does not find both set is
    // over. The key of a slot that is not in use is 0.
    static constexpr BYTE EMPTY = 0;
    static constexpr BYTE IN_USE = HashMapIterator::IN_USE;
    static constexpr BYTE REMOVED = 2;
    static constexpr BYTE HOLDS = 3;

    ZrLLHashMap(int capacity, int columns) noexcept;

    // How many of a search's slots are looked at first.
    static constexpr int NEARBY = 5;
    // The part of the map that a slot is, as a fraction, must be so wide for fractions to say where they are.
    static constexpr ULONGLONG FRACTIONS_HOLD = ULONGLONG{1} << 36;
    struct Fractions;

    bool allocate(int capacity);
    void rehash();
    static ULONG numberOf(void* key);
    static BYTE filterBits(ULONG number);
    ULONGLONG reciprocal() const;
    ULONG slotAt(const Fractions& fractions, int probe) const;
    template <int first, int last>
    ULONG among(const Fractions& fractions, void* key) const;
    bool isAt(ULONG slot, void* key) const;
    ULONG findFar(void* key) const;
    ULONG find(void* key) const;
    bool mayHold(const Fractions& fractions, ULONG number) const;
    void drop(ULONG slot);
    // For those who put: defined in hash_map_put.h.
    bool isFull() const { return m_count + 1 > m_threshold; }
    ULONG findToPut(void* key) const;
    ULONG freeSlot(ULONG number) const;
    ULONG freeSlotFar(ULONG number) const;
    ULONG insert(void* key);
    void*& valueAt(ULONG slot, int column) const;

    void** m_keys;
    void** m_values;
    BYTE* m_states;
    int m_count;
    int m_threshold;
    int m_capacity;
    int m_columns;  // arrays of values, one after the other
};

// What a key is looked for by: its low 32 bits, mixed with the others when these say more than the sign.
inline ULONG ZrLLHashMap::numberOf(void* key) {
    const auto bits = reinterpret_cast<ULONG_PTR>(key);
    const auto low = static_cast<ULONG>(bits);
    if constexpr (sizeof bits > sizeof low) {
        const auto high = static_cast<ULONG>(bits >> 32);
        if (high + 1 > 1) return low ^ high * 0x85EBCA6Bu;
    }
    return low;
}

inline BYTE ZrLLHashMap::filterBits(ULONG number) {
    // There are 15 pairs of six bits, so one stands twice.
    constexpr BYTE PAIRS[16] = {0x0C, 0x14, 0x18, 0x24, 0x28, 0x30, 0x44, 0x48,
                                0x50, 0x60, 0x84, 0x88, 0x90, 0xA0, 0xC0, 0x0C};
    return PAIRS[number * 0x9E3779B1u >> 28];
}

inline ULONGLONG ZrLLHashMap::reciprocal() const {
    ULONGLONG value = 0;
    std::memcpy(&value, reinterpret_cast<const BYTE*>(m_keys) - sizeof value, sizeof value);
    return value;
}

// Where a key's search begins and how far it goes each time, as fractions of the whole map. They add up and wrap around
// as remainders do, so a search's slots are the capacity's parts of them. A reciprocal is too large by less than 1, so
// a fraction by the number it was made of: less than 2^35 either way within twice NEARBY slots. Slack makes that an
// excess of less than 2^36, which leaves the parts right while a slot is wider than that, in maps of up to 2^28 slots.
struct ZrLLHashMap::Fractions {
    Fractions(ULONG number, ULONGLONG reciprocal)
        : start(reciprocal * (number & 0x7FFFFFFF)),
          step(reciprocal * static_cast<ULONGLONG>(LONGLONG{static_cast<LONG>(number * 2 + 1)})) {}

    ULONGLONG start;
    ULONGLONG step;
};

inline ULONG ZrLLHashMap::slotAt(const Fractions& fractions, int probe) const {
    constexpr ULONGLONG SLACK = ULONGLONG{1} << 35;
    const ULONGLONG steps = static_cast<ULONGLONG>(probe) * fractions.step;
    return zr::partOf(fractions.start + steps + SLACK, static_cast<ULONG>(m_capacity));
}

// The slot with this key, if it is one of a search's slots from the number `first` to before `last`; else any.
// Which of them it is is as good as random, so no branch is to depend on it.
template <int first, int last>
inline ULONG ZrLLHashMap::among(const Fractions& fractions, void* key) const {
    ULONG found = slotAt(fractions, last - 1);
    for (int probe = last - 1; probe-- > first;) {
        const ULONG slot = slotAt(fractions, probe);
        found = __builtin_expect_with_probability(m_keys[slot] == key, 1, 0.5) != 0 ? slot : found;
    }
    return found;
}

inline bool ZrLLHashMap::isAt(ULONG slot, void* key) const {
    return m_keys[slot] == key && (key != nullptr || (m_states[slot] & IN_USE) != 0);
}

// Whether the map may hold a key: what those that begin their search in the same slot have left there.
inline bool ZrLLHashMap::mayHold(const Fractions& fractions, ULONG number) const {
    const BYTE bits = filterBits(number);
    return (m_states[zr::partOf(fractions.start, static_cast<ULONG>(m_capacity))] & bits) == bits;
}

// The slot in use that has this key, or NO_SLOT.
inline ULONG ZrLLHashMap::find(void* key) const {
    if (m_capacity == 0) return NO_SLOT;
    const ULONG number = numberOf(key);
    const Fractions fractions(number, reciprocal());
    const ULONG slot = among<0, NEARBY>(fractions, key);
    if (isAt(slot, key)) return slot;
    return mayHold(fractions, number) ? findFar(key) : NO_SLOT;
}

inline void* ZrLLHashMap::get(void* key) {
    const ULONG slot = find(key);
    return slot != NO_SLOT ? m_values[slot] : nullptr;
}

inline bool ZrLLHashMap::containsKey(void* key) {
    return find(key) != NO_SLOT;
}

inline ZrIterator* ZrLLHashMap::keys() {
    return new (std::nothrow) HashMapIterator(m_keys, m_states, m_capacity);
}

inline ZrIterator* ZrLLHashMap::values() {
    return new (std::nothrow) HashMapIterator(m_values, m_states, m_capacity);
}
