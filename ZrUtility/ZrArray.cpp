#include "ZrUtility/ZrArray.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>

#include "ZrLog/ZrLog.h"

namespace {

constexpr const char* kSource = ".\\ZrArray.cppzrwindowsmobile";
constexpr std::uint32_t kContainers = 0xA8;
constexpr std::uint32_t kFailure = zrLogCategory(kContainers, kZrLogFailure);
constexpr std::uint32_t kInformation = zrLogCategory(kContainers, kZrLogInformation);

// The log's readers know these records by their lines.
constexpr int kLineGrown = 68;
constexpr int kLineNoRoom = 81;
constexpr int kLineNotAppended = 102;

constexpr long long kLargest = std::numeric_limits<int>::max();

std::uintptr_t argument(int size) {
    return static_cast<std::uintptr_t>(size);
}

}  // namespace

ZrArray::ZrArray(int elementSize, int capacity)
    : m_pData(nullptr),
      m_pNext(nullptr),
      m_nElementSize(std::max(elementSize, 0)),
      m_nCount(0),
      m_nTotalSize(0),
      m_bOwned(true),
      m_nGrowBy(0) {
    const long long bytes = static_cast<long long>(m_nElementSize) * std::max(capacity, 0);
    if (bytes > 0 && bytes <= kLargest)
        m_pData = static_cast<unsigned char*>(std::calloc(1, static_cast<std::size_t>(bytes)));
    if (m_pData != nullptr) m_nTotalSize = static_cast<int>(bytes);
    init();
}

ZrArray::ZrArray(void* buffer, int elementSize, int count, int totalSize, bool owned)
    : m_pData(static_cast<unsigned char*>(buffer)),
      m_pNext(nullptr),
      m_nElementSize(std::max(elementSize, 0)),
      m_nCount(std::max(count, 0)),
      m_nTotalSize(std::max(totalSize, 0)),
      m_bOwned(owned),
      m_nGrowBy(0) {
    init();
}

ZrArray::~ZrArray() {
    if (!m_bOwned) return;
    std::free(m_pData);
    m_pData = nullptr;
}

void ZrArray::init() {
    m_pNext = static_cast<unsigned char*>(getElementByIndex(m_nCount));
    if (m_bOwned && m_nElementSize > 0) m_nGrowBy = std::max(m_nTotalSize / m_nElementSize / 2, 1) * m_nElementSize;
}

inline bool ZrArray::hasRoom() const {
    return m_nElementSize > 0 && m_pData != nullptr && m_pData + m_nTotalSize - m_pNext >= m_nElementSize;
}

void* ZrArray::acquireSlot() {
    if (!hasRoom() && !grow()) {
        zrKelDebugBinLog0(kSource, kLineNoRoom, kFailure);
        return m_pData != nullptr && m_nCount > 0 ? m_pNext - m_nElementSize : nullptr;
    }
    unsigned char* slot = takeSlot(m_nElementSize);
    std::memset(slot, 0, static_cast<std::size_t>(m_nElementSize));
    return slot;
}

// A buffer that destroy() has taken away is not built up again: what was in it is lost.
bool ZrArray::grow() {
    if (m_nGrowBy == 0 || (m_pData == nullptr && m_nTotalSize != 0)) return false;
    const long long bytes = static_cast<long long>(m_nTotalSize) + m_nGrowBy;
    void* buffer = bytes <= kLargest ? std::realloc(m_pData, static_cast<std::size_t>(bytes)) : nullptr;
    if (buffer == nullptr) return false;
    const int total = static_cast<int>(bytes);
    zrKelDebugBinLog2(kSource, kLineGrown, kInformation, argument(m_nTotalSize), argument(total));
    m_pData = static_cast<unsigned char*>(buffer);
    std::memset(m_pData + m_nTotalSize, 0, static_cast<std::size_t>(m_nGrowBy));
    m_nTotalSize = total;
    m_pNext = static_cast<unsigned char*>(getElementByIndex(m_nCount));
    return true;
}

int ZrArray::appendToAcquired(const void* element) {
    if (element == nullptr) return 0;
    const auto from = reinterpret_cast<std::uintptr_t>(element);
    const auto before = reinterpret_cast<std::uintptr_t>(m_pData);
    const std::uintptr_t bytesBefore = argument(m_nTotalSize);
    void* slot = acquireSlot();
    if (slot == nullptr) {
        zrKelDebugBinLog0(kSource, kLineNotAppended, kFailure);
        return 0;
    }
    // An element of this array has moved with the buffer.
    if (before != reinterpret_cast<std::uintptr_t>(m_pData) && from >= before && from - before < bytesBefore)
        element = m_pData + (from - before);
    std::memmove(slot, element, static_cast<std::size_t>(m_nElementSize));
    return 1;
}

int ZrArray::removeElement(int index) {
    if (index < 0 || index >= m_nCount || m_pData == nullptr) return 0;
    auto* gap = static_cast<unsigned char*>(getElementByIndex(index));
    unsigned char* after = gap + m_nElementSize;
    std::memmove(gap, after, static_cast<std::size_t>(m_pNext - after));
    --m_nCount;
    m_pNext -= m_nElementSize;
    return 1;
}

void ZrArray::reset() {
    m_nCount = 0;
    m_pNext = m_pData;
    if (m_pData != nullptr) std::memset(m_pData, 0, static_cast<std::size_t>(m_nTotalSize));
}

void ZrArray::destroy() {
    std::free(m_pData);
    m_pData = nullptr;
}
