#pragma once

// The one thread of a process that waits for what the host tells by descriptors: changed folders, the clock, a file,
// what is due, processes that have ended.
//
// It is started with the first source and ends with the last one. What a source does on it must be short, or wait for
// nothing but the file system: all others wait meanwhile. So stores, which another process may keep locked for seconds,
// have a thread of their own.
//
// In a forked child no source is watched: its family, which closes the descriptor, watches another one when the child
// resumes.

#include <cstdint>

#include "kernel/waitable.h"
#include "platform/export.h"
#include "platform/types.h"

namespace zr::platform {

class ZRPLATFORM_API HostSource {
public:
    HostSource() = default;
    HostSource(const HostSource&) = delete;
    HostSource& operator=(const HostSource&) = delete;

    // The descriptor is readable, or the time has come that was asked for. On the thread, with no lock held.
    virtual void ready() noexcept = 0;

protected:
    virtual ~HostSource() = default;

private:
    friend class HostEvents;

    int descriptor_ = -1;
    std::int64_t due_ = INT64_MAX;
    std::uint32_t round_ = 0;  // in which it was called last because its time had come
    HostSource* next_ = nullptr;
};

// From now on the source is called when the descriptor is readable; -1 for none. An error code when the host gives no
// thread, or no descriptor to wake it by.
ZRPLATFORM_API DWORD watch_host(HostSource& source, int descriptor) noexcept;

// When this returns the source is not being called, and will not be, unless it is the caller. Not with a lock held that
// ready() takes.
ZRPLATFORM_API void unwatch_host(HostSource& source) noexcept;

// A watched source is called once more at that time, if not before for that reason; never() takes it back. Who asks
// while he is called, for at_once(), is called again when the others had their turn.
ZRPLATFORM_API void call_host_source(HostSource& source, Deadline when) noexcept;

}  // namespace zr::platform
