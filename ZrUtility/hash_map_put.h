#pragma once

#include <cstddef>

#include "ZrUtility/ZrLLHashMap.h"

// What putting a key into ZrLLHashMap's slots takes, inline for both maps that do it.

// A choice that is as good as random: no branch is to depend on it.
inline ULONG chooseHashMapSlot(bool condition, ULONG yes, ULONG no) {
    return no ^ ((no ^ yes) & (0u - static_cast<ULONG>(condition)));
}

// As find(), for a key that is most likely new.
inline ULONG ZrLLHashMap::findToPut(void* key) const {
    if (m_capacity == 0) return NO_SLOT;
    const ULONG number = numberOf(key);
    return mayHold(Fractions(number, reciprocal()), number) ? find(key) : NO_SLOT;
}

// Where a key that the map does not hold goes: the first slot of its search that is not in use, as removed slots do not
// end a search but are taken again. NO_SLOT when all are in use, which a copy's count may not say.
inline ULONG ZrLLHashMap::freeSlot(ULONG number) const {
    if (m_capacity == 0) return NO_SLOT;
    const ULONGLONG factor = reciprocal();
    const Fractions fractions(number, factor);
    ULONG found = slotAt(fractions, 2);
    for (int probe = 2; probe-- > 0;) {
        const ULONG slot = slotAt(fractions, probe);
        found = chooseHashMapSlot((m_states[slot] & IN_USE) == 0, slot, found);
    }
    return factor >= FRACTIONS_HOLD && (m_states[found] & IN_USE) == 0 ? found : freeSlotFar(number);
}

// Gives a key that the map does not hold a slot, whose values are not set; NO_SLOT when there is none.
inline ULONG ZrLLHashMap::insert(void* key) {
    const ULONG number = numberOf(key);
    const ULONG slot = freeSlot(number);
    if (slot == NO_SLOT) return NO_SLOT;
    m_states[zr::remainderOf(number & 0x7FFFFFFF, static_cast<ULONG>(m_capacity), reciprocal())] |= filterBits(number);
    m_states[slot] = static_cast<BYTE>((m_states[slot] & ~HOLDS) | IN_USE);
    m_keys[slot] = key;
    ++m_count;
    return slot;
}

inline void*& ZrLLHashMap::valueAt(ULONG slot, int column) const {
    return m_values[static_cast<std::size_t>(column) * static_cast<std::size_t>(m_capacity) + slot];
}
