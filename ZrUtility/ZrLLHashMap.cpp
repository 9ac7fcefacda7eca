#include "ZrUtility/ZrLLHashMap.h"

#include <array>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

#include "ZrLog/ZrLog.h"
#include "ZrUtility/hash_map_put.h"

namespace {

constexpr const char* LOG_SOURCE = ".\\ZrLLHashMap.cppzrwindowsmobile";
constexpr std::uint32_t LOG_FAILURE = zrLogCategory(0xA8, kZrLogFailure);
constexpr std::uint32_t LOG_TRACE = zrLogCategory(0xA8, kZrLogTrace);
constexpr int LINE_REHASH = 86;
constexpr int LINE_ENTRIES = 153;

ULONG startOf(ULONG number, ULONG capacity, ULONGLONG reciprocal) {
    return zr::remainderOf(number & 0x7FFFFFFF, capacity, reciprocal);
}

// The slots that a search visits, each once, in their order: from the start by equal steps around the map, and when
// that leads back to the start, from the next slot again. Whoever walks counts to the capacity.
class Path {
public:
    Path(ULONG number, ULONG capacity, ULONGLONG reciprocal)
        : m_capacity(capacity), m_start(startOf(number, capacity, reciprocal)), m_at(m_start) {
        const auto step = static_cast<LONG>(number * 2 + 1);
        const ULONG size = step < 0 ? 0u - static_cast<ULONG>(step) : static_cast<ULONG>(step);
        m_step = zr::remainderOf(size, capacity, reciprocal);
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
    if (isFull()) rehash();
    ULONG slot = findToPut(key);
    if (slot != NO_SLOT) return std::exchange(m_values[slot], value);
    slot = insert(key);
    if (slot != NO_SLOT) m_values[slot] = value;
    return nullptr;
}

void* ZrLLHashMap::remove(void* key) {
    const ULONG slot = find(key);
    if (slot == NO_SLOT) return nullptr;
    drop(slot);
    return m_values[slot];
}

int ZrLLHashMap::size() {
    return m_count;
}

ZrIterator* ZrLLHashMap::entries() {
    zrKelDebugBinLog0(LOG_SOURCE, LINE_ENTRIES, LOG_FAILURE);
    return nullptr;
}

void ZrLLHashMap::clear() {
    clearElements();
    if (m_capacity != 0) {
        std::memset(m_keys, 0, static_cast<std::size_t>(m_capacity) * sizeof(void*));
        std::memset(m_states, 0, static_cast<std::size_t>(m_capacity));
    }
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
    // Iterators look at whole words of states.
    const std::size_t stateBytes = (slots + HashMapIterator::WORD - 1) / HashMapIterator::WORD * HashMapIterator::WORD;
    if (slots > (std::numeric_limits<std::size_t>::max() - HEADER - HashMapIterator::WORD) / slotBytes) return false;
    auto* block = static_cast<BYTE*>(::operator new(HEADER + slots * words * sizeof(void*) + stateBytes, std::nothrow));
    if (block == nullptr) return false;
    new (block) ULONGLONG(zr::reciprocalOf(static_cast<ULONG>(capacity)));
    m_keys = reinterpret_cast<void**>(block + HEADER);
    m_values = m_keys + slots;
    m_states = reinterpret_cast<BYTE*>(m_keys + slots * words);
    std::memset(m_keys, 0, slots * sizeof(void*));
    std::memset(m_states, 0, stateBytes);
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
    m_count = 0;
    for (ULONG from = static_cast<ULONG>(old.m_capacity); from-- > 0;) {
        if ((old.m_states[from] & HOLDS) != IN_USE) continue;
        const ULONG slot = insert(old.m_keys[from]);
        for (int column = 0; column < m_columns; ++column) {
            valueAt(slot, column) = old.valueAt(from, column);
        }
    }
}

// The rest of a search, behind the slots nearby.
[[gnu::noinline]] ULONG ZrLLHashMap::findFar(void* key) const {
    const ULONG number = numberOf(key);
    const ULONG next = among<NEARBY, 2 * NEARBY>(Fractions(number, reciprocal()), key);
    if (isAt(next, key)) return next;
    const auto capacity = static_cast<ULONG>(m_capacity);
    Path path(number, capacity, reciprocal());
    for (ULONG probes = 0; probes < capacity; ++probes, path.advance()) {
        const ULONG slot = path.at();
        const BYTE holds = m_states[slot] & HOLDS;
        if (holds == EMPTY) return NO_SLOT;
        if (holds == IN_USE && m_keys[slot] == key) return slot;
    }
    return NO_SLOT;
}

// The whole of freeSlot().
[[gnu::noinline]] ULONG ZrLLHashMap::freeSlotFar(ULONG number) const {
    const auto capacity = static_cast<ULONG>(m_capacity);
    if (capacity == 0) return NO_SLOT;
    Path path(number, capacity, reciprocal());
    for (ULONG probes = 0; probes < capacity; ++probes, path.advance()) {
        if ((m_states[path.at()] & HOLDS) != IN_USE) return path.at();
    }
    return NO_SLOT;
}

void ZrLLHashMap::drop(ULONG slot) {
    m_states[slot] = static_cast<BYTE>((m_states[slot] & ~HOLDS) | REMOVED);
    m_keys[slot] = nullptr;
    --m_count;
}
