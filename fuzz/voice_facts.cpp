// What telephone services answer: whatever it is, what is made of it is bounded and in telephony's words.

#include "tapi/voice_facts.h"

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "support/input.h"

namespace {

using namespace zr::platform;
using zr::fuzz::require;

constexpr int kDeepest = 12;
constexpr std::size_t kLongest = 200;

// Values as text: s, o and g with a text up to a semicolon, numbers likewise, v with a value, e with two, a and r with
// any number up to a full stop.
class Answer {
public:
    explicit Answer(std::string_view text) : rest_(text) {}

    BusValue value(int depth = 0) {
        BusValue made;
        if (rest_.empty()) return made;
        const char type = rest_.front();
        rest_.remove_prefix(1);
        if (depth > kDeepest) return made;
        made.type = type;
        switch (made.type) {
            case 's':
            case 'o':
            case 'g':
                made.text = std::string(word());
                break;
            case 'v':
                made.items.push_back(value(depth + 1));
                break;
            case 'e':
                made.items.push_back(value(depth + 1));
                made.items.push_back(value(depth + 1));
                break;
            case 'a':
            case 'r':
                while (!rest_.empty() && rest_.front() != '.') {
                    made.items.push_back(value(depth + 1));
                }
                rest_.remove_prefix(rest_.empty() ? 0 : 1);
                break;
            default:
                for (const char c : word()) {
                    made.integer = static_cast<std::int64_t>(static_cast<std::uint64_t>(made.integer) * 10 +
                                                             static_cast<std::uint64_t>(c - '0'));
                }
        }
        return made;
    }

private:
    std::string_view word() {
        const std::size_t end = std::min(rest_.find(';'), rest_.size());
        const std::string_view found = rest_.substr(0, end);
        rest_.remove_prefix(std::min(end + 1, rest_.size()));
        return found;
    }

    std::string_view rest_;
};

void check(const CallFacts& call, bool is_read) {
    constexpr DWORD states[] = {0,
                                LINECALLSTATE_DIALING,
                                LINECALLSTATE_RINGBACK,
                                LINECALLSTATE_OFFERING,
                                LINECALLSTATE_CONNECTED,
                                LINECALLSTATE_ONHOLD,
                                LINECALLSTATE_DISCONNECTED,
                                LINECALLSTATE_UNKNOWN};
    require(std::ranges::find(states, call.state) != std::end(states));
    require(is_read || call.state == 0);
    require(call.number.size() <= kLongest && call.name.size() <= kLongest);
    require((call.mode != 0) == (call.state == LINECALLSTATE_DISCONNECTED));
    require(!call.waiting || call.state == LINECALLSTATE_OFFERING);
}

bool is_path(const std::string& path) {
    return path.size() > 1 && path.size() <= kLongest && path.front() == '/';
}

void check(const std::vector<LineFacts>& lines, VoiceService service) {
    require(lines.size() <= 64);
    for (const LineFacts& line : lines) {
        require(line.service == service && line.owner == ":1.5" && is_path(line.path));
        require(line.name.size() <= 2 * kLongest + 1 && line.number.size() <= kLongest);
        require(line.calls.size() <= 10'000 && (line.voice || line.calls.empty()));
        for (const CallFacts& call : line.calls) {
            require(is_path(call.path));
            check(call, false);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const BusValue answer = Answer({reinterpret_cast<const char*>(data), size}).value();
    check(read_manager_lines(":1.5", answer), VoiceService::ModemManager);
    check(read_ofono_lines(":1.5", answer), VoiceService::Ofono);
    for (const CallFacts& call : read_ofono_calls(answer)) {
        require(is_path(call.path));
        check(call, true);
    }
    check(read_manager_call("/c", answer), true);
    check(read_ofono_call("/c", answer), true);
    return 0;
}
