#pragma once

// The monitor's rules for merging the events of one path, as a table, and what they leave of a batch.

#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "platform/base.h"

namespace zr::test {

struct TableEvent {
    unsigned int code;
    std::u16string path;
    std::u16string second;  // a rename's new name
    friend bool operator==(const TableEvent&, const TableEvent&) = default;
};

inline constexpr unsigned int kCodes[] = {0x1, 0x2, 0x4, 0x8, 0x10, 0x1000, 0x2000, 0x20000};

// Rows: the reference; columns: the event; both in the order of kCodes. d drop, r drop and refer, t take, - leave.
inline char merge_rule(unsigned int reference, unsigned int code) {
    static const std::map<unsigned int, std::string> rules = {
        {0x1, "ttt---t-"},  {0x2, "rrrddddd"},    {0x4, "dtdddddd"},    {0x8, "---dtt-t"},
        {0x10, "---tdd-d"}, {0x1000, "---dtt-t"}, {0x2000, "tdt---d-"}, {0x20000, "---dtt-t"},
    };
    const auto row = rules.find(reference);
    for (std::size_t i = 0; i < std::size(kCodes); ++i) {
        if (kCodes[i] == code) return row == rules.end() ? '-' : row->second[i];
    }
    return '-';
}

inline std::u16string lower(std::u16string text) {
    for (WCHAR& c : text) {
        c = towlower(c);
    }
    return text;
}

// What stays of a batch; the others are added to `dropped`, where that is wanted.
inline std::vector<TableEvent> merged(const std::vector<TableEvent>& events,
                                      std::vector<TableEvent>* dropped = nullptr) {
    std::vector<TableEvent> kept;
    unsigned int reference = 0;
    std::u16string path;
    for (std::size_t i = 0; i < events.size(); ++i) {
        const TableEvent& each = events[i];
        std::u16string own_path = lower(each.path);
        const bool other = i == 0 || own_path != path;
        const char what = other ? 't' : merge_rule(reference, each.code);
        if (what == 't' || what == 'r') {
            reference = each.code;
            path = std::move(own_path);
        }
        if (what == 't' || what == '-')
            kept.push_back(each);
        else if (dropped)
            dropped->push_back(each);
    }
    return kept;
}

}  // namespace zr::test
