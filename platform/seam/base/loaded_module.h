#pragma once

// A part of the platform that needs a library which most programs never use: a shared object of its own beside the
// platform's, loaded when it is first asked for and then kept. Its functions have C linkage.

#include <atomic>
#include <cstddef>

#include "platform/export.h"

namespace zr::platform {

// Where a file in the folder of this version's modules is, there or not. False: it is not known, or too long.
ZRPLATFORM_API bool module_path(const char* file, char* path, std::size_t size) noexcept;

class ZRPLATFORM_API LoadedModule {
public:
    // `file` lies in the folder of this version's modules beside libzrplatform. Both texts are kept for good.
    explicit constexpr LoadedModule(const char* file) noexcept : file_(file) {}

    // The function of that name; NULL when the module cannot be loaded or has none: it is looked for again by the next
    // call, as somebody may have installed it. Any thread, also in a forked child; no lock is held.
    void* function(const char* name) noexcept;

    // Why the module could not be loaded: a sentence that names it, or what it needs. Copied into `text`.
    void why_missing(char* text, std::size_t size) noexcept;

private:
    void* load() noexcept;

    const char* const file_;
    std::atomic<void*> library_{nullptr};
};

}  // namespace zr::platform
