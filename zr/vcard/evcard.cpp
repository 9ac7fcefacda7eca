#include "zr/vcard/evcard.h"

#include <dlfcn.h>

#include "zr/base/failure.h"

namespace zr {
namespace {

template <class Call>
void find_call(void* library, const char* name, Call& call) {
    call = reinterpret_cast<Call>(dlsym(library, name));
    if (call == nullptr) throw Failure{Exit::StoreFailed, std::string(ZR_EVCARD_LIBRARY) + " has no " + name};
}

EvcardCalls load() {
    // It stays: its types are registered with GLib for good.
    void* const library = dlopen(ZR_EVCARD_LIBRARY, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (library == nullptr) {
        const char* const reason = dlerror();
        throw Failure{Exit::StoreFailed, "reading cards needs the package libebook-contacts: " +
                                             std::string(reason != nullptr ? reason : ZR_EVCARD_LIBRARY)};
    }
    EvcardCalls calls = {};
    find_call(library, "e_vcard_new_from_string", calls.new_from_string);
    find_call(library, "e_vcard_get_attributes", calls.attributes);
    find_call(library, "e_vcard_attribute_get_group", calls.group);
    find_call(library, "e_vcard_attribute_get_name", calls.name);
    find_call(library, "e_vcard_attribute_get_params", calls.parameters);
    find_call(library, "e_vcard_attribute_get_values", calls.values);
    find_call(library, "e_vcard_attribute_param_get_name", calls.parameter_name);
    find_call(library, "e_vcard_attribute_param_get_values", calls.parameter_values);
    return calls;
}

}  // namespace

const EvcardCalls& evcard() {
    static const EvcardCalls calls = load();
    return calls;
}

}  // namespace zr
