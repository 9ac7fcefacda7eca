#include "zr/base/json.h"

#include <nlohmann/json.hpp>

namespace zr {

using nlohmann::ordered_json;

Json::Json() : value_(std::make_unique<ordered_json>(ordered_json::object())) {}

Json::Json(std::initializer_list<Member> members) : Json() {
    for (const Member& member : members) {
        set(member.first, member.second);
    }
}

Json Json::array() {
    Json json(nullptr);
    *json.value_ = ordered_json::array();
    return json;
}

Json::Json(std::nullptr_t) : value_(std::make_unique<ordered_json>()) {}
Json::Json(std::string_view text) : value_(std::make_unique<ordered_json>(text)) {}
Json::Json(double number) : value_(std::make_unique<ordered_json>(number)) {}

Json::Json(const Json& other) : value_(std::make_unique<ordered_json>(*other.value_)) {}
Json::Json(Json&& other) noexcept = default;
Json::~Json() = default;

Json& Json::operator=(Json other) noexcept {
    value_ = std::move(other.value_);
    return *this;
}

void Json::put(bool value) {
    *value_ = value;
}
void Json::put(std::int64_t number) {
    *value_ = number;
}
void Json::put(std::uint64_t number) {
    *value_ = number;
}

void Json::set(std::string_view key, Json value) {
    (*value_)[std::string(key)] = std::move(*value.value_);
}

void Json::set_all(const Json& object) {
    value_->update(*object.value_);
}

void Json::add(Json value) {
    value_->push_back(std::move(*value.value_));
}

std::string Json::text(bool ascii) const {
    return value_->dump(-1, ' ', ascii, ordered_json::error_handler_t::replace);
}

}  // namespace zr
