// BSTRs and task memory.
//
// A string is a block with a header in front of the characters. Freed blocks of common sizes stay with their thread,
// as programs read and free many short strings in a row.

#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <string>

#include "base/live_count.h"
#include "platform/com.h"

namespace {

using zr::platform::count_live;

struct Header {
    std::uint32_t size_class;  // 0: not one of the recycled sizes
    std::uint32_t bytes;       // without the terminator; the word in front of the characters, as everywhere
};
static_assert(sizeof(Header) == 8);

constexpr std::size_t kStep = 32;
constexpr std::size_t kClasses = 17;  // blocks of 32 to 512 bytes
constexpr std::uint32_t kKept = 64;   // of each size

// The address checker sees a use after free only when blocks are not handed out again at once.
#if defined(ZR_SANITIZE_ADDRESS)
constexpr bool kRecycle = false;
#else
constexpr bool kRecycle = true;
#endif

struct FreeBlock {
    FreeBlock* next;
};

enum class CacheState : std::uint8_t { Unused, Open, Closed };

struct Cache {
    FreeBlock* first[kClasses];
    std::uint32_t count[kClasses];
    CacheState state;
};
constinit thread_local Cache cache = {};

// Empties the thread's cache when the thread ends; strings freed after that go straight back.
struct CacheEnd {
    ~CacheEnd() {
        cache.state = CacheState::Closed;
        for (FreeBlock*& first : cache.first) {
            while (first != nullptr) {
                FreeBlock* block = first;
                first = block->next;
                std::free(block);
            }
        }
    }
};

bool open_cache() {
    if (cache.state == CacheState::Unused) {
        thread_local CacheEnd end;
        static_cast<void>(end);
        cache.state = CacheState::Open;
    }
    return cache.state == CacheState::Open;
}

void* allocate_block(std::size_t size, std::uint32_t size_class) {
    if (kRecycle && size_class != 0) {
        if (FreeBlock* block = cache.first[size_class]) {
            cache.first[size_class] = block->next;
            --cache.count[size_class];
            return block;
        }
        return std::malloc(size_class * kStep);
    }
    return std::malloc(size);
}

void free_block(Header* header) {
    const std::uint32_t size_class = header->size_class;
    if (kRecycle && size_class != 0 && cache.count[size_class] < kKept &&
        (cache.state == CacheState::Open || open_cache())) {
        auto* block = reinterpret_cast<FreeBlock*>(header);
        block->next = cache.first[size_class];
        cache.first[size_class] = block;
        ++cache.count[size_class];
        return;
    }
    std::free(header);
}

Header* header_of(BSTR string) {
    return reinterpret_cast<Header*>(string) - 1;
}

// A terminated string of `bytes` bytes, otherwise unset.
BSTR allocate(std::size_t bytes) {
    if (bytes > std::numeric_limits<std::uint32_t>::max() - 64) return nullptr;
    const std::size_t size = sizeof(Header) + bytes + sizeof(WCHAR) + (bytes & 1);
    const std::size_t size_class = (size + kStep - 1) / kStep;
    const auto recycled = static_cast<std::uint32_t>(size_class < kClasses ? size_class : 0);
    auto* header = static_cast<Header*>(allocate_block(size, recycled));
    if (header == nullptr) return nullptr;
    header->size_class = recycled;
    header->bytes = static_cast<std::uint32_t>(bytes);
    char* data = reinterpret_cast<char*>(header + 1);
    std::memset(data + bytes, 0, sizeof(WCHAR) + (bytes & 1));
    count_live(ZrLiveKind::Strings, 1);
    return reinterpret_cast<BSTR>(data);
}

}  // namespace

BSTR SysAllocString(LPCWSTR text) {
    if (text == nullptr) return nullptr;
    const std::size_t bytes = std::char_traits<WCHAR>::length(text) * sizeof(WCHAR);
    const BSTR string = allocate(bytes);
    if (string != nullptr) std::memcpy(string, text, bytes);
    return string;
}

BSTR SysAllocStringLen(LPCWSTR text, UINT length) {
    const std::size_t bytes = std::size_t{length} * sizeof(WCHAR);
    const BSTR string = allocate(bytes);
    if (string != nullptr && text != nullptr) std::memcpy(string, text, bytes);
    return string;
}

BSTR SysAllocStringByteLen(LPCSTR bytes, UINT size) {
    const BSTR string = allocate(size);
    if (string != nullptr && bytes != nullptr) std::memcpy(string, bytes, size);
    return string;
}

INT SysReAllocString(BSTR* string, LPCWSTR text) {
    if (string == nullptr) return FALSE;
    const BSTR fresh = SysAllocString(text);
    if (fresh == nullptr && text != nullptr) return FALSE;
    SysFreeString(*string);
    *string = fresh;
    return TRUE;
}

INT SysReAllocStringLen(BSTR* string, LPCWSTR text, UINT length) {
    if (string == nullptr) return FALSE;
    // Without a text, or with one inside the string itself, no more is there than the string holds.
    const char* const old = reinterpret_cast<const char*>(*string);
    const char* from = text == nullptr ? old : reinterpret_cast<const char*>(text);
    const char* const end = old == nullptr ? nullptr : old + SysStringByteLen(*string);
    const bool inside = old != nullptr && std::less_equal<>()(old, from) && std::less_equal<>()(from, end);
    const BSTR fresh = SysAllocStringLen(inside ? nullptr : text, length);
    if (fresh == nullptr) return FALSE;
    if (inside) {
        const auto there = static_cast<std::size_t>(end - from);
        const std::size_t wanted = SysStringByteLen(fresh);
        const std::size_t kept = there < wanted ? there : wanted;
        std::memcpy(fresh, from, kept);
        std::memset(reinterpret_cast<char*>(fresh) + kept, 0, wanted - kept);
    }
    SysFreeString(*string);
    *string = fresh;
    return TRUE;
}

void SysFreeString(BSTR string) {
    if (string == nullptr) return;
    count_live(ZrLiveKind::Strings, -1);
    free_block(header_of(string));
}

UINT SysStringLen(BSTR string) {
    return SysStringByteLen(string) / static_cast<UINT>(sizeof(WCHAR));
}

UINT SysStringByteLen(BSTR string) {
    return string == nullptr ? 0 : header_of(string)->bytes;
}

void* CoTaskMemAlloc(SIZE_T size) {
    return std::malloc(size == 0 ? 1 : size);
}

void* CoTaskMemRealloc(void* block, SIZE_T size) {
    if (size == 0 && block != nullptr) {
        std::free(block);
        return nullptr;
    }
    return std::realloc(block, size == 0 ? 1 : size);
}

void CoTaskMemFree(void* block) {
    std::free(block);
}
