#include "zr/vcard/evcard.h"

#include "zr/base/loaded_library.h"

namespace zr {
namespace {

EvcardCalls load() {
    const LoadedLibrary library(ZR_EBOOK_CONTACTS_LIBRARY, "reading cards needs the package libebook-contacts");
    EvcardCalls calls = {};
    library.find("e_vcard_new_from_string", calls.new_from_string);
    library.find("g_object_unref", calls.unref);
    library.find("e_vcard_get_attributes", calls.attributes);
    library.find("e_vcard_attribute_get_group", calls.group);
    library.find("e_vcard_attribute_get_name", calls.name);
    library.find("e_vcard_attribute_get_params", calls.parameters);
    library.find("e_vcard_attribute_get_values", calls.values);
    library.find("e_vcard_attribute_param_get_name", calls.parameter_name);
    library.find("e_vcard_attribute_param_get_values", calls.parameter_values);
    return calls;
}

}  // namespace

const EvcardCalls& evcard() {
    static const EvcardCalls calls = load();
    return calls;
}

}  // namespace zr
