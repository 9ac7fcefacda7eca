#pragma once

// The text behind ZrPimLastErrorText: what went wrong last on this thread.

#include <new>
#include <string_view>

#include "platform/errors.h"

namespace zr::platform::pim {

inline constexpr DWORD kNotLoggedOn = 1245;
inline constexpr HRESULT kGone = HRESULT_FROM_WIN32(ERROR_NOT_FOUND);
inline constexpr HRESULT kBusy = HRESULT_FROM_WIN32(ERROR_BUSY);
inline constexpr HRESULT kCorrupt = HRESULT_FROM_WIN32(ERROR_FILE_CORRUPT);

// Keeps the sentence (UTF-8) and returns `result`.
HRESULT fail(HRESULT result, std::string_view sentence) noexcept;
// The same with the usual sentence of a result.
HRESULT fail(HRESULT result) noexcept;
const WCHAR* last_error_text() noexcept;

// Runs the body of an interface's operation: memory that runs out is a result.
template <class Body>
HRESULT guarded(Body&& body) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return fail(E_OUTOFMEMORY);
    }
}

}  // namespace zr::platform::pim
