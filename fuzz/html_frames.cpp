// What the HTML control and its engine say to each other, cut and damaged anywhere.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "html/engine_protocol.h"

using namespace zr::platform;

namespace {

// Reads numbers and texts by turns, as the letters of `plan` say; none of it may lie outside the frame.
void read(std::string_view bytes, std::string_view plan) {
    FrameReader frame(bytes);
    static_cast<void>(frame.kind());
    for (const char letter : plan) {
        if (letter % 2 == 0) {
            frame.number();
            continue;
        }
        const std::string_view text = frame.text();
        const bool is_within =
            text.empty() || (text.data() >= bytes.data() && text.data() + text.size() <= bytes.data() + bytes.size());
        if (!is_within) std::abort();
    }
}

}  // namespace

// The first byte is how much arrives at once. What is written again as it was read is the same.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::string_view all(reinterpret_cast<const char*>(data) + 1, size - 1);
    const std::size_t part = std::size_t{data[0]} + 1;
    FrameQueue arrived;
    SendQueue sent;
    for (std::size_t at = 0; at < all.size(); at += part) {
        const std::string_view piece = all.substr(at, part);
        arrived.add(piece.data(), piece.size());
        std::string_view frame;
        while (arrived.next(frame)) {
            if (frame.empty() || frame.size() > kLongestEngineFrame) std::abort();
            read(frame, all.substr(0, 16));
            FrameWriter again(static_cast<EngineFrame>(frame.front()));
            again.text(frame);
            sent.add(again.finish());
            sent.sent(std::min(sent.rest().size(), part));
        }
        if (arrived.is_bad()) break;
    }
    while (!sent.empty()) {
        sent.sent(std::min(sent.rest().size(), part));
    }
    return 0;
}
