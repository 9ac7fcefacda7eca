#include "ZrUtility/ZrStringLongHashMap.h"

#include <cstring>
#include <new>
#include <utility>

#include "ZrLog/ZrLog.h"
#include "ZrUtility/ZrLLHashMap.h"

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

constexpr ULONG powerOf37(int exponent) {
    return exponent == 0 ? 1 : 37 * powerOf37(exponent - 1);
}

// What COUNT characters add to a hash. The products do not wait for each other.
template <int COUNT>
ULONG polynomial(const char* text) {
    ULONG sum = 0;
    for (int i = 0; i < COUNT; ++i) {
        sum += static_cast<ULONG>(static_cast<signed char>(text[i])) * powerOf37(COUNT - 1 - i);
    }
    return sum;
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
    bool collision = false;
    const int hash = getHashCodeWithChecking(key, nullptr, &collision);
    if (collision) {
        const auto* stored = static_cast<const char*>(m_keyMap->get(asKey(hash)));
        zrKelDebugBinLog0(LOG_SOURCE, LINE_COLLISION, LOG_FAILURE);
        zrKelDebugBinBuffer(LOG_SOURCE, LINE_COLLISION_KEY, LOG_FAILURE, stored, std::strlen(stored));
    }
    const ULONG slot = m_keyMap->claim(asKey(hash));
    followKeyMap();
    if (slot == ZrLLHashMap::NO_SLOT) return nullptr;
    m_keyMap->valueAt(slot, KEY_COLUMN) = key;
    return std::exchange(m_keyMap->valueAt(slot, VALUE_COLUMN), value);
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

ZrIterator* ZrStringLongHashMap::keys() {
    return m_keyMap != nullptr ? m_keyMap->values() : nullptr;
}

ZrIterator* ZrStringLongHashMap::values() {
    return m_valueMap != nullptr ? m_valueMap->values() : nullptr;
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
    std::size_t left = std::strlen(text);
    ULONG hash = 17;
    for (; left >= 8; left -= 8, text += 8) {
        hash = hash * powerOf37(8) + polynomial<8>(text);
    }
    if (left >= 4) {
        hash = hash * powerOf37(4) + polynomial<4>(text);
        left -= 4;
        text += 4;
    }
    for (; left != 0; --left, ++text) {
        hash = hash * 37 + polynomial<1>(text);
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
