#include "ZrUtility/ZrLLHashMap.h"

#include <array>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

#include "ZrLog/ZrLog.h"
#include "ZrUtility/hash_map_iterator.h"
#include "ZrUtility/reciprocal.h"

namespace {

constexpr const char* LOG_SOURCE = ".\\ZrLLHashMap.cppzrwindowsmobile";
constexpr std::uint32_t LOG_FAILURE = zrLogCategory(0xA8, kZrLogFailure);
constexpr std::uint32_t LOG_TRACE = zrLogCategory(0xA8, kZrLogTrace);
constexpr int LINE_REHASH = 86;
constexpr int LINE_ENTRIES = 153;

// The low two bits of a slot's state say what the slot holds. The other six are a filter of the keys whose search
// starts at the slot, wherever they ended up: each key sets two of them. A search that does not find both set is over
// before it has looked at a key.
constexpr BYTE EMPTY = 0;
constexpr BYTE IN_USE = HashMapIterator::IN_USE;
constexpr BYTE REMOVED = 2;
constexpr BYTE HOLDS = 3;

// Two of the six bits, for each value of four bits of a hash. There are 15 such pairs, so one stands twice.
constexpr std::array<BYTE, 16> FILTER_BITS = [] {
    std::array<BYTE, 16> bits{};
    std::size_t at = 0;
    for (int high = 1; high < 6; ++high) {
        for (int low = 0; low < high; ++low) {
            bits[at++] = static_cast<BYTE>(4 << high | 4 << low);
        }
    }
    bits[at] = bits[0];
    return bits;
}();

BYTE filterBits(ULONG number) {
    return FILTER_BITS[number * 0x9E3779B1u >> 28];
}

// What a key is looked for by: its low 32 bits, mixed with the others when these say more than the sign.
ULONG numberOf(void* key) {
    const auto bits = reinterpret_cast<ULONG_PTR>(key);
    const auto low = static_cast<ULONG>(bits);
    if constexpr (sizeof bits > sizeof low) {
        const auto high = static_cast<ULONG>(bits >> 32);
        if (high + 1 > 1) return low ^ high * 0x85EBCA6Bu;
    }
    return low;
}

ULONG startOf(ULONG number, ULONG capacity, ULONGLONG reciprocal) {
    return remainderOf(number & 0x7FFFFFFF, capacity, reciprocal);
}

// The slots that a search visits, each once, in their order: from the start by equal steps around the map, and when
// that leads back to the start, from the next slot again. Whoever walks counts to the capacity.
class Path {
public:
    Path(ULONG number, ULONG capacity, ULONGLONG reciprocal)
        : m_capacity(capacity), m_start(startOf(number, capacity, reciprocal)), m_at(m_start) {
        const auto step = static_cast<LONG>(number * 2 + 1);
        const ULONG size = step < 0 ? 0u - static_cast<ULONG>(step) : static_cast<ULONG>(step);
        m_step = remainderOf(size, capacity, reciprocal);
        if (step < 0 && m_step != 0) m_step = capacity - m_step;
    }

    ULONG at() const { return m_at; }

    void advance() {
        m_at = within(m_at + m_step);
        if (m_at == m_start) m_at = m_start = within(m_start + 1);
    }

private:
    ULONG within(ULONG slot) const { return slot < m_capacity ? slot : slot - m_capacity; }

    ULONG m_capacity;
    ULONG m_start;
    ULONG m_at;
    ULONG m_step;
};

// Fractions add up and wrap around as remainders do, so a path's slots are the capacity's parts of them. A reciprocal
// is too large by less than 1, so a fraction by the number it was made of: less than 2^33 either way within a path's
// first three slots. Slack makes that an excess of less than 2^34, which leaves the parts right while a slot is wider
// than it.
constexpr ULONGLONG FRACTION_SLACK = ULONGLONG{1} << 33;
constexpr ULONG FRACTIONS_HOLD = ULONG{1} << 29;

// In 32 bits, as on every target.
int thresholdOf(int capacity) {
    const auto product = static_cast<unsigned>(ZrLLHashMap::_loadFactor) * static_cast<unsigned>(capacity);
    return static_cast<int>(product) / 100;
}

// The slots' block: the reciprocal of their number, their keys, their values, their states.
constexpr std::size_t HEADER = sizeof(ULONGLONG);

// Gives a block back, of which this is the first key.
void freeBlock(void** keys) {
    if (keys != nullptr) ::operator delete(reinterpret_cast<BYTE*>(keys) - HEADER);
}

}  // namespace

const int ZrLLHashMap::_loadFactor = 75;

ZrLLHashMap::ZrLLHashMap(int capacity) noexcept : ZrLLHashMap(capacity, 1) {}

ZrLLHashMap::ZrLLHashMap(int capacity, int columns) noexcept
    : m_keys(nullptr),
      m_values(nullptr),
      m_states(nullptr),
      m_count(0),
      m_threshold(0),
      m_capacity(0),
      m_columns(columns) {
    allocate(capacity);
}

ZrLLHashMap::~ZrLLHashMap() {
    freeBlock(m_keys);
}

void* ZrLLHashMap::put(void* key, void* value) {
    const ULONG slot = claim(key);
    return slot != NO_SLOT ? std::exchange(m_values[slot], value) : nullptr;
}

void* ZrLLHashMap::get(void* key) {
    const ULONG slot = findNearby(key);
    if (slot < UNKNOWN) return m_values[slot];
    return slot == NO_SLOT ? nullptr : getFar(key);
}

void* ZrLLHashMap::remove(void* key) {
    const ULONG slot = find(key);
    if (slot == NO_SLOT) return nullptr;
    drop(slot);
    return m_values[slot];
}

bool ZrLLHashMap::containsKey(void* key) {
    return find(key) != NO_SLOT;
}

int ZrLLHashMap::size() {
    return m_count;
}

ZrIterator* ZrLLHashMap::keys() {
    return new (std::nothrow) HashMapIterator(m_keys, m_states, m_capacity);
}

ZrIterator* ZrLLHashMap::values() {
    return new (std::nothrow) HashMapIterator(m_values, m_states, m_capacity);
}

ZrIterator* ZrLLHashMap::entries() {
    zrKelDebugBinLog0(LOG_SOURCE, LINE_ENTRIES, LOG_FAILURE);
    return nullptr;
}

void ZrLLHashMap::clear() {
    clearElements();
    if (m_capacity != 0) std::memset(m_states, 0, static_cast<std::size_t>(m_capacity));
    m_count = 0;
}

void ZrLLHashMap::clearElements() {}

HashMapIterator ZrLLHashMap::walkValues() const {
    return {m_values, m_states, m_capacity};
}

// Gives the map that many empty slots; false, and nothing has changed, when there is no memory for them.
bool ZrLLHashMap::allocate(int capacity) {
    if (capacity <= 0) return false;
    const auto slots = static_cast<std::size_t>(capacity);
    const std::size_t words = 1 + static_cast<std::size_t>(m_columns);
    const std::size_t slotBytes = words * sizeof(void*) + sizeof(BYTE);
    if (slots > (std::numeric_limits<std::size_t>::max() - HEADER) / slotBytes) return false;
    auto* block = static_cast<BYTE*>(::operator new(HEADER + slots * slotBytes, std::nothrow));
    if (block == nullptr) return false;
    new (block) ULONGLONG(reciprocalOf(static_cast<ULONG>(capacity)));
    m_keys = reinterpret_cast<void**>(block + HEADER);
    m_values = m_keys + slots;
    m_states = reinterpret_cast<BYTE*>(m_keys + slots * words);
    std::memset(m_keys, 0, slots * sizeof(void*));
    std::memset(m_states, 0, slots);
    m_capacity = capacity;
    m_threshold = thresholdOf(capacity);
    return true;
}

void ZrLLHashMap::rehash() {
    if (m_capacity > (std::numeric_limits<int>::max() - 1) / 2) return;
    const int grown = m_capacity * 2 + 1;
    // Each of the maps in these slots grows.
    for (int map = 0; map < m_columns; ++map) {
        zrKelDebugBinLog2(LOG_SOURCE, LINE_REHASH, LOG_TRACE, static_cast<std::uintptr_t>(m_capacity),
                          static_cast<std::uintptr_t>(grown));
    }
    ZrLLHashMap old(*this);  // has the old slots, and frees them
    if (!allocate(grown)) {
        old.m_keys = nullptr;
        return;
    }
    for (ULONG from = static_cast<ULONG>(old.m_capacity); from-- > 0;) {
        if ((old.m_states[from] & HOLDS) != IN_USE) continue;
        void* const key = old.m_keys[from];
        const ULONG slot = freeSlot(key);
        take(slot, key);
        for (int column = 0; column < m_columns; ++column) {
            valueAt(slot, column) = old.valueAt(from, column);
        }
    }
}

ULONGLONG ZrLLHashMap::reciprocal() const {
    ULONGLONG value = 0;
    std::memcpy(&value, reinterpret_cast<const BYTE*>(m_keys) - HEADER, sizeof value);
    return value;
}

// The slot in use that has this key, or NO_SLOT; UNKNOWN when the filter and the first slots of the path do not tell.
inline ULONG ZrLLHashMap::findNearby(void* key) const {
    const auto capacity = static_cast<ULONG>(m_capacity);
    if (capacity == 0) return NO_SLOT;
    const ULONG number = numberOf(key);
    const ULONGLONG factor = reciprocal();
    const ULONGLONG start = factor * (number & 0x7FFFFFFF);
    const ULONG home = partOf(start, capacity);
    const BYTE bits = filterBits(number);
    if ((m_states[home] & bits) != bits) return NO_SLOT;
    // The value is most likely here, and on its way while keys are compared.
    __builtin_prefetch(m_values + home);
    if (capacity > FRACTIONS_HOLD) return UNKNOWN;
    // Most keys lie in one of the first three slots of their path. Which one is as good as random, so no branch depends
    // on it.
    const ULONGLONG step = factor * static_cast<ULONGLONG>(LONGLONG{static_cast<LONG>(number * 2 + 1)});
    const ULONG second = partOf(start + step + FRACTION_SLACK, capacity);
    const ULONG third = partOf(start + step * 2 + FRACTION_SLACK, capacity);
    const ULONG notFirst = 0u - static_cast<ULONG>(m_keys[home] != key);
    const ULONG notSecond = 0u - static_cast<ULONG>(m_keys[second] != key);
    const ULONG later = second ^ ((second ^ third) & notSecond);
    const ULONG slot = home ^ ((home ^ later) & notFirst);
    return m_keys[slot] == key && (m_states[slot] & IN_USE) != 0 ? slot : UNKNOWN;
}

ULONG ZrLLHashMap::find(void* key) const {
    const ULONG slot = findNearby(key);
    return slot != UNKNOWN ? slot : findFar(key);
}

// The same, one slot after the other.
[[gnu::noinline]] ULONG ZrLLHashMap::findFar(void* key) const {
    const auto capacity = static_cast<ULONG>(m_capacity);
    Path path(numberOf(key), capacity, reciprocal());
    for (ULONG probes = 0; probes < capacity; ++probes, path.advance()) {
        const ULONG slot = path.at();
        const BYTE holds = m_states[slot] & HOLDS;
        if (holds == EMPTY) return NO_SLOT;
        if (holds == IN_USE && m_keys[slot] == key) return slot;
    }
    return NO_SLOT;
}

[[gnu::noinline]] void* ZrLLHashMap::getFar(void* key) const {
    const ULONG slot = findFar(key);
    return slot != NO_SLOT ? m_values[slot] : nullptr;
}

// Where a key that the map does not hold goes: the first slot of its search that is not in use, as removed slots do not
// end a search but are taken again. NO_SLOT when all are in use, which a copy's count may not say.
ULONG ZrLLHashMap::freeSlot(void* key) const {
    const auto capacity = static_cast<ULONG>(m_capacity);
    if (capacity == 0) return NO_SLOT;
    Path path(numberOf(key), capacity, reciprocal());
    for (ULONG probes = 0; probes < capacity; ++probes, path.advance()) {
        if ((m_states[path.at()] & HOLDS) != IN_USE) return path.at();
    }
    return NO_SLOT;
}

// The slot of a key, which is put into one, with values of 0, when the map does not hold it; NO_SLOT when there is
// none.
ULONG ZrLLHashMap::claim(void* key) {
    if (m_count + 1 > m_threshold) rehash();
    ULONG slot = find(key);
    if (slot != NO_SLOT) return slot;
    slot = freeSlot(key);
    if (slot == NO_SLOT) return NO_SLOT;
    take(slot, key);
    for (int column = 0; column < m_columns; ++column) {
        valueAt(slot, column) = nullptr;
    }
    ++m_count;
    return slot;
}

void ZrLLHashMap::take(ULONG slot, void* key) {
    const ULONG number = numberOf(key);
    m_states[startOf(number, static_cast<ULONG>(m_capacity), reciprocal())] |= filterBits(number);
    m_states[slot] = static_cast<BYTE>((m_states[slot] & ~HOLDS) | IN_USE);
    m_keys[slot] = key;
}

void ZrLLHashMap::drop(ULONG slot) {
    m_states[slot] = static_cast<BYTE>((m_states[slot] & ~HOLDS) | REMOVED);
    --m_count;
}

void*& ZrLLHashMap::valueAt(ULONG slot, int column) const {
    return m_values[static_cast<std::size_t>(column) * static_cast<std::size_t>(m_capacity) + slot];
}
