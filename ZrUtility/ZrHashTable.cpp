#include "ZrUtility/ZrHashTable.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <new>

#include "ZrLog/ZrLog.h"

namespace {

constexpr const char* LOG_SOURCE = ".\\ZrHashTable.cppzrwindowsmobile";
constexpr std::uint32_t LOG_FAILURE = zrLogCategory(0xA8, kZrLogFailure);
constexpr std::uint32_t LOG_INFORMATION = zrLogCategory(0xA8, kZrLogInformation);
constexpr int LINE_NO_MEMORY = 54;
constexpr int LINE_TOO_LARGE = 57;
constexpr int LINE_LOAD_TOO_HIGH = 131;
constexpr int LINE_PATH_EXHAUSTED = 168;
constexpr int LINE_DEACTIVATED_TOO_HIGH = 198;
constexpr int LINE_REHASH = 231;

constexpr unsigned int WHOLE_TEXT = 0x7FFFFFFF;
constexpr ULONG HASH_BITS = 0x3FFFFFFF;

// The slots' block: the reciprocal of their number, the slots, and a byte for each slot that is a filter of the keys at
// home there, wherever they ended up: each key sets two of its bits. Bits are set for good, until a rehash. A find that
// does not see both set knows that the key is not in the table.
constexpr std::size_t HEADER = sizeof(ULONGLONG);

ULONG valueOf(WCHAR c) {
    return c;
}

// With its sign.
ULONG valueOf(char c) {
    return static_cast<ULONG>(static_cast<signed char>(c));
}

// Every other character goes in another way.
template <class Character>
ULONG hashOf(const Character* text, unsigned int maxLength) {
    if (text == nullptr) return 0;
    ULONG hash = 0;
    for (unsigned int i = 0; i < maxLength && text[i] != 0; ++i) {
        const ULONG c = valueOf(text[i]);
        hash += i % 2 == 0 ? (hash << 7 ^ hash >> 3 ^ c) : ~(hash << 11 ^ hash >> 5 ^ c);
    }
    return hash & HASH_BITS;
}

// Gives a block back, of which these are the slots.
void freeBlock(void* slots) {
    if (slots != nullptr) ::operator delete(static_cast<BYTE*>(slots) - HEADER);
}

}  // namespace

const unsigned int ZrHashTable::TABLESIZE[27] = {5,    11,    17,    29,    41,    59,    79,    109,    157,
                                                 223,  331,   479,   691,   1009,  1487,  2203,  3271,   4871,
                                                 7283, 10883, 16301, 24407, 36551, 54767, 82129, 125261, 179897};

ZrHashTable::ZrHashTable(int autoRehash, int replaceExisting) noexcept
    : m_autoRehash(autoRehash),
      m_requestedSize(0),
      m_tableSize(0),
      m_count(0),
      m_replaceExisting(replaceExisting),
      m_slots(nullptr),
      m_deactivatedCount(0) {}

ZrHashTable::~ZrHashTable() {
    FreeTable();
}

int ZrHashTable::CreateTable(unsigned int size) {
    const ULONG requested = size * 2;
    if (requested >= *std::rbegin(TABLESIZE)) {
        zrKelDebugBinLog1(LOG_SOURCE, LINE_TOO_LARGE, LOG_FAILURE, requested);
        return 0;
    }
    FreeTable();
    m_requestedSize = requested;
    const ULONG slots = *std::upper_bound(std::begin(TABLESIZE), std::end(TABLESIZE), requested);
    const std::size_t bytes = HEADER + slots * (sizeof(Slot) + sizeof(BYTE));
    auto* block = static_cast<BYTE*>(::operator new(bytes, std::nothrow));
    if (block == nullptr) {
        zrKelDebugBinLog1(LOG_SOURCE, LINE_NO_MEMORY, LOG_FAILURE, slots);
        return 0;
    }
    std::memset(block, 0, bytes);
    new (block) ULONGLONG(zr::reciprocalOf(slots));
    m_slots = reinterpret_cast<Slot*>(block + HEADER);
    m_tableSize = slots;
    return 1;
}

int ZrHashTable::FreeTable() {
    const int existed = m_slots != nullptr ? 1 : 0;
    freeBlock(m_slots);
    m_slots = nullptr;
    m_tableSize = 0;
    m_count = 0;
    m_deactivatedCount = 0;
    return existed;
}

unsigned int ZrHashTable::Hash(const WCHAR* text, unsigned int maxLength) {
    return hashOf(text, maxLength);
}

unsigned int ZrHashTable::Hash(const char* text, unsigned int maxLength) {
    return hashOf(text, maxLength);
}

int ZrHashTable::InsertValue(WCHAR* key, ULONG value) {
    return key != nullptr ? InsertValue(Hash(key, WHOLE_TEXT), value) : 0;
}

int ZrHashTable::InsertValue(unsigned int key, ULONG value) {
    if (m_slots == nullptr) return 0;
    Slot* const slot = slotToTake(key);
    if (slot == nullptr) return 0;
    m_deactivatedCount -= slot->state() == DEACTIVATED ? 1 : 0;
    m_count += slot->state() == ACTIVE ? 0 : 1;
    // By what the slot keeps of the key: that is what a find may ask for.
    filters()[homeOf(key & HASH_MASK)] |= filterBits(key & HASH_MASK);
    slot->keyAndState = key << 2 | ACTIVE;
    slot->value = value;
    if (m_autoRehash == 0 || IsLoadFactorTooHigh() == 0) return 1;
    zrKelDebugBinLog0(LOG_SOURCE, LINE_LOAD_TOO_HIGH, LOG_INFORMATION);
    return Rehash(m_requestedSize * 3 / 2);
}

int ZrHashTable::FindValue(WCHAR* key, ULONG* value, FIND_OPTIONS option, ULONG newValue) {
    return m_slots != nullptr ? FindValue(Hash(key, WHOLE_TEXT), value, option, newValue) : 0;
}

int ZrHashTable::DeleteValue(WCHAR* key) {
    return FindValue(key, nullptr, FIND_AND_DELETE, 0);
}

int ZrHashTable::DeleteValue(unsigned int key) {
    return FindValue(key, nullptr, FIND_AND_DELETE, 0);
}

int ZrHashTable::Rehash(unsigned int size) {
    const ULONG oldRequested = m_requestedSize;
    zrKelDebugBinLog2(LOG_SOURCE, LINE_REHASH, LOG_INFORMATION, oldRequested, size);
    Slot* const oldSlots = m_slots;
    m_slots = nullptr;
    FreeTable();
    int result = CreateTable(size != 0 ? size : oldRequested);
    if (result != 0 && oldSlots != nullptr) {
        const int autoRehash = m_autoRehash;
        m_autoRehash = 0;
        result = reinsert(oldSlots, oldRequested);
        m_autoRehash = autoRehash;
    }
    freeBlock(oldSlots);
    return result;
}

int ZrHashTable::IsLoadFactorTooHigh() {
    return m_tableSize * 3 < m_count * 4 ? 1 : 0;
}

int ZrHashTable::IsDeactivatedCountTooHigh() {
    return m_count >= m_tableSize / 4 && m_deactivatedCount >= m_count ? 1 : 0;
}

unsigned int ZrHashTable::GetSize() {
    return m_tableSize;
}

unsigned int ZrHashTable::GetRequestedSize() {
    return m_requestedSize;
}

// Visits the slots of a key's path until stop(slot) says so, and returns that slot: the slot at home, then those that
// lie the squares of 1, 2, 3... behind it. NULL at the path's end. A path of more than half the slots, counted up, has
// no new slot to show, as the square of j and of the table's size less j lead to the same one.
template <class Stop>
ZrHashTable::Slot* ZrHashTable::walkPath(ULONG home, Stop stop) const {
    const ULONG last = m_tableSize / 2;
    ULONG at = home;
    for (ULONG probe = 0;; ++probe) {
        if (stop(m_slots[at])) return m_slots + at;
        if (probe == last) return nullptr;
        at += 2 * probe + 1;
        if (at >= m_tableSize) at -= m_tableSize;
    }
}

// Where an insert places a key; NULL when it finds no place.
ZrHashTable::Slot* ZrHashTable::slotToTake(ULONG key) const {
    const bool replace = m_replaceExisting != 0;
    return walkPath(homeOf(key), [key, replace](const Slot& slot) {
        return slot.state() != ACTIVE || (replace && slot.key() == key);
    });
}

// The whole of FindValue().
[[gnu::noinline]] int ZrHashTable::findAndApply(ULONG key, ULONG* value, FIND_OPTIONS option, ULONG newValue) {
    Slot* const slot = m_slots != nullptr ? findSlot(key) : nullptr;
    if (slot != nullptr) {
        if (value != nullptr) *value = slot->value;
        if (option == FIND_AND_UPDATE) slot->value = newValue;
        if (option == FIND_AND_DELETE) deactivate(slot);
    }
    if (m_autoRehash != 0 && IsDeactivatedCountTooHigh() != 0) {
        zrKelDebugBinLog1(LOG_SOURCE, LINE_DEACTIVATED_TOO_HIGH, LOG_INFORMATION, m_deactivatedCount);
        Rehash(0);
    }
    return slot != nullptr ? 1 : 0;
}

// The active slot that a find meets first with this key, or NULL.
ZrHashTable::Slot* ZrHashTable::findSlot(ULONG key) const {
    const ULONG home = homeOf(key);
    if (home + 4 < m_tableSize && key <= HASH_MASK) {
        const ULONG wanted = key << 2 | ACTIVE;
        Slot* const slot = nearby(wanted, home);
        if (slot->keyAndState == wanted) return slot;
    }
    // Fewer slots than a path has are anything but empty: a path without the key ends at an empty slot.
    if (!isPossible(key, home) && m_count + m_deactivatedCount <= m_tableSize / 2) return nullptr;
    Slot* const slot = walkPath(home, [key](const Slot& s) { return s.keyAndState == EMPTY || s.holds(key); });
    if (slot == nullptr) zrKelDebugBinLog0(LOG_SOURCE, LINE_PATH_EXHAUSTED, LOG_INFORMATION);
    return slot != nullptr && slot->keyAndState != EMPTY ? slot : nullptr;
}

void ZrHashTable::deactivate(Slot* slot) {
    *slot = {DEACTIVATED, 0};
    --m_count;
    ++m_deactivatedCount;
}

// Inserts the entries of other slots; 0 as soon as one finds no place.
int ZrHashTable::reinsert(const Slot* slots, ULONG count) {
    for (const Slot* slot = slots; slot != slots + count; ++slot) {
        if (slot->state() == ACTIVE && InsertValue(slot->key(), slot->value) != 1) return 0;
    }
    return 1;
}
