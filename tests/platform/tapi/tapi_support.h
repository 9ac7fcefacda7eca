#pragma once

// A session as a test sees it: what its callback was told, and structures with room.

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "platform/base.h"
#include "platform/kernel.h"
#include "platform/tapi.h"
#include "platform/windowing.h"

namespace zr::test {

struct LineMessage {
    DWORD device;
    DWORD message;
    DWORD_PTR instance;
    DWORD_PTR params[3];
};

inline std::vector<LineMessage>& line_messages() {
    static std::vector<LineMessage> all;
    return all;
}

inline void note_line_message(DWORD device, DWORD message, DWORD_PTR instance, DWORD_PTR first, DWORD_PTR second,
                              DWORD_PTR third) {
    line_messages().push_back({device, message, instance, {first, second, third}});
}

// Takes the thread's messages until it is so; false after a minute.
inline bool pump_until(const std::function<bool()>& is_so) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (;;) {
        for (MSG message; PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE);) {
            DispatchMessageW(&message);
        }
        if (is_so()) return true;
        if (std::chrono::steady_clock::now() > end) return false;
        MsgWaitForMultipleObjectsEx(0, nullptr, 100, QS_ALLINPUT, MWMO_INPUTAVAILABLE);
    }
}

// The first such message from `from` on, waited for; NULL after a minute.
inline const LineMessage* await_message(DWORD message, std::size_t from = 0,
                                        const std::function<bool(const LineMessage&)>& fits = nullptr) {
    const LineMessage* found = nullptr;
    pump_until([&] {
        for (std::size_t i = from; i < line_messages().size() && found == nullptr; ++i) {
            const LineMessage& each = line_messages()[i];
            if (each.message == message && (!fits || fits(each))) found = &each;
        }
        return found != nullptr;
    });
    return found;
}

class LineSession {
public:
    explicit LineSession(LPCWSTR name = u"test") {
        line_messages().clear();
        line_messages().reserve(100'000);
        result_ = lineInitialize(&handle_, nullptr, note_line_message, name, &count_);
    }
    ~LineSession() {
        if (result_ == 0) lineShutdown(handle_);
    }
    LineSession(const LineSession&) = delete;
    LineSession& operator=(const LineSession&) = delete;

    LONG result() const { return result_; }
    HLINEAPP handle() const { return handle_; }
    DWORD count() const { return count_; }

    HLINE open(DWORD device, DWORD privileges = LINECALLPRIVILEGE_MONITOR, DWORD_PTR instance = 0) const {
        HLINE line = 0;
        EXPECT_EQ(lineOpen(handle_, device, &line, TAPI_CURRENT_VERSION, 0, instance, privileges,
                           LINEMEDIAMODE_INTERACTIVEVOICE, nullptr),
                  0);
        return line;
    }

private:
    HLINEAPP handle_ = 0;
    DWORD count_ = 0;
    LONG result_ = 0;
};

// The text that lies in a structure.
template <class Structure>
std::u16string text_in(const Structure& all, DWORD size, DWORD offset) {
    if (size == 0) return {};
    return reinterpret_cast<const WCHAR*>(reinterpret_cast<const unsigned char*>(&all) + offset);
}

// A structure with room behind it.
template <class Structure>
struct Roomy {
    Roomy() { all.dwTotalSize = sizeof *this; }
    Structure all{};
    unsigned char room[2000] = {};
};

inline std::vector<HCALL> new_calls(HLINE line) {
    struct {
        LINECALLLIST list;
        HCALL calls[200];
    } room{};
    room.list.dwTotalSize = sizeof room;
    EXPECT_EQ(lineGetNewCalls(line, 0, LINECALLSELECT_LINE, &room.list), 0);
    return {room.calls, room.calls + room.list.dwCallsNumEntries};
}

inline LINECALLSTATUS status_of(HCALL call) {
    LINECALLSTATUS status{};
    status.dwTotalSize = sizeof status;
    EXPECT_EQ(lineGetCallStatus(call, &status), 0);
    return status;
}
inline DWORD state_of(HCALL call) {
    return status_of(call).dwCallState;
}

}  // namespace zr::test
