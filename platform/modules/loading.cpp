// Loading modules, finding what they export, and letting them go.

#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>

#include "base/fail.h"
#include "base/forks.h"
#include "base/state_folder.h"
#include "base/utf.h"
#include "files/host_path.h"
#include "kernel/thread.h"
#include "module_file.h"
#include "platform/base.h"
#include "platform/kernel.h"
#include "platform/modules.h"

namespace zr::platform {
namespace {

// The modules that are loaded, so that no other value is ever taken for one.
struct Module {
    std::string path;  // on the host
    int loads = 0;
};

struct Modules {
    std::mutex mutex;  // never held while a module's own code may run
    std::map<HMODULE, Module> loaded;
};

// Never destroyed: modules may be freed while the process exits.
alignas(Modules) unsigned char modules_storage[sizeof(Modules)];
Modules& the_modules = *new (modules_storage) Modules;

Modules& modules() {
    return the_modules;
}

const AtFork at_fork{ForkRank::Modules,
                     {[]() noexcept { the_modules.mutex.lock(); }, []() noexcept { the_modules.mutex.unlock(); },
                      []() noexcept { the_modules.mutex.unlock(); }}};

HMODULE module_of(void* library) {
    return reinterpret_cast<HMODULE>(library);
}

// Where the host's loader found it, as an absolute path.
std::string loaded_path(void* library) {
    link_map* map = nullptr;
    if (dlinfo(library, RTLD_DI_LINKMAP, &map) != 0 || !map) return {};
    const std::unique_ptr<char, decltype(&std::free)> real(realpath(map->l_name, nullptr), std::free);
    return real ? real.get() : map->l_name;
}

bool has_separator(LPCWSTR path) {
    return wcschr(path, u'\\') || wcschr(path, u'/');
}

// The host's loader puts folders of its own in place of some words in the name that it is asked for.
bool has_loader_words(std::string_view path) {
    for (std::size_t at = path.find('$'); at != path.npos; at = path.find('$', at + 1)) {
        std::string_view word = path.substr(at + 1);
        if (word.starts_with('{')) word.remove_prefix(1);
        for (const std::string_view known : {"ORIGIN", "PLATFORM", "LIB"})
            if (word.starts_with(known)) return true;
    }
    return false;
}

// A name without such words for a file, for as long as the object lives. The loader remembers the names that it was
// asked for, so none is used twice.
class OtherName {
public:
    explicit OtherName(const std::string& file) {
        static std::atomic<unsigned> count{0};
        const Folder folder = runtime_folder();
        if (!folder) return;
        path_ = folder.path + "/module." + std::to_string(getpid()) + "." + std::to_string(++count);
        if (symlink(file.c_str(), path_.c_str()) != 0) path_.clear();
    }
    ~OtherName() {
        if (!path_.empty()) unlink(path_.c_str());
    }
    OtherName(const OtherName&) = delete;
    OtherName& operator=(const OtherName&) = delete;

    const std::string& path() const { return path_; }  // empty: there is none

private:
    std::string path_;
};

void* open_library(const std::string& name) {
    if (!has_loader_words(name)) return dlopen(name.c_str(), RTLD_NOW | RTLD_LOCAL);
    const OtherName other(name);
    return other.path().empty() ? nullptr : dlopen(other.path().c_str(), RTLD_NOW | RTLD_LOCAL);
}

// What to ask the host's loader for. `error` when there is nothing to ask for.
std::string loader_name(LPCWSTR path, DWORD& error) {
    const HostPath host = existing_host_path(path);
    if (!host.error) {
        const ModuleFile file(host.path.c_str());
        error = file.error() ? file.error() : check_whole(file);
        return host.path;
    }
    const bool missing = host.error == ERROR_FILE_NOT_FOUND || host.error == ERROR_PATH_NOT_FOUND;
    if (missing && *path && !has_separator(path)) {
        std::string name = host_name(path);
        if (!has_loader_words(name)) return name;
    }
    error = missing ? ERROR_MOD_NOT_FOUND : host.error;
    return {};
}

HMODULE load(LPCWSTR path) {
    DWORD error = ERROR_SUCCESS;
    const std::string name = path ? loader_name(path, error) : std::string();
    if (!path) error = ERROR_INVALID_PARAMETER;
    if (error) return fail<HMODULE>(error, nullptr);
    void* const library = open_library(name);
    if (!library) return fail<HMODULE>(name[0] == '/' ? ERROR_BAD_EXE_FORMAT : ERROR_MOD_NOT_FOUND, nullptr);
    try {
        std::string found = name[0] == '/' ? name : loaded_path(library);
        const std::lock_guard guard(modules().mutex);
        Module& module = modules().loaded[module_of(library)];
        if (module.loads++ == 0) module.path = std::move(found);
    } catch (...) {
        dlclose(library);
        throw;
    }
    return module_of(library);
}

// Counts one load less; false when there is none.
bool give_back(HMODULE module) {
    const std::lock_guard guard(modules().mutex);
    const auto at = modules().loaded.find(module);
    if (at == modules().loaded.end()) return false;
    if (--at->second.loads == 0) modules().loaded.erase(at);
    return true;
}

// The function of that name that the module itself has: the host looks into the libraries as well that the module is
// linked to, and in the program's case into all that are loaded.
void* find_own(HMODULE module, const char* name) {
    const bool program = module == GetModuleHandleW(nullptr);
    void* const found = dlsym(program ? RTLD_DEFAULT : static_cast<void*>(module), name);
    dl_find_object holder{};
    if (!found || _dl_find_object(found, &holder) != 0) return nullptr;
    link_map* own = nullptr;
    dl_find_object itself{};
    if (program && _dl_find_object(module, &itself) == 0) own = itself.dlfo_link_map;
    if (!program && dlinfo(module, RTLD_DI_LINKMAP, &own) != 0) return nullptr;
    return holder.dlfo_link_map == own ? found : nullptr;
}

bool host_path_of(HMODULE module, std::string& path) {
    if (!module || module == GetModuleHandleW(nullptr)) {
        char buffer[PATH_MAX];
        const ssize_t length = readlink("/proc/self/exe", buffer, sizeof buffer);
        if (length > 0) path.assign(buffer, static_cast<std::size_t>(length));
        return true;
    }
    const std::lock_guard guard(modules().mutex);
    const auto at = modules().loaded.find(module);
    if (at != modules().loaded.end()) path = at->second.path;
    return at != modules().loaded.end();
}

DWORD file_name(HMODULE module, LPWSTR out, DWORD size) {
    std::string host;
    if (!host_path_of(module, host)) return fail(ERROR_INVALID_HANDLE, DWORD{0});
    std::u16string path;
    if (host.empty() || !handheld_path(host, path)) return fail(ERROR_PATH_NOT_FOUND, DWORD{0});
    const std::size_t length = path.copy(out, size - 1);
    out[length] = 0;
    return length < path.size() ? fail(ERROR_INSUFFICIENT_BUFFER, size) : static_cast<DWORD>(length);
}

}  // namespace
}  // namespace zr::platform

using namespace zr::platform;

HMODULE LoadLibraryW(LPCWSTR path) {
    cancellation_point();
    try {
        return load(path);
    } catch (const std::bad_alloc&) {
        return fail<HMODULE>(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    }
}

BOOL FreeLibrary(HMODULE module) {
    if (!give_back(module)) return fail(ERROR_INVALID_HANDLE, FALSE);
    return dlclose(module) == 0 ? TRUE : fail(ERROR_GEN_FAILURE, FALSE);
}

FARPROC GetProcAddressW(HMODULE module, LPCWSTR name) {
    cancellation_point();
    if (!name) return fail<FARPROC>(ERROR_INVALID_PARAMETER, nullptr);
    const bool program = module && module == GetModuleHandleW(nullptr);
    try {
        std::string unused;
        if (!module || (!program && !host_path_of(module, unused))) return fail<FARPROC>(ERROR_INVALID_HANDLE, nullptr);
        void* const found = find_own(module, wide_to_host(name).c_str());
        return found ? reinterpret_cast<FARPROC>(found) : fail<FARPROC>(ERROR_PROC_NOT_FOUND, nullptr);
    } catch (const std::bad_alloc&) {
        return fail<FARPROC>(ERROR_NOT_ENOUGH_MEMORY, nullptr);
    }
}

DWORD GetModuleFileNameW(HMODULE module, LPWSTR path, DWORD size) {
    cancellation_point();
    if (!path || size == 0) return fail(ERROR_INVALID_PARAMETER, DWORD{0});
    try {
        return file_name(module, path, size);
    } catch (const std::bad_alloc&) {
        return fail(ERROR_NOT_ENOUGH_MEMORY, DWORD{0});
    }
}
