#include "base/loaded_module.h"

#include <dlfcn.h>

#include <climits>
#include <cstdio>
#include <cstring>

namespace zr::platform {
namespace {

// The platform's own folder; empty when the loader does not say.
bool own_folder(char (&folder)[PATH_MAX]) noexcept {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&own_folder), &info) == 0 || info.dli_fname == nullptr) return false;
    const char* const slash = std::strrchr(info.dli_fname, '/');
    const std::size_t length = slash ? static_cast<std::size_t>(slash - info.dli_fname) : 0;
    if (length == 0 || length >= sizeof folder) return false;
    std::memcpy(folder, info.dli_fname, length);
    folder[length] = '\0';
    return true;
}

}  // namespace

bool module_path(const char* file, char* path, std::size_t size) noexcept {
    char folder[PATH_MAX];
    if (!own_folder(folder)) return false;
    const int length = std::snprintf(path, size, "%s/" ZR_MODULES_FOLDER "/%s", folder, file);
    return length >= 0 && static_cast<std::size_t>(length) < size;
}

// Two threads that load it at once get the same library.
void* LoadedModule::load() noexcept {
    if (void* const known = library_.load(std::memory_order_acquire)) return known;
    char path[PATH_MAX + 64];
    if (!module_path(file_, path, sizeof path)) return nullptr;
    void* const library = dlopen(path, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (library) library_.store(library, std::memory_order_release);
    return library;
}

void* LoadedModule::function(const char* name) noexcept {
    void* const library = load();
    return library ? dlsym(library, name) : nullptr;
}

void LoadedModule::why_missing(char* text, std::size_t size) noexcept {
    dlerror();
    if (load() != nullptr) {
        std::snprintf(text, size, "%s is of another version", file_);
        return;
    }
    const char* const reason = dlerror();
    std::snprintf(text, size, "%s", reason ? reason : file_);
}

}  // namespace zr::platform
