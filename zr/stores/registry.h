#pragma once

// The registry as the commands of zr reg use it. Every function throws Failure when the store fails.

#include <platform/registry.h>

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "zr/base/failure.h"
#include "zr/regfile/path.h"
#include "zr/regfile/value.h"

namespace zr {

class Json;

// What a failed call of the registry means: the code to end with and one line for people.
Failure reg_failure(LONG result, const std::string& doing);

// The path that a word of the command line names. Throws Failure (Usage).
RegPath reg_path_of(const std::string& word);
// The name of a value: "@" or nothing is the default value.
std::u16string reg_name_of(const std::string& word);
// A path or a name for people, control characters escaped.
std::string shown(const RegPath& path);
std::string shown_name(std::u16string_view name);
// The same for JSON, where a lone surrogate becomes U+FFFD; and an object that has it as "key".
std::string json_text_of(const RegPath& path);
Json json_of(const RegPath& path);

// Whether this process found the store damaged and set it aside; a warning of it.
bool was_set_aside();
void tell_what_was_set_aside();

struct NamedRegValue {
    std::u16string name;
    RegValue value;

    bool operator==(const NamedRegValue&) const = default;
};

// "Name" = TYPE data.
std::string value_line(const NamedRegValue& value);
Json value_json(const NamedRegValue& value);

HKEY root_handle(RegRoot root);
// Returns when all that was changed is on the disk.
void flush_registry();

class RegKey {
public:
    // Nothing when there is no such key.
    static std::optional<RegKey> open(const RegPath& path);
    // Throws Failure (None) when there is no such key.
    static RegKey existing(const RegPath& path);

    RegKey(RegKey&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)), path_(std::move(other.path_)) {}
    ~RegKey();
    RegKey& operator=(RegKey&&) = delete;

    HKEY handle() const { return handle_; }
    const RegPath& path() const { return path_; }

    std::optional<RegValue> value(const std::u16string& name) const;

    // In the registry's order. Nothing of a key that has been deleted meanwhile.
    std::vector<std::u16string> sub_keys() const;
    std::vector<NamedRegValue> values() const;

private:
    RegKey(HKEY handle, RegPath path) : handle_(handle), path_(std::move(path)) {}

    HKEY handle_;
    RegPath path_;
};

// Changes of a key, with `subtree` also of what is below it, from when it is made on.
class RegChanges {
public:
    RegChanges(const RegKey& key, bool subtree);
    ~RegChanges();
    RegChanges(const RegChanges&) = delete;
    RegChanges& operator=(const RegChanges&) = delete;

    HANDLE handle() const { return handle_; }
    // Whether there was one. The news of it may take a moment; `milliseconds` to wait for that. rearm() makes it ready
    // for the next.
    bool came(DWORD milliseconds = 0) const;
    // False when the key is gone.
    bool rearm() const;

private:
    HANDLE handle_;
};

// A key and all below it, parents first: visit(path, values, depth) returns whether to go below the key. Keys that are
// deleted meanwhile are passed over.
using VisitRegKey = std::function<bool(const RegPath& path, const std::vector<NamedRegValue>& values, int depth)>;
void walk_reg_tree(const RegKey& top, const VisitRegKey& visit);

// {"key": ..., "values": [...]}
Json key_json(const RegPath& path, const std::vector<NamedRegValue>& values);

}  // namespace zr
