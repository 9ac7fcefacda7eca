#pragma once

// EVCard. Its library brings some forty others along, which take longer to load than most commands to run, so it is
// loaded with the first card that needs it. For this room's sources only.

#include <libebook-contacts/libebook-contacts.h>

namespace zr {

struct EvcardCalls {
    decltype(&e_vcard_new_from_string) new_from_string;
    decltype(&g_object_unref) unref;
    decltype(&e_vcard_get_attributes) attributes;
    decltype(&e_vcard_attribute_get_group) group;
    decltype(&e_vcard_attribute_get_name) name;
    decltype(&e_vcard_attribute_get_params) parameters;
    decltype(&e_vcard_attribute_get_values) values;
    decltype(&e_vcard_attribute_param_get_name) parameter_name;
    decltype(&e_vcard_attribute_param_get_values) parameter_values;
};

// Any thread. Throws Failure (StoreFailed) where the library is not there.
const EvcardCalls& evcard();

}  // namespace zr
