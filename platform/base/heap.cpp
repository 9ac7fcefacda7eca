// The heap and local memory functions.

#include "base/fail.h"
#include "heap_store.h"
#include "platform/base.h"

using zr::platform::block_size;
using zr::platform::BlockHeader;
using zr::platform::fail;
using zr::platform::find_block;
using zr::platform::find_heap;
using zr::platform::Heap;
using zr::platform::process_heap;

namespace {

constexpr SIZE_T kNoSize = static_cast<SIZE_T>(-1);

BlockHeader* find_local(HLOCAL block) {
    return find_block(process_heap(), block);
}

}  // namespace

HANDLE GetProcessHeap() noexcept {
    return process_heap();
}

HANDLE HeapCreate(DWORD, SIZE_T, SIZE_T maximum) {
    Heap* const heap = zr::platform::create_heap(maximum);
    return heap == nullptr ? fail<HANDLE>(ERROR_NOT_ENOUGH_MEMORY, nullptr) : heap;
}

BOOL HeapDestroy(HANDLE heap) {
    if (!zr::platform::destroy_heap(static_cast<Heap*>(heap))) return fail(ERROR_INVALID_HANDLE, FALSE);
    return TRUE;
}

void* HeapAlloc(HANDLE heap, DWORD flags, SIZE_T bytes) {
    Heap* const found = find_heap(heap);
    if (found == nullptr) return fail<void*>(ERROR_INVALID_HANDLE, nullptr);
    void* const block = found->allocate(bytes, (flags & HEAP_ZERO_MEMORY) != 0);
    return block == nullptr ? fail<void*>(ERROR_NOT_ENOUGH_MEMORY, nullptr) : block;
}

void* HeapReAlloc(HANDLE heap, DWORD flags, void* block, SIZE_T bytes) {
    Heap* const found = find_heap(heap);
    if (found == nullptr) return fail<void*>(ERROR_INVALID_HANDLE, nullptr);
    BlockHeader* const header = find_block(found, block);
    if (header == nullptr) return fail<void*>(ERROR_INVALID_PARAMETER, nullptr);
    if ((flags & HEAP_REALLOC_IN_PLACE_ONLY) != 0 && bytes != block_size(header)) {
        return fail<void*>(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    }
    void* const moved = found->reallocate(header, bytes, (flags & HEAP_ZERO_MEMORY) != 0);
    return moved == nullptr ? fail<void*>(ERROR_NOT_ENOUGH_MEMORY, nullptr) : moved;
}

BOOL HeapFree(HANDLE heap, DWORD, void* block) {
    Heap* const found = find_heap(heap);
    if (found == nullptr) return fail(ERROR_INVALID_HANDLE, FALSE);
    if (block == nullptr) return TRUE;
    BlockHeader* const header = find_block(found, block);
    if (header == nullptr) return fail(ERROR_INVALID_PARAMETER, FALSE);
    found->free(header);
    return TRUE;
}

SIZE_T HeapSize(HANDLE heap, DWORD, const void* block) {
    Heap* const found = find_heap(heap);
    const BlockHeader* const header = found == nullptr ? nullptr : find_block(found, block);
    return header == nullptr ? kNoSize : block_size(header);
}

BOOL HeapValidate(HANDLE heap, DWORD, const void* block) {
    Heap* const found = find_heap(heap);
    if (found == nullptr) return FALSE;
    return block == nullptr || find_block(found, block) != nullptr ? TRUE : FALSE;
}

HLOCAL LocalAlloc(UINT flags, SIZE_T bytes) {
    return HeapAlloc(process_heap(), (flags & LMEM_ZEROINIT) != 0 ? HEAP_ZERO_MEMORY : 0, bytes);
}

HLOCAL LocalReAlloc(HLOCAL block, SIZE_T bytes, UINT flags) {
    if (find_local(block) == nullptr) return fail<HLOCAL>(ERROR_INVALID_HANDLE, nullptr);
    if ((flags & LMEM_MODIFY) != 0) return block;
    return HeapReAlloc(process_heap(), (flags & LMEM_ZEROINIT) != 0 ? HEAP_ZERO_MEMORY : 0, block, bytes);
}

HLOCAL LocalFree(HLOCAL block) {
    if (block == nullptr) return nullptr;
    BlockHeader* const header = find_local(block);
    if (header == nullptr) return fail(ERROR_INVALID_HANDLE, block);
    process_heap()->free(header);
    return nullptr;
}

SIZE_T LocalSize(HLOCAL block) {
    const BlockHeader* const header = find_local(block);
    return header == nullptr ? fail<SIZE_T>(ERROR_INVALID_HANDLE, 0) : block_size(header);
}

LPVOID LocalLock(HLOCAL block) {
    return find_local(block) == nullptr ? fail<LPVOID>(ERROR_INVALID_HANDLE, nullptr) : block;
}

BOOL LocalUnlock(HLOCAL block) {
    return fail(find_local(block) == nullptr ? ERROR_INVALID_HANDLE : NO_ERROR, FALSE);
}

HLOCAL LocalHandle(LPCVOID address) {
    return LocalLock(const_cast<LPVOID>(address));
}

UINT LocalFlags(HLOCAL block) {
    return find_local(block) == nullptr ? fail(ERROR_INVALID_HANDLE, LMEM_INVALID_HANDLE) : 0;
}

HGLOBAL GlobalAlloc(UINT flags, SIZE_T bytes) {
    return LocalAlloc(flags, bytes);
}

HGLOBAL GlobalReAlloc(HGLOBAL block, SIZE_T bytes, UINT flags) {
    return LocalReAlloc(block, bytes, flags);
}

HGLOBAL GlobalFree(HGLOBAL block) {
    return LocalFree(block);
}

SIZE_T GlobalSize(HGLOBAL block) {
    return LocalSize(block);
}

LPVOID GlobalLock(HGLOBAL block) {
    return LocalLock(block);
}

BOOL GlobalUnlock(HGLOBAL block) {
    return LocalUnlock(block);
}

HGLOBAL GlobalHandle(LPCVOID address) {
    return LocalHandle(address);
}

UINT GlobalFlags(HGLOBAL block) {
    return LocalFlags(block);
}
