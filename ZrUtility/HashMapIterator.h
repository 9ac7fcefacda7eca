#pragma once

#include <bit>
#include <cstring>

#include "ZrUtility/ZrIterator.h"
#include "platform/types.h"

// Walks the slots of a map that are in use and yields from one of the map's arrays, both read in place. Readable are
// whole words of states.
class HashMapIterator final : public ZrIterator {
public:
    // The bit of a state that says that its slot is in use.
    static constexpr BYTE IN_USE = 1;
    // So many states are looked at together.
    static constexpr int WORD = sizeof(ULONGLONG);

    HashMapIterator(const void* array, const BYTE* states, int capacity) noexcept
        : m_array(static_cast<void* const*>(array)), m_states(states), m_capacity(capacity), m_word(0), m_ahead(ALL) {}

    int hasNext() override { return findNext() ? 1 : 0; }

    void* next() override {
        // After hasNext() the position is there already, and the processor need not wait to learn it.
        const bool isThere = m_word < m_capacity && (statesOfWord() & IN_USE_BITS & (m_ahead & (0 - m_ahead))) != 0;
        if (!isThere && !findNext()) return nullptr;
        void* const item = m_array[m_word + std::countr_zero(m_ahead) / 8];
        m_ahead <<= 8;
        return item;
    }

private:
    static constexpr ULONGLONG ALL = ~ULONGLONG{0};
    static constexpr ULONGLONG IN_USE_BITS = IN_USE * 0x0101010101010101u;

    // Moves the position to the next slot in use, itself included. Which of a word's are in use is as good as random,
    // and no branch depends on it; nor does any address but on the word, so that the processor need not wait for one
    // slot to look for the next.
    bool findNext() {
        for (; m_word < m_capacity; m_word += WORD, m_ahead = ALL) {
            const ULONGLONG inUse = statesOfWord() & IN_USE_BITS & m_ahead;
            if (inUse == 0) continue;
            m_ahead = 0 - (inUse & (0 - inUse));
            return true;
        }
        return false;
    }

    // The first in the lowest byte.
    ULONGLONG statesOfWord() const {
        ULONGLONG states = 0;
        std::memcpy(&states, m_states + m_word, WORD);
        return std::endian::native == std::endian::little ? states : __builtin_bswap64(states);
    }

    void* const* m_array;
    const BYTE* m_states;
    int m_capacity;
    // The position: the first slot of a word, and the bytes of the word from the position on.
    int m_word;
    ULONGLONG m_ahead;
};
