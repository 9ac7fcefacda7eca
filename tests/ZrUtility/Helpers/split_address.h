#pragma once

// What a function that splits "name <address>" in place made of a text.

#include <gtest/gtest.h>

#include <optional>
#include <ostream>
#include <string>

#include "platform/types.h"
#include "support/text.h"

namespace zr::test {

struct SplitAddress {
    std::u16string address;
    std::optional<std::u16string> name;

    bool operator==(const SplitAddress&) const = default;
};

inline void PrintTo(const SplitAddress& split, std::ostream* out) {
    *out << testing::PrintToString(split.address) << " named " << testing::PrintToString(split.name);
}

template <class Function>
SplitAddress split_by(Function function, const std::u16string& text) {
    Text s(text);
    WCHAR* address = nullptr;
    WCHAR* name = s;
    function(s, &address, &name);
    EXPECT_TRUE(name == nullptr || name == s);
    SplitAddress split{address, {}};
    if (name != nullptr) split.name = name;
    return split;
}

}  // namespace zr::test
