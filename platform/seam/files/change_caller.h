#pragma once

// Changed folders for those who want to be called instead of waiting for a handle.

#include "kernel/host_events.h"
#include "platform/export.h"
#include "platform/types.h"

namespace zr::platform {

// From now on the source, a watched one (watch_host), is called for each record that the handle gets; what was there
// before it is to look for itself. `changes` is of FindFirstChangeNotificationW, with FILE_NOTIFY_CHANGE_CEGETINFO.
// False with ERROR_INVALID_HANDLE. The source may go once it is no longer watched.
ZRPLATFORM_API bool call_at_changes(HANDLE changes, HostSource& source);

}  // namespace zr::platform
