#pragma once

// Sessions and applications have locks of their own, which nobody can enumerate: their calls hold this gate.

#include "base/fork_gate.h"

namespace zr::platform::pim {

struct Calls;
inline ForkGate& calls_gate() noexcept {
    return fork_gate<Calls>();
}

struct InCall : InsideGate {
    InCall() noexcept : InsideGate(calls_gate()) {}
};

}  // namespace zr::platform::pim
