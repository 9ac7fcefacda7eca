#pragma once

// Telephony as a test wants it. While one of these is there the library's calls come here; otherwise they are the
// platform's.

#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/tapi.h"

namespace zr::test {

struct FakeCall {
    DWORD state = 0;
    LONG status_result = 0;
};

struct FakeDevice {
    LONG version_result = 0;
    LONG caps_result = 0;
    DWORD media_modes = LINEMEDIAMODE_INTERACTIVEVOICE;
    DWORD caps_size = sizeof(LINEDEVCAPS);
};

class FakeTapi {
public:
    FakeTapi();
    ~FakeTapi();
    FakeTapi(const FakeTapi&) = delete;
    FakeTapi& operator=(const FakeTapi&) = delete;
    static FakeTapi* current();

    std::vector<FakeDevice> devices = {FakeDevice{}};
    // The calls that each opened line shows; handles are 100 and on.
    std::vector<FakeCall> calls;
    // What fails, by the function's name.
    std::map<std::string, LONG> results;
    // What was called, in order: "open 0 instance 2", "drop 101", ...
    std::vector<std::string> events;
    std::vector<DWORD> sizes;  // dwTotalSize of each structure that was passed
    int list_growths = 0;      // so often the list needs one call more than was told before
    LINECALLBACK callback = nullptr;

    LONG note(const std::string& function, const std::string& event);

    // Writes as much of a structure as there is room for.
    template <class Structure>
    LONG give(Structure* to, const Structure& what, DWORD needed) {
        sizes.push_back(to->dwTotalSize);
        const DWORD total = to->dwTotalSize;
        if (total < needed) {
            to->dwNeededSize = needed;
            return LINEERR_STRUCTURETOOSMALL;
        }
        std::memcpy(to, &what, sizeof what);
        to->dwTotalSize = total;
        to->dwNeededSize = to->dwUsedSize = needed;
        return 0;
    }
};

}  // namespace zr::test
