#include "last_error.h"

#include <string>

#include "base/error_text.h"
#include "platform/pim.h"

namespace zr::platform::pim {
namespace {

// A fixed buffer: reporting must work when memory has run out, and after the thread's other objects are gone.
constinit thread_local WCHAR text[1024] = {};

std::string_view sentence_of(HRESULT result) {
    switch (result) {
        case E_POINTER:
            return "An output pointer is null.";
        case E_INVALIDARG:
            return "An argument is not valid.";
        case E_OUTOFMEMORY:
            return "Memory is short.";
        case E_NOTIMPL:
            return "The operation is not available.";
        case E_ACCESSDENIED:
            return "The operation is not permitted.";
        case E_UNEXPECTED:
            return "The operation does not fit the state of the session.";
        case kGone:
            return "The item does not exist any more.";
        case kBusy:
            return "The contact store is in use by another program or session.";
        case HRESULT_FROM_WIN32(kNotLoggedOn):
            return "The session is not logged on.";
        default:
            return "The operation failed.";
    }
}

}  // namespace

HRESULT fail(HRESULT result, std::string_view sentence) noexcept {
    keep_sentence(text, sentence);
    return result;
}

HRESULT fail(HRESULT result) noexcept {
    return fail(result, sentence_of(result));
}

const WCHAR* last_error_text() noexcept {
    return text;
}

}  // namespace zr::platform::pim

LPCWSTR ZrPimLastErrorText() {
    return zr::platform::pim::last_error_text();
}
