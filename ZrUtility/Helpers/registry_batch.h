#pragma once

// The calling thread's changes of the registry for the length of a block, kept as one. Where the registry takes no
// batch just then each is kept by itself, as it is without one.

#include "platform/registry.h"

class RegistryBatch {
public:
    RegistryBatch() { Begin(); }
    // Also when the thread is ended: what has been done stays.
    ~RegistryBatch() { Keep(); }
    RegistryBatch(const RegistryBatch&) = delete;
    RegistryBatch& operator=(const RegistryBatch&) = delete;

    // False: nothing was kept.
    bool Keep() {
        if (!m_open) return true;
        m_open = false;
        return ZrRegistryEndBatch(TRUE) == static_cast<LONG>(ERROR_SUCCESS);
    }

private:
    void Begin() { m_open = ZrRegistryBeginBatch() == static_cast<LONG>(ERROR_SUCCESS); }

    bool m_open = false;
};
