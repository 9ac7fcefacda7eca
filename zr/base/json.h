#pragma once

// JSON to be printed: put together once, and not read back. One source knows the library behind it and pays for
// compiling it.

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace zr {

class Json {
public:
    using Member = std::pair<std::string_view, Json>;

    Json();  // an object without members
    Json(std::initializer_list<Member> members);
    static Json array();

    Json(std::nullptr_t);
    Json(std::string_view text);
    Json(const std::string& text) : Json(std::string_view(text)) {}
    Json(const char* text) : Json(std::string_view(text)) {}
    Json(double number);
    template <std::integral Number>
    Json(Number number) : Json(nullptr) {
        put(static_cast<Integer<Number>>(number));
    }

    Json(const Json& other);
    Json(Json&& other) noexcept;
    ~Json();
    Json& operator=(Json other) noexcept;

    // Of an object, which keeps the order in which its members came first.
    void set(std::string_view key, Json value);
    void set_all(const Json& object);
    // Of an array.
    void add(Json value);

    // On one line. Bytes that are not valid UTF-8 are U+FFFD. With `ascii`, every other character is an escape.
    std::string text(bool ascii) const;

private:
    template <typename Number>
    using Integer = std::conditional_t<std::same_as<Number, bool>, bool,
                                       std::conditional_t<std::is_signed_v<Number>, std::int64_t, std::uint64_t>>;

    void put(bool value);
    void put(std::int64_t number);
    void put(std::uint64_t number);

    std::unique_ptr<nlohmann::ordered_json> value_;
};

}  // namespace zr
