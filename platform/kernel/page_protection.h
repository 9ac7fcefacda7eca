#pragma once

// What the host is told of protections, and what a mapping's protection lets a view of it do.

#include <sys/mman.h>

#include "platform/errors.h"
#include "platform/mapping.h"
#include "platform/memory.h"

namespace zr::platform {

inline constexpr DWORD kPageBits = 0xFF;

constexpr bool may_write(DWORD protection) noexcept {
    return (protection & (PAGE_READWRITE | PAGE_EXECUTE_READWRITE)) != 0;
}
constexpr bool may_execute(DWORD protection) noexcept {
    return (protection & (PAGE_EXECUTE_READ | PAGE_EXECUTE_READWRITE | PAGE_EXECUTE_WRITECOPY)) != 0;
}

// The host's form of a page's protection; an error code for one that there is not.
inline DWORD host_protection(DWORD protection, int& out) noexcept {
    constexpr DWORD modifiers = PAGE_GUARD | PAGE_NOCACHE | PAGE_WRITECOMBINE;
    const DWORD access = protection & ~modifiers;
    const DWORD caching = protection & (PAGE_NOCACHE | PAGE_WRITECOMBINE);
    switch (access) {
        case PAGE_NOACCESS:
            out = PROT_NONE;
            break;
        case PAGE_READONLY:
            out = PROT_READ;
            break;
        case PAGE_READWRITE:
            out = PROT_READ | PROT_WRITE;
            break;
        case PAGE_EXECUTE:
            out = PROT_EXEC;
            break;
        case PAGE_EXECUTE_READ:
            out = PROT_READ | PROT_EXEC;
            break;
        case PAGE_EXECUTE_READWRITE:
            out = PROT_READ | PROT_WRITE | PROT_EXEC;
            break;
        default:
            return ERROR_INVALID_PARAMETER;
    }
    if (caching == (PAGE_NOCACHE | PAGE_WRITECOMBINE) || (access == PAGE_NOACCESS && protection != access)) {
        return ERROR_INVALID_PARAMETER;
    }
    return (protection & PAGE_GUARD) != 0 ? ERROR_NOT_SUPPORTED : ERROR_SUCCESS;
}

// One of the protections that a mapping can have, and no unknown flag.
constexpr bool is_mapping_protection(DWORD protection) noexcept {
    if ((protection & ~(kPageBits | SEC_RESERVE | SEC_COMMIT | SEC_NOCACHE)) != 0) return false;
    const DWORD kind = protection & (SEC_RESERVE | SEC_COMMIT);
    if (kind == (SEC_RESERVE | SEC_COMMIT) || ((protection & SEC_NOCACHE) && kind == 0)) return false;
    switch (protection & kPageBits) {
        case PAGE_READONLY:
        case PAGE_READWRITE:
        case PAGE_WRITECOPY:
        case PAGE_EXECUTE_READ:
        case PAGE_EXECUTE_READWRITE:
        case PAGE_EXECUTE_WRITECOPY:
            return true;
        default:
            return false;
    }
}

// The access that a view is asked for. Writing counts before copying, so that FILE_MAP_ALL_ACCESS writes.
class ViewAccess {
public:
    explicit constexpr ViewAccess(DWORD access) noexcept
        : write_((access & FILE_MAP_WRITE) != 0),
          copy_(!write_ && (access & FILE_MAP_COPY) != 0),
          read_((access & FILE_MAP_READ) != 0),
          execute_((access & FILE_MAP_EXECUTE) != 0) {}

    constexpr bool any() const noexcept { return write_ || copy_ || read_ || execute_; }
    constexpr bool copies() const noexcept { return copy_; }
    constexpr bool allowed_by(DWORD protection) const noexcept {
        return (!write_ || may_write(protection)) && (!execute_ || may_execute(protection));
    }
    constexpr int host_protection() const noexcept {
        return PROT_READ | (write_ || copy_ ? PROT_WRITE : 0) | (execute_ ? PROT_EXEC : 0);
    }

private:
    bool write_;
    bool copy_;
    bool read_;
    bool execute_;
};

}  // namespace zr::platform
