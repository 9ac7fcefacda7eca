#pragma once

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>

#include "platform/types.h"

// The hashes of a list's entries side by side, and the entries themselves, both in the list's order. Looking for a hash
// then reads memory in one stretch, where following the list would wait for two places at each entry. Who changes the
// list changes its column with it.
template <class Entry>
class HashColumn {
public:
    int Count() const { return m_count; }
    Entry* At(int index) const { return m_entries[index]; }

    // Makes room for `more` entries; false when memory is short, and then nothing has changed.
    bool Reserve(int more) {
        if (m_count + more <= m_capacity) return true;
        const int capacity = std::max(m_count + more, m_capacity * 2);
        std::unique_ptr<ULONG[]> hashes(new (std::nothrow) ULONG[static_cast<std::size_t>(capacity)]);
        std::unique_ptr<Entry*[]> entries(new (std::nothrow) Entry*[static_cast<std::size_t>(capacity)]);
        if (hashes == nullptr || entries == nullptr) return false;
        std::copy_n(m_hashes.get(), m_count, hashes.get());
        std::copy_n(m_entries.get(), m_count, entries.get());
        m_hashes = std::move(hashes);
        m_entries = std::move(entries);
        m_capacity = capacity;
        return true;
    }
    // Room must have been made.
    void Append(ULONG hash, Entry* entry) {
        m_hashes[m_count] = hash;
        m_entries[m_count] = entry;
        ++m_count;
    }
    void Remove(int index) {
        std::copy(m_hashes.get() + index + 1, m_hashes.get() + m_count, m_hashes.get() + index);
        std::copy(m_entries.get() + index + 1, m_entries.get() + m_count, m_entries.get() + index);
        --m_count;
    }
    // The first place at or after `from` with this hash; Count() when there is none.
    int Find(ULONG hash, int from) const {
        constexpr int STRETCH = 16;
        int index = from;
        for (; index + STRETCH <= m_count; index += STRETCH) {
            // Without a way out in between, so that it becomes a few wide comparisons.
            unsigned equal = 0;
            for (int i = 0; i < STRETCH; ++i) {
                equal |= m_hashes[index + i] == hash ? 1u : 0u;
            }
            if (equal != 0) break;
        }
        while (index < m_count && m_hashes[index] != hash) {
            ++index;
        }
        return index;
    }

private:
    std::unique_ptr<ULONG[]> m_hashes;
    std::unique_ptr<Entry*[]> m_entries;
    int m_count = 0;
    int m_capacity = 0;
};
