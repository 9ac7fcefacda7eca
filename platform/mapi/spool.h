#pragma once

// A long value on its way into the store: in memory while it is short, in a file without a name behind that.

#include <span>
#include <string>

#include "base/host_fd.h"
#include "platform/mapi.h"

namespace zr::platform::mapi {

class Spool {
public:
    // `folder`: where the file is made. On the host.
    explicit Spool(std::string folder) : folder_(std::move(folder)) {}

    ULONGLONG size() const { return size_; }
    // MAPI_E_NOT_ENOUGH_DISK, MAPI_E_DISK_ERROR; what was there stays. What lies between the end and `at` is zero.
    HRESULT write(ULONGLONG at, std::span<const BYTE> bytes);
    HRESULT read(ULONGLONG at, std::span<BYTE> bytes, std::size_t& got) const;
    HRESULT resize(ULONGLONG size);

private:
    HRESULT spill();

    std::string folder_;
    std::string memory_;
    HostFd file_;
    ULONGLONG size_ = 0;
};

}  // namespace zr::platform::mapi
