#pragma once

// Collects log records without asking for memory, so that it may listen while a test lets memory run out.

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "ZrLog/ZrLog.h"

namespace zr::test {

// A record as a test expects it. Text is compared up to the tape's room for it.
struct TapedRecord {
    std::string_view source;
    int line = 0;
    std::uint32_t category = 0;
    std::vector<std::uintptr_t> arguments;
    std::string data;

    bool operator==(const TapedRecord&) const = default;
};

inline void PrintTo(const TapedRecord& record, std::ostream* out) {
    *out << record.source << ':' << record.line << " 0x" << std::hex << record.category << std::dec;
    for (const std::uintptr_t argument : record.arguments) {
        *out << ' ' << argument;
    }
    if (!record.data.empty()) *out << " \"" << record.data << '"';
}

class LogTape {
public:
    LogTape() { zrLogSetSink(sink, this); }
    ~LogTape() { zrLogSetSink(nullptr, nullptr); }
    LogTape(const LogTape&) = delete;
    LogTape& operator=(const LogTape&) = delete;

    // What was logged since the last call.
    std::vector<TapedRecord> take() {
        std::vector<TapedRecord> taken;
        for (int i = 0; i < count_; ++i) {
            const Entry& entry = entries_[static_cast<std::size_t>(i)];
            taken.push_back({entry.source,
                             entry.line,
                             entry.category,
                             {entry.arguments.begin(), entry.arguments.begin() + entry.argumentCount},
                             std::string(entry.data.data(), entry.size)});
        }
        count_ = 0;
        return taken;
    }

private:
    struct Entry {
        const char* source;
        int line;
        std::uint32_t category;
        int argumentCount;
        std::array<std::uintptr_t, 4> arguments;
        std::array<char, 32> data;
        std::size_t size;
    };

    static void sink(const ZrLogRecord& record, void* context) {
        auto* tape = static_cast<LogTape*>(context);
        // The last place is never given back: a tape that ran full shows it by its length.
        Entry& entry = tape->entries_[static_cast<std::size_t>(tape->count_)];
        tape->count_ = std::min(tape->count_ + 1, kRoom - 1);
        entry = {record.source, record.line, record.category, record.argumentCount, {}, {}, 0};
        std::copy_n(record.arguments, record.argumentCount, entry.arguments.begin());
        entry.size = std::min(record.size, entry.data.size());
        if (entry.size != 0) std::memcpy(entry.data.data(), record.data, entry.size);
    }

    static constexpr int kRoom = 256;
    std::array<Entry, kRoom> entries_{};
    int count_ = 0;
};

}  // namespace zr::test
