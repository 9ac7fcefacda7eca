#pragma once

// What went wrong last on this thread, in a sentence.

#include <new>
#include <string_view>

#include "platform/mapi.h"

namespace zr::platform::mapi {

// Keeps the sentence (UTF-8) and returns `result`.
HRESULT fail(HRESULT result, std::string_view sentence) noexcept;
// The same with the usual sentence of a result.
HRESULT fail(HRESULT result) noexcept;
const WCHAR* last_error_text() noexcept;

// The result that stands for a store's error, whose sentence is kept already.
HRESULT store_result(DWORD error) noexcept;

// IMAPIProp::GetLastError and its like.
HRESULT last_error(ULONG flags, LPMAPIERROR* error) noexcept;

// Runs the body of an interface's operation: memory that runs out is a result.
template <class Body>
HRESULT guarded(Body&& body) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return fail(MAPI_E_NOT_ENOUGH_MEMORY);
    }
}

// S_OK when no flag but these is set.
HRESULT check_flags(ULONG flags, ULONG known) noexcept;

// What this system does not offer.
inline HRESULT unsupported() noexcept {
    return fail(MAPI_E_NO_SUPPORT);
}

}  // namespace zr::platform::mapi
