#pragma once

#include <bit>
#include <cstring>

#include "ZrUtility/ZrIterator.h"
#include "platform/types.h"

// Walks the slots of a map that are in use and yields from one of the map's arrays, both read in place.
class HashMapIterator : public ZrIterator {
public:
    // The bit of a state that says that its slot is in use.
    static constexpr BYTE IN_USE = 1;

    HashMapIterator(const void* array, const BYTE* states, int capacity) noexcept
        : m_array(static_cast<void* const*>(array)), m_states(states), m_capacity(capacity), m_position(0) {}

    int hasNext() override { return findNext() ? 1 : 0; }

    void* next() override {
        // After hasNext() the position stands there already, and the processor need not wait to learn it.
        const bool isThere = m_position < m_capacity && (m_states[m_position] & IN_USE) != 0;
        return isThere || findNext() ? m_array[m_position++] : nullptr;
    }

private:
    // Moves the position to the next slot in use, itself included.
    bool findNext() {
        constexpr int TOGETHER = sizeof(ULONGLONG);
        // Eight states at a time: which of them are in use is as good as random, and no branch depends on it.
        while (m_capacity - m_position >= TOGETHER) {
            ULONGLONG states = 0;
            std::memcpy(&states, m_states + m_position, TOGETHER);
            states &= IN_USE * 0x0101010101010101u;
            if (states != 0) {
                const int bits =
                    std::endian::native == std::endian::little ? std::countr_zero(states) : std::countl_zero(states);
                m_position += bits / 8;
                return true;
            }
            m_position += TOGETHER;
        }
        while (m_position < m_capacity && (m_states[m_position] & IN_USE) == 0) {
            ++m_position;
        }
        return m_position < m_capacity;
    }

    void* const* m_array;
    const BYTE* m_states;
    int m_capacity;
    int m_position;
};
