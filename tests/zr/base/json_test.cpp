#include "zr/base/json.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

namespace {

using zr::Json;

TEST(Json, KeepsTheOrderOfMembers) {
    Json json = {{"b", "text"}, {"a", std::string("ü")}};
    json.set("c", nullptr);
    json.set("b", true);
    EXPECT_EQ(json.text(false), R"({"b":true,"a":"ü","c":null})");
    json.set_all({{"d", 1}, {"a", Json::array()}});
    EXPECT_EQ(json.text(false), R"({"b":true,"a":[],"c":null,"d":1})");
    EXPECT_EQ(Json().text(false), "{}");
}

TEST(Json, WritesEveryNumberInFull) {
    Json json = Json::array();
    json.add(std::numeric_limits<std::int64_t>::min());
    json.add(std::numeric_limits<std::uint64_t>::max());
    json.add(std::uint16_t{65535});
    json.add(-1);
    json.add(false);
    json.add(0.125);
    EXPECT_EQ(json.text(false), "[-9223372036854775808,18446744073709551615,65535,-1,false,0.125]");
}

TEST(Json, CopiesAreApart) {
    const Json one = {{"a", Json{{"b", 1}}}};
    Json other = one;
    other.set("a", 2);
    EXPECT_EQ(one.text(false), R"({"a":{"b":1}})");
    EXPECT_EQ(other.text(false), R"({"a":2})");
}

TEST(Json, EscapesWhatMustNotStandInText) {
    const Json json = {{"a", "\"\\\n\x01"}, {"b", "\xFF"}, {"c", "ü\x7F"}};
    EXPECT_EQ(json.text(false), "{\"a\":\"\\\"\\\\\\n\\u0001\",\"b\":\"\uFFFD\",\"c\":\"ü\x7F\"}");
    EXPECT_EQ(json.text(true), R"({"a":"\"\\\n\u0001","b":"\ufffd","c":"\u00fc\u007f"})");
}

}  // namespace
