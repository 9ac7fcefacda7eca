#pragma once

// The small file through which processes tell each other that something was committed, and that the store's file was
// replaced by another one.

#include <atomic>
#include <string>

#include "platform/types.h"

namespace zr::platform::registry {

class Bell {
public:
    Bell() = default;
    Bell(const Bell&) = delete;
    Bell& operator=(const Bell&) = delete;

    // 0 or the system's error number. Once it is open it stays open, and children made by fork have it too.
    int open(const std::string& path);
    bool is_open() const { return page_ != nullptr; }
    const std::string& path() const { return path_; }

    // How often the store's file was replaced.
    LONGLONG replacements() const { return page_->replacements.load(std::memory_order_acquire); }
    void replaced() { page_->replacements.fetch_add(1, std::memory_order_acq_rel); }

    // Held by a writer across its commit. The kernel tells watchers that the file was closed, whoever closes it: a
    // writer that is killed behind its commit rings, too.
    class Pull {
    public:
        explicit Pull(const Bell& bell);
        ~Pull();
        Pull(const Pull&) = delete;
        Pull& operator=(const Pull&) = delete;
        explicit operator bool() const { return file_ >= 0; }
        int error() const { return error_; }  // the system's error number when it could not be opened

    private:
        int file_;
        int error_;
    };

private:
    struct Page {
        std::atomic<LONGLONG> replacements;
        LONGLONG reserved[511];
    };
    static_assert(sizeof(Page) == 4096);

    std::string path_;
    Page* page_ = nullptr;
};

}  // namespace zr::platform::registry
