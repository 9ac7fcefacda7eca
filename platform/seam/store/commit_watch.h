#pragma once

// Whether anything was committed to a store, told without a system call.
//
// The index of SQLite's journal is memory that all processes share. It starts with a header of 48 bytes that changes
// with every commit and that SQLite itself compares to learn whether its view is the newest. So: equal stamps mean that
// nothing was committed between the two looks.

#include <cstdint>
#include <cstring>

#include "platform/types.h"

namespace zr::platform {

class Connection;

class CommitWatch {
public:
    struct Stamp {
        ULONGLONG words[6] = {};
        friend bool operator==(const Stamp&, const Stamp&) = default;

        // Whether exactly one commit lies between the two. The header's third 32-bit word counts them.
        bool is_next_after(const Stamp& before) const { return count() == before.count() + 1; }

    private:
        std::uint32_t count() const {
            std::uint32_t parts[2];
            std::memcpy(parts, &words[1], sizeof parts);
            return parts[0];
        }
    };

    // Once the connection has read from the store; for as long as it is open.
    void attach(Connection& connection);
    void detach() { header_ = nullptr; }

    // False when the host does not offer the memory: then nothing is known.
    bool look(Stamp& stamp) const {
        if (header_ == nullptr) return false;
        for (int i = 0; i < 6; ++i) {
            stamp.words[i] = __atomic_load_n(&header_[i], __ATOMIC_ACQUIRE);
        }
        return true;
    }

private:
    const volatile ULONGLONG* header_ = nullptr;
};

}  // namespace zr::platform
