#include "zr/base/loaded_library.h"

#include <dlfcn.h>

#include "zr/base/failure.h"

namespace zr {

LoadedLibrary::LoadedLibrary(const char* file, const char* need)
    : file_(file), need_(need), library_(dlopen(file, RTLD_LAZY | RTLD_LOCAL | RTLD_NODELETE)) {
    if (library_ != nullptr) return;
    const char* const reason = dlerror();
    throw Failure{Exit::StoreFailed, std::string(need_) + ": " + (reason != nullptr ? reason : file_)};
}

void* LoadedLibrary::address(const char* name) const {
    void* const found = dlsym(library_, name);
    if (found == nullptr) throw Failure{Exit::StoreFailed, std::string(need_) + ": " + file_ + " has no " + name};
    return found;
}

}  // namespace zr
