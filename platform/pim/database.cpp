#include "database.h"

#include "last_error.h"

namespace zr::platform::pim {

HRESULT Database::result(DWORD error) const {
    return error == ERROR_SUCCESS ? S_OK : fail(store_result(error), connection_.sentence(kStoreName));
}

HRESULT store_result(DWORD error) {
    if (error == ERROR_SUCCESS) return S_OK;
    if (error == ERROR_NOT_ENOUGH_MEMORY) return E_OUTOFMEMORY;
    return error == ERROR_GEN_FAILURE ? E_FAIL : HRESULT_FROM_WIN32(error);
}

}  // namespace zr::platform::pim
