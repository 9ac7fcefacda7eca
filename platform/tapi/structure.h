#pragma once

// Structures of variable size: a fixed part, and texts behind it as far as there is room.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "base/utf.h"
#include "platform/tapi.h"

namespace zr::platform {

// Fills `to`, whose fixed part is `fixed`, which stays whole when there is no room for it.
template <class Structure>
class StructureWriter {
public:
    explicit StructureWriter(Structure* to) : to_(to), total_(to->dwTotalSize) {}

    Structure fixed{};

    // Behind what is there; nothing of it where it does not fit whole.
    void put_text(const std::string& text, DWORD Structure::*size, DWORD Structure::*offset) {
        if (text.empty()) return;
        const std::u16string wide = host_to_wide(text);
        const auto bytes = static_cast<DWORD>((wide.size() + 1) * sizeof(WCHAR));
        needed_ += bytes;
        if (total_ < used_ || total_ - used_ < bytes) return;
        std::memcpy(reinterpret_cast<unsigned char*>(to_) + used_, wide.c_str(), bytes);
        fixed.*size = bytes;
        fixed.*offset = used_;
        used_ += bytes;
    }

    LONG finish() {
        if (total_ < sizeof(Structure)) {
            to_->dwNeededSize = needed_;
            return LINEERR_STRUCTURETOOSMALL;
        }
        fixed.dwTotalSize = total_;
        fixed.dwNeededSize = needed_;
        fixed.dwUsedSize = used_;
        std::memcpy(to_, &fixed, sizeof fixed);
        return 0;
    }

private:
    Structure* const to_;
    const DWORD total_;
    DWORD needed_ = sizeof(Structure);
    DWORD used_ = sizeof(Structure);
};

}  // namespace zr::platform
