#pragma once

// A property's value as the store has it, and rows of values as programs get them.

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/mapi.h"
#include "spool.h"

namespace zr::platform::mapi {

inline constexpr std::size_t kMostGiven = 32768;  // bytes of a value that GetProps gives

struct Value {
    ULONG type = PT_NULL;
    LONGLONG number = 0;                 // of the types of fixed size, as their bits
    std::string bytes;                   // text (units), binary, CLSID
    LONGLONG blob = 0;                   // a long value that is kept
    ULONGLONG blob_size = 0;             // its bytes
    std::shared_ptr<const Spool> spool;  // a long value that is not kept yet

    bool is_long() const { return blob != 0 || spool != nullptr; }
    ULONGLONG size() const;

    static Value of_text(std::u16string_view text);
    static Value of_number(ULONG type, LONGLONG number);
};

// By the tags' identifiers.
using Values = std::map<WORD, Value>;

constexpr WORD id_of(ULONG tag) {
    return static_cast<WORD>(PROP_ID(tag));
}

// Whether the type has bytes; whether there is such a type here.
bool has_bytes(ULONG type);
bool is_fixed(ULONG type);

inline std::u16string_view as_text(std::string_view bytes) {
    return {reinterpret_cast<const WCHAR*>(bytes.data()), bytes.size() / sizeof(WCHAR)};
}
inline std::string_view as_bytes(std::u16string_view text) {
    return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(WCHAR)};
}

// What a program gave; S_OK, or why it cannot be kept.
SCODE take_value(const SPropValue& given, Value& value);

// Collects one row and makes a buffer of it. What is given to bytes() must stay until finish().
class Row {
public:
    void clear() {
        items_.clear();
        arena_.clear();
        errors_ = false;
    }
    void reserve(std::size_t items) { items_.reserve(items); }
    std::size_t size() const { return items_.size(); }
    bool has_errors() const { return errors_; }

    void number(ULONG tag, LONGLONG number) { items_.push_back({tag, number, nullptr, 0, kNoBytes}); }
    void bytes(ULONG tag, std::string_view bytes) { items_.push_back({tag, 0, bytes.data(), bytes.size(), kGiven}); }
    void text(ULONG tag, std::u16string_view text) { bytes(tag, as_bytes(text)); }
    void copy(ULONG tag, const void* bytes, std::size_t size);
    void error(ULONG tag, SCODE code) {
        number(CHANGE_PROP_TYPE(tag, PT_ERROR), code);
        errors_ = true;
    }

    // Copies what was given to bytes(): it need not stay any more.
    void keep();
    // Throws std::bad_alloc when memory is short. `size`: the buffer's.
    SPropValue* finish(std::size_t* size = nullptr) const;

private:
    static constexpr std::size_t kNoBytes = static_cast<std::size_t>(-1);
    static constexpr std::size_t kGiven = static_cast<std::size_t>(-2);
    struct Item {
        ULONG tag;
        LONGLONG number;
        const char* data;
        std::size_t size;
        std::size_t at;  // in the arena
    };

    std::vector<Item> items_;
    std::string arena_;
    bool errors_ = false;
};

// -1, 0 or 1; text unit by unit, or ignoring case.
int compare_values(const SPropValue& a, const SPropValue& b, bool ignore_case);
// Text or bytes of a value of these types.
std::string_view bytes_of(const SPropValue& value);
std::u16string folded(std::u16string_view text);

}  // namespace zr::platform::mapi
