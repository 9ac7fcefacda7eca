#pragma once

// Tells when the system's clock was set.

#include "platform/types.h"

namespace zr::platform {

class ClockTimer {
public:
    ClockTimer() = default;
    ~ClockTimer() { close(); }
    ClockTimer(const ClockTimer&) = delete;
    ClockTimer& operator=(const ClockTimer&) = delete;

    DWORD open();  // an error code, or 0
    void close() noexcept;

    int descriptor() const noexcept { return descriptor_; }  // readable when read_change() has something to look at
    bool read_change();

private:
    bool arm() const;

    int descriptor_ = -1;
};

}  // namespace zr::platform
