#pragma once

namespace zr::platform {

// A thread's values for the indexes of TlsAlloc.
struct TlsValues;
void free_tls_values(TlsValues* values) noexcept;

}  // namespace zr::platform
