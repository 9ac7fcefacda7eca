#include "last_error.h"

#include <cstring>

#include "base/error_text.h"
#include "buffers.h"
#include "platform/base.h"

namespace zr::platform::mapi {
namespace {

// A fixed buffer: reporting must work when memory has run out, and after the thread's other objects are gone.
constinit thread_local WCHAR text[1024] = {};

std::string_view sentence_of(HRESULT result) {
    switch (result) {
        case MAPI_E_NO_SUPPORT:
            return "The operation is not available.";
        case MAPI_E_INVALID_PARAMETER:
            return "An argument is not valid.";
        case MAPI_E_UNKNOWN_FLAGS:
            return "The operation does not know one of the flags.";
        case MAPI_E_INVALID_ENTRYID:
            return "The entry identifier is none of this system's.";
        case MAPI_E_NOT_FOUND:
            return "There is no such object.";
        case MAPI_E_OBJECT_DELETED:
            return "The object was deleted.";
        case MAPI_E_OBJECT_CHANGED:
            return "Somebody else has changed the message meanwhile.";
        case MAPI_E_NO_ACCESS:
            return "The object cannot be changed, or not in this way.";
        case MAPI_E_END_OF_SESSION:
            return "The session has ended.";
        case MAPI_E_NOT_ENOUGH_MEMORY:
            return "Memory is short.";
        case MAPI_E_COLLISION:
            return "There is one of that name already.";
        case MAPI_E_NOT_INITIALIZED:
            return "Messaging was not initialised.";
        case MAPI_E_HAS_FOLDERS:
            return "There are folders in the folder.";
        case MAPI_E_HAS_MESSAGES:
            return "There are messages in the folder.";
        case MAPI_E_FOLDER_CYCLE:
            return "A folder cannot be put into itself.";
        case MAPI_E_TOO_COMPLEX:
            return "The restriction or the order is too complex.";
        case MAPI_E_BAD_VALUE:
            return "The value is not allowed.";
        case MAPI_E_INTERFACE_NOT_SUPPORTED:
            return "The object does not have that interface.";
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

HRESULT store_result(DWORD error) noexcept {
    switch (error) {
        case ERROR_SUCCESS:
            return S_OK;
        case ERROR_DISK_FULL:
            return MAPI_E_NOT_ENOUGH_DISK;
        case ERROR_BUSY:
            return MAPI_E_BUSY;
        case ERROR_FILE_CORRUPT:
            return MAPI_E_CORRUPT_DATA;
        case ERROR_REVISION_MISMATCH:
            return MAPI_E_VERSION;
        case ERROR_ACCESS_DENIED:
            return MAPI_E_NO_ACCESS;
        case ERROR_IO_DEVICE:
            return MAPI_E_DISK_ERROR;
        case ERROR_NOT_ENOUGH_MEMORY:
            return MAPI_E_NOT_ENOUGH_MEMORY;
        case ERROR_TOO_MANY_OPEN_FILES:
            return MAPI_E_NOT_ENOUGH_RESOURCES;
        default:
            return MAPI_E_CALL_FAILED;
    }
}

HRESULT last_error(ULONG flags, LPMAPIERROR* error) noexcept {
    if (error == nullptr) return MAPI_E_INVALID_PARAMETER;
    *error = nullptr;
    if ((flags & ~MAPI_UNICODE) != 0) return MAPI_E_UNKNOWN_FLAGS;
    if (text[0] == 0) return S_OK;
    const std::size_t size = (wcslen(text) + 1) * sizeof(WCHAR);
    Buffer<MAPIERROR> buffer(sizeof(MAPIERROR) + size);
    if (!buffer) return MAPI_E_NOT_ENOUGH_MEMORY;
    auto* const sentence = reinterpret_cast<LPWSTR>(buffer.get() + 1);
    std::memcpy(sentence, text, size);
    *buffer.get() = {0, sentence, nullptr, 0, 0};
    *error = buffer.release();
    return S_OK;
}

HRESULT check_flags(ULONG flags, ULONG known) noexcept {
    return (flags & ~known) == 0 ? S_OK : fail(MAPI_E_UNKNOWN_FLAGS);
}

}  // namespace zr::platform::mapi
