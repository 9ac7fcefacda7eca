#pragma once

// Whether what is read for long comes from one store: another program may find it damaged and set it aside, or put
// another one in its place, and then the rest seems to be gone.

#include <platform/stores.h>

#include "zr/base/failure.h"

namespace zr {

class SameStore {
public:
    // Before the store is opened.
    explicit SameStore(const char* store);
    // When all is read, and nothing of it shows yet. Throws Failure when the store is another one by now.
    void expect() const;
    // What reads the store; its failure is that the store is another one by now, if it is.
    template <class Reading>
    auto during(const Reading& reading) const {
        try {
            return reading();
        } catch (const Failure&) {
            expect();
            throw;
        }
    }

private:
    ULONGLONG identity() const;

    const char* const store_;
    const ULONGLONG before_;  // 0: there was none
};

}  // namespace zr
