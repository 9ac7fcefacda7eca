#include "ZrUtility/ZrStringLongHashMap.h"

#include <array>
#include <bit>
#include <cstring>
#include <new>
#include <utility>

#include "ZrLog/ZrLog.h"
#include "ZrUtility/hash_map_put.h"

namespace {

constexpr const char* LOG_SOURCE = ".\\ZrStringLongHashMap.cppzrwindowsmobile";
constexpr std::uint32_t LOG_FAILURE = zrLogCategory(0xA8, kZrLogFailure);
constexpr int LINE_COLLISION = 107;
constexpr int LINE_COLLISION_KEY = 108;
constexpr int LINE_ENTRIES = 118;

// What stands beside each hash.
constexpr int KEY_COLUMN = 0;
constexpr int VALUE_COLUMN = 1;
constexpr int COLUMNS = 2;

void* asKey(int hash) {
    return reinterpret_cast<void*>(static_cast<LONG_PTR>(hash));
}

// Texts are hashed in blocks of so many characters, whose products do not wait for each other.
constexpr int BLOCK = 8;

constexpr std::array<ULONG, BLOCK + 1> POWERS = [] {
    std::array<ULONG, BLOCK + 1> powers{1};
    for (std::size_t i = 1; i < powers.size(); ++i) {
        powers[i] = powers[i - 1] * 37;
    }
    return powers;
}();

ULONG valueOf(char c) {
    return static_cast<ULONG>(static_cast<signed char>(c));
}

// What a block adds to a hash.
ULONG polynomial(const char* block) {
    ULONGLONG word = 0;
    std::memcpy(&word, block, BLOCK);
    constexpr ULONGLONG SIGNS = 0x8080808080808080;
    if (std::endian::native == std::endian::little && (word & SIGNS) == 0) {
        // Characters join into pairs, pairs into fours, each in one multiplication; no sum outgrows its part of the
        // word.
        constexpr ULONGLONG BYTES = 0x00FF00FF00FF00FF;
        constexpr ULONGLONG WORDS = 0x0000FFFF0000FFFF;
        const ULONGLONG pairs = (word & BYTES) * POWERS[1] + (word >> 8 & BYTES);
        const ULONGLONG fours = (pairs & WORDS) * POWERS[2] + (pairs >> 16 & WORDS);
        return static_cast<ULONG>(fours) * POWERS[4] + static_cast<ULONG>(fours >> 32);
    }
    ULONG sum = 0;
    for (int i = 0; i < BLOCK; ++i) {
        sum += valueOf(block[i]) * POWERS[static_cast<std::size_t>(BLOCK - 1 - i)];
    }
    return sum;
}

// The last `left` characters of a text, fewer than a block, behind zeros; the text is no shorter than a block. How many
// are left differs from text to text, so no branch depends on it.
std::array<char, BLOCK> lastOf(const char* end, unsigned left) {
    ULONGLONG word = 0;
    std::memcpy(&word, end - BLOCK, BLOCK);
    const ULONGLONG ones = ~ULONGLONG{0};
    const unsigned bits = 8 * left;
    const bool isLittle = std::endian::native == std::endian::little;
    word &= isLittle ? ~(ones >> bits) : ~(ones << bits);
    return std::bit_cast<std::array<char, BLOCK>>(word);
}

// Tells the log when another text stands under a key's hash.
void logCollision(const void* storedKey, const void* key) {
    const auto* stored = static_cast<const char*>(storedKey);
    if (std::strcmp(stored, static_cast<const char*>(key)) == 0) return;
    zrKelDebugBinLog0(LOG_SOURCE, LINE_COLLISION, LOG_FAILURE);
    zrKelDebugBinBuffer(LOG_SOURCE, LINE_COLLISION_KEY, LOG_FAILURE, stored, std::strlen(stored));
}

}  // namespace

ZrStringLongHashMap::ZrStringLongHashMap(int capacity) noexcept
    : m_keyMap(new (std::nothrow) ZrLLHashMap(capacity, COLUMNS)), m_valueMap(nullptr) {
    if (m_keyMap == nullptr) return;
    m_valueMap = new (std::nothrow) ZrLLHashMap(*m_keyMap);
    if (m_valueMap == nullptr) {
        delete m_keyMap;
        m_keyMap = nullptr;
        return;
    }
    followKeyMap();
}

ZrStringLongHashMap::~ZrStringLongHashMap() {
    if (m_valueMap != nullptr) m_valueMap->m_keys = nullptr;  // the key map's to free
    delete m_valueMap;
    delete m_keyMap;
}

void* ZrStringLongHashMap::put(void* key, void* value) {
    if (m_keyMap == nullptr || key == nullptr) return nullptr;
    void* const hash = asKey(getStringHashCode(static_cast<const char*>(key)));
    ULONG slot = m_keyMap->findToPut(hash);
    if (slot != ZrLLHashMap::NO_SLOT) logCollision(m_keyMap->valueAt(slot, KEY_COLUMN), key);
    if (m_keyMap->isFull()) {
        m_keyMap->rehash();
        followKeyMap();
        slot = m_keyMap->findToPut(hash);
    }
    const bool isNew = slot == ZrLLHashMap::NO_SLOT;
    if (isNew) slot = m_keyMap->insert(hash);
    m_valueMap->m_count = m_keyMap->m_count;
    if (slot == ZrLLHashMap::NO_SLOT) return nullptr;
    m_keyMap->valueAt(slot, KEY_COLUMN) = key;
    void* const old = std::exchange(m_keyMap->valueAt(slot, VALUE_COLUMN), value);
    return isNew ? nullptr : old;
}

void* ZrStringLongHashMap::get(void* key) {
    if (m_valueMap == nullptr || key == nullptr) return nullptr;
    return m_valueMap->ZrLLHashMap::get(asKey(getStringHashCode(static_cast<const char*>(key))));
}

void* ZrStringLongHashMap::remove(void* key) {
    bool found = false;
    bool collision = false;
    const int hash = getHashCodeWithChecking(key, &found, &collision);
    if (!found || collision) return nullptr;
    void* const value = m_valueMap->get(asKey(hash));
    m_keyMap->remove(asKey(hash));
    followKeyMap();
    return value;
}

bool ZrStringLongHashMap::containsKey(void* key) {
    bool found = false;
    bool collision = false;
    getHashCodeWithChecking(key, &found, &collision);
    return found && !collision;
}

int ZrStringLongHashMap::size() {
    return m_keyMap != nullptr ? m_keyMap->size() : 0;
}

ZrIterator* ZrStringLongHashMap::entries() {
    zrKelDebugBinLog0(LOG_SOURCE, LINE_ENTRIES, LOG_FAILURE);
    return nullptr;
}

void ZrStringLongHashMap::clear() {
    if (m_keyMap == nullptr) return;
    m_keyMap->clear();
    followKeyMap();
}

// Each character, with its sign, is added to 37 times what came before it, from 17 on, in 32 bits.
int ZrStringLongHashMap::getStringHashCode(const char* text) {
    const std::size_t length = std::strlen(text);
    const char* const end = text + length;
    ULONG hash = 17;
    for (; end - text >= BLOCK; text += BLOCK) {
        hash = hash * POWERS[BLOCK] + polynomial(text);
    }
    if (length >= static_cast<std::size_t>(BLOCK)) {
        const auto left = static_cast<unsigned>(end - text);
        return static_cast<int>(hash * POWERS[left] + polynomial(lastOf(end, left).data()));
    }
    for (; text != end; ++text) {
        hash = hash * 37 + valueOf(*text);
    }
    return static_cast<int>(hash);
}

// The key's hash; *found when a key with that hash is stored, *collision when it is another one. Both may be NULL.
int ZrStringLongHashMap::getHashCodeWithChecking(void* key, bool* found, bool* collision) const {
    const auto* text = static_cast<const char*>(key);
    const int hash = text != nullptr ? getStringHashCode(text) : 0;
    const bool isThere = text != nullptr && m_keyMap != nullptr;
    const auto* stored = isThere ? static_cast<const char*>(m_keyMap->get(asKey(hash))) : nullptr;
    if (found != nullptr) *found = stored != nullptr;
    if (collision != nullptr) *collision = stored != nullptr && std::strcmp(stored, text) != 0;
    return hash;
}

// After any change to the key map: the value map has the same slots, and its values are the second of each.
void ZrStringLongHashMap::followKeyMap() {
    *m_valueMap = *m_keyMap;
    if (m_valueMap->m_capacity != 0) m_valueMap->m_values = &m_keyMap->valueAt(0, VALUE_COLUMN);
}
