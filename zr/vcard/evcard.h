#pragma once

// EVCard. Its library brings some forty others along, so it is loaded with the first card that needs it. For this
// room's sources only.

#include <libebook-contacts/libebook-contacts.h>

#include "zr/base/loaded_library.h"

// clang-format off
#define ZR_EVCARD_CALLS(CALL)                                                                                         \
    CALL(e_vcard_attribute_get_group) CALL(e_vcard_attribute_get_name) CALL(e_vcard_attribute_get_params)             \
    CALL(e_vcard_attribute_get_values) CALL(e_vcard_attribute_param_get_name) CALL(e_vcard_attribute_param_get_values) \
    CALL(e_vcard_get_attributes) CALL(e_vcard_new_from_string) CALL(g_object_unref)
// clang-format on

// Other libraries' rooms declare some of the same names.
namespace zr::evcard {

ZR_EVCARD_CALLS(ZR_LOADED_CALL)

// Before the first call of them. Any thread. Throws Failure (StoreFailed) where the library is not there.
void start();

}  // namespace zr::evcard
