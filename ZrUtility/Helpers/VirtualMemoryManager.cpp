#include "ZrUtility/Helpers/VirtualMemoryManager.h"

#include <algorithm>
#include <new>

#include "platform/memory.h"

namespace {

constexpr SIZE_T REGION_SIZE = SIZE_T{VirtualMemoryManager::BLOCK_SIZE} * VirtualMemoryManager::BLOCK_COUNT;
static_assert(REGION_SIZE == 0x200000);

}  // namespace

VirtualMemoryManager* VirtualMemoryManager::m_pInstance = nullptr;
VirtualMemoryManager::Releaser VirtualMemoryManager::m_Releaser;

VirtualMemoryManager::Releaser::~Releaser() {
    VirtualMemoryManager::Release();
}

VirtualMemoryManager* VirtualMemoryManager::GetInstance() {
    if (m_pInstance == nullptr) m_pInstance = new (std::nothrow) VirtualMemoryManager;
    return m_pInstance;
}

int VirtualMemoryManager::Release() {
    if (m_pInstance == nullptr) return 0;
    delete m_pInstance;
    m_pInstance = nullptr;
    return 1;
}

VirtualMemoryManager::VirtualMemoryManager()
    : m_base(static_cast<char*>(VirtualAlloc(nullptr, REGION_SIZE, MEM_RESERVE, PAGE_READWRITE))), m_blocks() {}

VirtualMemoryManager::~VirtualMemoryManager() {
    if (m_base == nullptr) return;
    DecommitMemory(0, BLOCK_COUNT);
    VirtualFree(m_base, 0, MEM_RELEASE);
    m_base = nullptr;
}

// The first of `count` free blocks in a row, the lowest there are; -1 when there are not so many.
int VirtualMemoryManager::FindFreeRun(ULONG count) const {
    ULONG run = 0;
    for (unsigned int i = 0; i < BLOCK_COUNT; ++i) {
        run = m_blocks[i] == nullptr ? run + 1 : 0;
        if (run == count) return static_cast<int>(i + 1 - count);
    }
    return -1;
}

void* VirtualMemoryManager::GetMemory(ULONG* size) {
    if (size == nullptr) return nullptr;
    const ULONG count = *size / BLOCK_SIZE + (*size % BLOCK_SIZE != 0 ? 1 : 0);
    const int first = count != 0 ? FindFreeRun(count) : -1;
    if (first < 0 || CommitMemory(static_cast<unsigned int>(first), count) == 0) return nullptr;
    *size = count * BLOCK_SIZE;
    return m_blocks[first];
}

int VirtualMemoryManager::CommitMemory(unsigned int first, unsigned int count) {
    // Not up to the last block: whoever counts on 63 of them shall go on to find 63.
    if (m_base == nullptr || first >= BLOCK_COUNT || count >= BLOCK_COUNT - first) return 0;
    char* const start = m_base + SIZE_T{first} * BLOCK_SIZE;
    if (VirtualAlloc(start, SIZE_T{count} * BLOCK_SIZE, MEM_COMMIT, PAGE_READWRITE) == nullptr) return 0;
    for (unsigned int i = 0; i < count; ++i) {
        m_blocks[first + i] = start + SIZE_T{i} * BLOCK_SIZE;
    }
    return 1;
}

// Takes the memory from the blocks from `first` up to `end` that have any; neighbours in one call of the system.
void VirtualMemoryManager::DecommitMemory(unsigned int first, unsigned int end) {
    for (unsigned int i = first; i < end; ++i) {
        void* const start = m_blocks[i];
        unsigned int count = 0;
        for (; i < end && m_blocks[i] != nullptr; ++i, ++count) {
            m_blocks[i] = nullptr;
        }
        if (count != 0) VirtualFree(start, SIZE_T{count} * BLOCK_SIZE, MEM_DECOMMIT);
    }
}

int VirtualMemoryManager::FreeMemory(void* memory, ULONG size) {
    if (memory == nullptr || size == 0) return 0;
    const auto offset =
        static_cast<std::intptr_t>(reinterpret_cast<std::uintptr_t>(memory) - reinterpret_cast<std::uintptr_t>(m_base));
    constexpr std::intptr_t blocks = BLOCK_COUNT;
    const std::intptr_t index = offset / static_cast<std::intptr_t>(BLOCK_SIZE);
    const std::intptr_t count = static_cast<std::intptr_t>(size / BLOCK_SIZE);
    if (index >= blocks || count == 0) return 0;
    const std::intptr_t end = std::min(index + count, blocks);
    if (end > 0)
        DecommitMemory(static_cast<unsigned int>(std::max<std::intptr_t>(index, 0)), static_cast<unsigned int>(end));
    return 0;
}
