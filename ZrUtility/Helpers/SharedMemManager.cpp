#include "ZrUtility/Helpers/SharedMemManager.h"

#include <algorithm>
#include <bit>
#include <climits>
#include <cstring>

#include "ZrUtility/Helpers/StringUtilities.h"

namespace {

using Header = SharedMemManager::SharedMemHeader;

constexpr ULONG HEADER_SIZE = 8;
constexpr ULONG LARGEST_CONTENT = 0xFFFFFFFF - HEADER_SIZE;
constexpr std::size_t COMPARED_CHARACTERS = 259;

static_assert(sizeof(Header) == HEADER_SIZE);

bool IsNullOrEmpty(const WCHAR* name) {
    return name == nullptr || *name == 0;
}

// Whether the names are equal in the characters that are compared. Here and not by wcsncmp, as each call looks a name
// up.
bool IsSameName(const WCHAR* left, const WCHAR* right) {
#pragma GCC unroll 8
    for (std::size_t i = 0; i < COMPARED_CHARACTERS; ++i) {
        const WCHAR character = left[i];
        if (character != right[i]) return false;
        if (character == 0) return true;
    }
    return true;
}

unsigned char* Map(HANDLE mapping, SIZE_T size) {
    return static_cast<unsigned char*>(MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, size));
}

void Unmap(unsigned char*& view) {
    if (view == nullptr) return;
    UnmapViewOfFile(view);
    view = nullptr;
}

// The fields of a region are little-endian, whatever the machine is.
ULONG LittleEndian(ULONG value) {
    if constexpr (std::endian::native == std::endian::little) return value;
    return value >> 24 | (value >> 8 & 0xFF00) | (value << 8 & 0xFF0000) | value << 24;
}

Header LoadHeader(const unsigned char* region) {
    Header header;
    std::memcpy(&header, region, sizeof header);
    return {LittleEndian(header.size), LittleEndian(header.contentLength)};
}

void StoreHeader(unsigned char* region, const Header& header) {
    const Header stored{LittleEndian(header.size), LittleEndian(header.contentLength)};
    std::memcpy(region, &stored, sizeof stored);
}

// The header and `length` bytes of content; 0, of which there is no view, when this target has no such size.
SIZE_T WithHeader(ULONG length) {
    const SIZE_T whole = SIZE_T{length} + HEADER_SIZE;
    return whole > length ? whole : 0;
}

}  // namespace

// ---- A slot

SharedMemManager::SharedMemInfo::SharedMemInfo()
    : identifier(nullptr),
      mapping(nullptr),
      view(nullptr),
      header(),
      m_viewSize(0),
      m_writingView(nullptr),
      m_writingViewSize(0) {}

void SharedMemManager::SharedMemInfo::SetIdentifier(WCHAR* name, unsigned int length) {
    const std::size_t count = name != nullptr ? wcsnlen(name, length) : 0;
    WCHAR* copy = nullptr;
    if (name != nullptr && count < INT_MAX) copy = StringUtilities::NewString(static_cast<int>(count) + 1);
    if (copy != nullptr) {
        std::copy_n(name, count, copy);
        copy[count] = 0;
    }
    StringUtilities::DeleteString(identifier);
    identifier = copy;
}

void SharedMemManager::SharedMemInfo::ReleaseMem() {
    Unmap(view);
    Unmap(m_writingView);
    if (mapping != nullptr) CloseHandle(mapping);
    mapping = nullptr;
    StringUtilities::DeleteString(identifier);
    header = {};
}

// ---- Slots

SharedMemManager::SharedMemManager() : m_highestSlot(-1) {}

SharedMemManager::~SharedMemManager() {
    ReleaseAll();
    for (SharedMemInfo& slot : m_slots) {
        slot.ReleaseMem();
    }
}

int SharedMemManager::GetNextUsableStruct() {
    int highestUsed = -1;
    int lowestFree = -1;
    for (int i = std::min(m_highestSlot + 1, SLOTS - 1); i >= 0; --i) {
        if (m_slots[i].identifier == nullptr) {
            lowestFree = i;
        } else {
            highestUsed = std::max(highestUsed, i);
        }
    }
    m_highestSlot = std::max(highestUsed, lowestFree);
    return lowestFree;
}

int SharedMemManager::GetMemStruct(const WCHAR* name) const {
    for (int i = 0; i <= m_highestSlot; ++i) {
        const WCHAR* identifier = m_slots[i].identifier;
        if (identifier != nullptr && IsSameName(identifier, name)) return i;
    }
    return -1;
}

SharedMemManager::SharedMemInfo* SharedMemManager::Find(const WCHAR* name) {
    const int slot = IsNullOrEmpty(name) ? -1 : GetMemStruct(name);
    return slot >= 0 ? &m_slots[slot] : nullptr;
}

// ---- Opening and releasing

LONG SharedMemManager::CreateOrOpen(WCHAR* const name, ULONG size, ULONG protection, SharedMemInfo** info) {
    if (info != nullptr) *info = nullptr;
    const int index = GetNextUsableStruct();
    if (index < 0) return E_OUTOFMEMORY;
    if (IsNullOrEmpty(name)) return E_INVALIDARG;
    SetLastError(ERROR_SUCCESS);
    const HANDLE mapping = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, protection, 0, size, name);
    if (mapping == nullptr) return E_FAIL;
    const bool existed = GetLastError() != ERROR_SUCCESS;
    SharedMemInfo* slot = &m_slots[index];
    slot->mapping = mapping;
    slot->SetIdentifier(name, static_cast<unsigned int>(wcslen(name)));
    if (slot->identifier == nullptr) {
        slot->ReleaseMem();
        return E_OUTOFMEMORY;
    }
    if (info != nullptr) *info = slot;
    if (!existed) SetHeader(slot, {size, 0});
    return S_OK;
}

LONG SharedMemManager::Create(WCHAR* const name, ULONG size, ULONG protection, SharedMemInfo** info) {
    // A region that passes 32 bits is refused as one of no size is.
    const ULONG whole = size <= LARGEST_CONTENT ? size + HEADER_SIZE : 0;
    if (info != nullptr) *info = nullptr;
    SharedMemInfo* slot = nullptr;
    const LONG result = CreateOrOpen(name, whole, protection, &slot);
    if (slot != nullptr && GetLastError() == ERROR_ALREADY_EXISTS) {
        slot->ReleaseMem();
        return E_FAIL;
    }
    if (info != nullptr) *info = slot;
    return result;
}

LONG SharedMemManager::Open(WCHAR* const name, ULONG protection, SharedMemInfo** info) {
    if (info != nullptr) *info = nullptr;
    SharedMemInfo* slot = Find(name);
    LONG result = S_OK;
    if (slot == nullptr) {
        result = CreateOrOpen(name, 1, protection, &slot);
        if (slot != nullptr && GetLastError() != ERROR_ALREADY_EXISTS) {
            slot->ReleaseMem();
            return E_INVALIDARG;
        }
    }
    if (info != nullptr) *info = slot;
    return result;
}

LONG SharedMemManager::Release(WCHAR* const name) {
    SharedMemInfo* slot = Find(name);
    if (slot == nullptr) return E_INVALIDARG;
    slot->ReleaseMem();
    return S_OK;
}

LONG SharedMemManager::ReleaseAll() {
    SetLastError(ERROR_SUCCESS);
    for (int i = 0; i <= m_highestSlot; ++i) {
        m_slots[i].ReleaseMem();
    }
    return GetLastError() != ERROR_SUCCESS ? E_FAIL : S_OK;
}

// ---- Headers and contents

LONG SharedMemManager::GetHeader(WCHAR* const name, SharedMemHeader* header) {
    return GetContent(name, nullptr, header);
}

LONG SharedMemManager::GetContent(WCHAR* const name, unsigned char** content, SharedMemHeader* header) {
    SharedMemInfo* slot = Find(name);
    return slot != nullptr ? GetContent(slot, content, header) : E_INVALIDARG;
}

LONG SharedMemManager::SetContent(WCHAR* const name, unsigned char* data, ULONG length) {
    SharedMemInfo* slot = Find(name);
    return slot != nullptr ? SetContent(slot, data, length) : E_INVALIDARG;
}

LONG SharedMemManager::CleanContent(WCHAR* const name) {
    SharedMemInfo* slot = Find(name);
    if (slot == nullptr) return E_INVALIDARG;
    SharedMemHeader header{};
    if (GetHeader(slot, &header) < 0) return S_OK;
    return SetHeader(slot, {header.size, 0});
}

LONG SharedMemManager::GetHeader(SharedMemInfo* slot, SharedMemHeader* header) {
    if (slot->header.size == 0) {
        unsigned char* region = Map(slot->mapping, HEADER_SIZE);
        if (region == nullptr) return E_ACCESSDENIED;
        slot->header = LoadHeader(region);
        Unmap(region);
    }
    *header = slot->header;
    return S_OK;
}

LONG SharedMemManager::SetHeader(SharedMemInfo* slot, const SharedMemHeader& header) {
    if (slot == nullptr || header.size == 0) return S_OK;
    unsigned char* region = Map(slot->mapping, HEADER_SIZE);
    if (region == nullptr) return E_ACCESSDENIED;
    StoreHeader(region, header);
    Unmap(region);
    return S_OK;
}

LONG SharedMemManager::GetContent(SharedMemInfo* slot, unsigned char** content, SharedMemHeader* header) {
    SharedMemHeader read{};
    const LONG result = GetHeader(slot, &read);
    if (result < 0) return result;
    if (content != nullptr) {
        const SIZE_T size = WithHeader(read.contentLength);
        if (slot->view == nullptr && size != 0) {
            slot->view = Map(slot->mapping, size);
            slot->m_viewSize = size;
        }
        if (slot->view == nullptr) return E_ACCESSDENIED;
        *content = slot->view + HEADER_SIZE;
    }
    if (header != nullptr) *header = read;
    return S_OK;
}

LONG SharedMemManager::SetContent(SharedMemInfo* slot, const unsigned char* data, ULONG length) {
    if (data == nullptr || length == 0) return S_OK;
    SharedMemHeader header{};
    const LONG result = GetHeader(slot, &header);
    if (result < 0) return result;
    if (length >= header.size) return E_OUTOFMEMORY;
    unsigned char* region = ViewForWriting(slot, WithHeader(length));
    if (region == nullptr) return E_ACCESSDENIED;
    StoreHeader(region, {header.size, length});
    std::memcpy(region + HEADER_SIZE, data, length);
    return S_OK;
}

// The view that GetContent keeps was mapped for the content of that time and must stay where it is; what it has no room
// for is written through another one, which is no view of the slot's and goes with it.
unsigned char* SharedMemManager::ViewForWriting(SharedMemInfo* slot, SIZE_T size) {
    if (size == 0) return nullptr;
    if (slot->view != nullptr && slot->m_viewSize >= size) return slot->view;
    if (slot->m_writingView == nullptr || slot->m_writingViewSize < size) {
        Unmap(slot->m_writingView);
        slot->m_writingView = Map(slot->mapping, size);
        slot->m_writingViewSize = size;
    }
    return slot->m_writingView;
}
