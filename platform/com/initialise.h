#pragma once

namespace zr::platform {

// Whether the calling thread initialised COM.
bool com_initialised() noexcept;

}  // namespace zr::platform
