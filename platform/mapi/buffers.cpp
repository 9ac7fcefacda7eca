#include "buffers.h"

#include <cstdint>
#include <cstdlib>

#include "base/live_count.h"
#include "platform/mapi.h"

namespace zr::platform::mapi {
namespace {

// Stands before what the program gets. A buffer of MAPIAllocateBuffer counts as alive; linked ones are part of it.
struct alignas(std::max_align_t) Header {
    Header* linked;
};

Header* header_of(void* buffer) {
    return static_cast<Header*>(buffer) - 1;
}

Header* allocate(std::size_t size) noexcept {
    if (size > SIZE_MAX - sizeof(Header)) return nullptr;
    auto* const header = static_cast<Header*>(std::malloc(sizeof(Header) + size));
    if (header != nullptr) header->linked = nullptr;
    return header;
}

}  // namespace

void* allocate_buffer(std::size_t size) noexcept {
    Header* const header = allocate(size);
    if (header == nullptr) return nullptr;
    count_live(ZrLiveKind::MapiBuffers, 1);
    return header + 1;
}

void free_buffer(void* buffer) noexcept {
    if (buffer == nullptr) return;
    count_live(ZrLiveKind::MapiBuffers, -1);
    for (Header* header = header_of(buffer); header != nullptr;) {
        Header* const next = header->linked;
        std::free(header);
        header = next;
    }
}

}  // namespace zr::platform::mapi

using namespace zr::platform::mapi;

SCODE MAPIAllocateBuffer(ULONG size, LPVOID* buffer) {
    if (buffer == nullptr) return MAPI_E_INVALID_PARAMETER;
    *buffer = allocate_buffer(size);
    return *buffer != nullptr ? S_OK : MAPI_E_NOT_ENOUGH_MEMORY;
}

SCODE MAPIAllocateMore(ULONG size, LPVOID object, LPVOID* buffer) {
    if (buffer == nullptr) return MAPI_E_INVALID_PARAMETER;
    *buffer = nullptr;
    if (object == nullptr) return MAPI_E_INVALID_PARAMETER;
    Header* const header = allocate(size);
    if (header == nullptr) return MAPI_E_NOT_ENOUGH_MEMORY;
    Header* const first = header_of(object);
    header->linked = first->linked;
    first->linked = header;
    *buffer = header + 1;
    return S_OK;
}

ULONG MAPIFreeBuffer(LPVOID buffer) {
    free_buffer(buffer);
    return S_OK;
}

void FreeProws(LPSRowSet rows) {
    if (rows == nullptr) return;
    for (ULONG i = 0; i < rows->cRows; ++i) {
        free_buffer(rows->aRow[i].lpProps);
    }
    free_buffer(rows);
}
