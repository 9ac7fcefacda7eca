#include "ZrUtility/ZrStringLongHashMap.h"

#include <cstring>
#include <new>

#include "ZrLog/ZrLog.h"
#include "ZrUtility/ZrLLHashMap.h"

namespace {

constexpr const char* LOG_SOURCE = ".\\ZrStringLongHashMap.cppzrwindowsmobile";
constexpr std::uint32_t LOG_FAILURE = zrLogCategory(0xA8, kZrLogFailure);
constexpr int LINE_COLLISION = 107;
constexpr int LINE_COLLISION_KEY = 108;
constexpr int LINE_ENTRIES = 118;

void* asKey(int hash) {
    return reinterpret_cast<void*>(static_cast<LONG_PTR>(hash));
}

}  // namespace

ZrStringLongHashMap::ZrStringLongHashMap(int capacity) noexcept
    : m_keyMap(new (std::nothrow) ZrLLHashMap(capacity)), m_valueMap(new (std::nothrow) ZrLLHashMap(capacity)) {}

ZrStringLongHashMap::~ZrStringLongHashMap() {
    delete m_keyMap;
    delete m_valueMap;
}

void* ZrStringLongHashMap::put(void* key, void* value) {
    if (!isUsable() || key == nullptr) return nullptr;
    bool collision = false;
    void* const hash = asKey(getHashCodeWithChecking(key, nullptr, &collision));
    if (collision) {
        const auto* stored = static_cast<const char*>(m_keyMap->get(hash));
        zrKelDebugBinLog0(LOG_SOURCE, LINE_COLLISION, LOG_FAILURE);
        zrKelDebugBinBuffer(LOG_SOURCE, LINE_COLLISION_KEY, LOG_FAILURE, stored, std::strlen(stored));
    }
    m_keyMap->put(hash, key);
    void* const old = m_valueMap->put(hash, value);
    if (m_keyMap->size() != m_valueMap->size()) {
        // Memory was short for one of the two maps, so the key is in neither.
        m_keyMap->remove(hash);
        m_valueMap->remove(hash);
    }
    return old;
}

void* ZrStringLongHashMap::get(void* key) {
    if (!isUsable() || key == nullptr) return nullptr;
    return m_valueMap->get(asKey(getStringHashCode(static_cast<const char*>(key))));
}

void* ZrStringLongHashMap::remove(void* key) {
    bool found = false;
    bool collision = false;
    const int hash = getHashCodeWithChecking(key, &found, &collision);
    if (!found || collision) return nullptr;
    m_keyMap->remove(asKey(hash));
    return m_valueMap->remove(asKey(hash));
}

bool ZrStringLongHashMap::containsKey(void* key) {
    bool found = false;
    bool collision = false;
    getHashCodeWithChecking(key, &found, &collision);
    return found && !collision;
}

int ZrStringLongHashMap::size() {
    return isUsable() ? m_keyMap->size() : 0;
}

ZrIterator* ZrStringLongHashMap::keys() {
    return isUsable() ? m_keyMap->values() : nullptr;
}

ZrIterator* ZrStringLongHashMap::values() {
    return isUsable() ? m_valueMap->values() : nullptr;
}

ZrIterator* ZrStringLongHashMap::entries() {
    zrKelDebugBinLog0(LOG_SOURCE, LINE_ENTRIES, LOG_FAILURE);
    return nullptr;
}

void ZrStringLongHashMap::clear() {
    if (!isUsable()) return;
    m_keyMap->clear();
    m_valueMap->clear();
}

// In 32 bits, each character with its sign.
int ZrStringLongHashMap::getStringHashCode(const char* text) {
    ULONG hash = 17;
    for (; *text != 0; ++text) {
        hash = hash * 37 + static_cast<ULONG>(static_cast<signed char>(*text));
    }
    return static_cast<int>(hash);
}

// The key's hash; *found when a key with that hash is stored, *collision when it is another one. Both may be NULL.
int ZrStringLongHashMap::getHashCodeWithChecking(void* key, bool* found, bool* collision) const {
    const auto* text = static_cast<const char*>(key);
    const int hash = text != nullptr ? getStringHashCode(text) : 0;
    const bool usable = isUsable() && text != nullptr;
    const auto* stored = usable ? static_cast<const char*>(m_keyMap->get(asKey(hash))) : nullptr;
    if (found != nullptr) *found = stored != nullptr;
    if (collision != nullptr) *collision = stored != nullptr && std::strcmp(stored, text) != 0;
    return hash;
}

// Both maps could be had.
bool ZrStringLongHashMap::isUsable() const {
    return m_keyMap != nullptr && m_valueMap != nullptr;
}
