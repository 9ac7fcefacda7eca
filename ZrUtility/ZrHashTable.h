#pragma once

#include <cstring>

#include "ZrUtility/Export.h"
#include "ZrUtility/Reciprocal.h"
#include "platform/types.h"

// A compact set or index from 30-bit hashes to 32-bit values, by open addressing. It keeps no keys: a text key is
// reduced to its hash, so two texts with the same hash are one key. Use it where memory matters more than exactness,
// and only with what a hash may stand for; use ZrLLHashMap where keys must be told apart.
//
// A table needs CreateTable() before use. It never holds more slots than the largest of TABLESIZE, so it takes at most
// CreateTable(89948).
//
// With `autoRehash` inserts and finds may replace the slots by more of them. Only the first slots of the old ones, as
// many as GetRequestedSize() said before, are taken over: entries in the few slots beyond them are lost. A table that
// would grow past the largest size loses all of its entries; the insert returns 0 then. Who cannot bear either creates
// the table large enough and without `autoRehash`.
//
// Copies are shallow: a copy shares its source's slots, so only one of the two may insert, find, free, create or
// destroy from then on. Not thread-safe: who shares a table guards it with a lock of his own.
class ZRUTILITY_API ZrHashTable {
public:
    enum FIND_OPTIONS {
        FIND_ONLY = 0,
        FIND_AND_UPDATE = 1,  // the new value replaces the one found
        FIND_AND_DELETE = 2,  // the entry is taken out
    };

    // The numbers of slots that a table can have, all primes.
    static const unsigned int TABLESIZE[27];

    // With `replaceExisting` inserting a key that is there overwrites its value; without, it is there twice, and finds
    // see the one that was placed nearer to its first slot.
    explicit ZrHashTable(int autoRehash = 1, int replaceExisting = 1) noexcept;
    ZrHashTable(const ZrHashTable&) = default;
    ZrHashTable& operator=(const ZrHashTable&) = default;
    virtual ~ZrHashTable();

    // Makes an empty table with room for `size` entries, at most half full with them; what was there is freed. 0 when
    // the size is too large (the table is then as it was) or memory is short (there is then no table). The size is
    // doubled in 32 bits.
    int CreateTable(unsigned int size);
    // 1, or 0 when there was no table.
    int FreeTable();

    // The 30-bit hash of at most `maxLength` characters; 0 for NULL and for an empty text.
    static unsigned int Hash(const WCHAR* text, unsigned int maxLength);
    static unsigned int Hash(const char* text, unsigned int maxLength);

    // 1 when the value is in. 0 when there is no table, when a text key is NULL, when no slot on the key's path is
    // free, and when the table could not grow, although the value had been placed. A numeric key must be below 2^30: of
    // a larger one only 30 bits are kept, and it is never found.
    //
    // With `replaceExisting` a key that lies beyond a deleted slot on its path is added again, into the deleted slot,
    // and not replaced.
    int InsertValue(WCHAR* key, ULONG value);
    int InsertValue(unsigned int key, ULONG value);
    // 1 for a hit: its value is stored in *value, unless `value` is NULL, then the option is carried out. 0 for a miss.
    // A NULL text is the hash 0. After any find by number, also one without a table, a table with `autoRehash` that has
    // too many deleted slots is made anew with twice the requested size; so such a find without a table makes one.
    int FindValue(WCHAR* key, ULONG* value, FIND_OPTIONS option, ULONG newValue);
    int FindValue(unsigned int key, ULONG* value, FIND_OPTIONS option, ULONG newValue);
    // 1 when there was such an entry.
    int DeleteValue(WCHAR* key);
    int DeleteValue(unsigned int key);

    // Makes the table anew for `size` entries, or for twice the requested size when it is 0, and puts the entries in
    // again, but for those in slots beyond the old requested size. 1, or 0 when entries were lost for other reasons:
    // all of them when there was no memory or the size is too large, some when they find no slot in a smaller table.
    int Rehash(unsigned int size);

    // More than three quarters of the slots are in use.
    int IsLoadFactorTooHigh();
    // At least a quarter of the slots are in use, and as many or more are deleted.
    int IsDeactivatedCountTooHigh();
    // The number of slots; 0 when there is no table.
    unsigned int GetSize();
    // Twice the size that was last asked of CreateTable().
    unsigned int GetRequestedSize();

private:
    struct Slot {
        ULONG keyAndState;  // the state in the low two bits, above them the key
        ULONG value;

        ULONG state() const { return keyAndState & STATE; }
        ULONG key() const { return keyAndState >> 2; }
        bool holds(ULONG wanted) const { return state() == ACTIVE && key() == wanted; }
    };
    static constexpr ULONG EMPTY = 0;
    static constexpr ULONG ACTIVE = 1;
    static constexpr ULONG DEACTIVATED = 2;
    static constexpr ULONG STATE = 3;
    static constexpr ULONG HASH_MASK = 0x3FFFFFFF;

    ULONGLONG reciprocal() const;
    BYTE* filters() const;
    ULONG homeOf(ULONG key) const;
    template <class Stop>
    Slot* walkPath(ULONG home, Stop stop) const;
    Slot* slotToTake(ULONG key) const;
    Slot* nearby(ULONG wanted, ULONG home) const;
    static BYTE filterBits(ULONG key);
    bool isPossible(ULONG key, ULONG home) const;
    Slot* findSlot(ULONG key) const;
    int findAndApply(ULONG key, ULONG* value, FIND_OPTIONS option, ULONG newValue);
    void deactivate(Slot* slot);
    int reinsert(const Slot* slots, ULONG count);

    int m_autoRehash;
    ULONG m_requestedSize;
    ULONG m_tableSize;
    ULONG m_count;
    int m_replaceExisting;
    Slot* m_slots;  // behind the reciprocal of their number
    ULONG m_deactivatedCount;
};

inline ULONGLONG ZrHashTable::reciprocal() const {
    ULONGLONG value = 0;
    std::memcpy(&value, reinterpret_cast<const BYTE*>(m_slots) - sizeof value, sizeof value);
    return value;
}

inline BYTE* ZrHashTable::filters() const {
    return reinterpret_cast<BYTE*>(m_slots + m_tableSize);
}

inline BYTE ZrHashTable::filterBits(ULONG key) {
    const ULONG hash = key * 0x9E3779B1u >> 26;
    return static_cast<BYTE>(1u << hash / 8 | 1u << hash % 8);
}

inline ULONG ZrHashTable::homeOf(ULONG key) const {
    return zr::remainderOf(key, m_tableSize, reciprocal());
}

// The slot with this key, if it is one of the first of the path; else any. Which of them it is is as good as random, so
// no branch depends on it.
inline ZrHashTable::Slot* ZrHashTable::nearby(ULONG wanted, ULONG home) const {
    Slot* const first = m_slots + home;
    const ULONG beyondFirst = 0u - static_cast<ULONG>(first[0].keyAndState != wanted);
    const auto beyondSecond = static_cast<ULONG>(first[1].keyAndState != wanted);
    return first + (beyondFirst & (1 + 3 * beyondSecond));
}

// Whether a key may lie on the path of those at home there: each has set two bits, wherever it ended up.
inline bool ZrHashTable::isPossible(ULONG key, ULONG home) const {
    const BYTE bits = filterBits(key);
    return (filters()[home] & bits) == bits;
}

inline int ZrHashTable::FindValue(unsigned int key, ULONG* value, FIND_OPTIONS option, ULONG newValue) {
    // A find that changes nothing, and that no rehash follows, as with most: there is a table, and fewer of its slots
    // are deactivated than active.
    if (option == FIND_ONLY && m_deactivatedCount < m_count) {
        const ULONG home = homeOf(key);
        if (home + 4 < m_tableSize && key <= HASH_MASK) {
            const ULONG wanted = key << 2 | ACTIVE;
            const Slot* const slot = nearby(wanted, home);
            if (slot->keyAndState == wanted) {
                if (value != nullptr) *value = slot->value;
                return 1;
            }
        }
        if (!isPossible(key, home) && m_count + m_deactivatedCount <= m_tableSize / 2) return 0;
    }
    return findAndApply(key, value, option, newValue);
}
