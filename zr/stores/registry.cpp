#include "zr/stores/registry.h"

#include <platform/base.h>
#include <platform/errors.h>
#include <platform/kernel.h>

#include <new>
#include <utility>

#include "zr/base/json.h"
#include "zr/base/text.h"

namespace zr {
namespace {

// A name of the longest length and its terminator.
constexpr DWORD kNameRoom = kLongestRegName + 1;
constexpr DWORD kUsualData = 256;

bool is_gone(LONG result) {
    return result == static_cast<LONG>(ERROR_FILE_NOT_FOUND) || result == static_cast<LONG>(ERROR_KEY_DELETED);
}

bool is(LONG result, DWORD error) {
    return result == static_cast<LONG>(error);
}

void check(LONG result, const std::string& doing) {
    if (result != ERROR_SUCCESS) throw reg_failure(result, doing);
}

std::string text_of(LPCWSTR text) {
    return to_utf8(text);
}

}  // namespace

Failure reg_failure(LONG result, const std::string& doing) {
    if (is(result, ERROR_NOT_ENOUGH_MEMORY)) throw std::bad_alloc();
    const Exit code = is(result, ERROR_DISK_FULL)           ? Exit::DiskFull
                      : is(result, ERROR_REVISION_MISMATCH) ? Exit::NewerStore
                      : is(result, ERROR_REGISTRY_CORRUPT)  ? Exit::DamagedStore
                                                            : Exit::StoreFailed;
    const std::string reason = text_of(ZrRegistryLastErrorText());
    return {code, doing + ": " + (reason.empty() ? "error " + std::to_string(result) : reason)};
}

RegPath reg_path_of(const std::string& word) {
    if (!is_utf8(word)) throw Failure{Exit::Usage, "'" + word + "' is not valid UTF-8"};
    RegPath path;
    const std::string fault = parse_reg_path(to_utf16(word), path);
    if (!fault.empty()) throw Failure{Exit::Usage, word + ": " + fault + " (HKCR, HKCU, HKLM and HKU are the roots)"};
    return path;
}

std::u16string reg_name_of(const std::string& word) {
    if (!is_utf8(word)) throw Failure{Exit::Usage, "'" + word + "' is not valid UTF-8"};
    std::u16string name = to_utf16(word == "@" ? "" : word);
    if (const std::string fault = reg_name_fault(name); !fault.empty()) throw Failure{Exit::Usage, fault};
    return name;
}

std::string json_text_of(const RegPath& path) {
    return to_utf8(reg_path_text(path));
}

Json json_of(const RegPath& path) {
    Json json;
    json.set("key", json_text_of(path));
    return json;
}

std::string shown(const RegPath& path) {
    return printable(json_text_of(path));
}

std::string shown_name(std::u16string_view name) {
    return name.empty() ? "@" : "\"" + printable(to_utf8(name)) + "\"";
}

bool was_set_aside() {
    return *ZrRegistrySetAsideText() != 0;
}

void tell_what_was_set_aside() {
    const std::string text = text_of(ZrRegistrySetAsideText());
    if (!text.empty()) complain("warning: " + text);
}

std::string value_line(const NamedRegValue& value) {
    return shown_name(value.name) + " = " + reg_type_name(value.value.type) + " " + reg_data_shown(value.value);
}

Json value_json(const NamedRegValue& value) {
    Json json;
    json.set("name", to_utf8(value.name));
    add_reg_value(json, value.value);
    return json;
}

Json key_json(const RegPath& path, const std::vector<NamedRegValue>& values) {
    Json all = Json::array();
    for (const NamedRegValue& each : values) {
        all.add(value_json(each));
    }
    Json json = json_of(path);
    json.set("values", std::move(all));
    return json;
}

HKEY root_handle(RegRoot root) {
    switch (root) {
        case RegRoot::ClassesRoot:
            return HKEY_CLASSES_ROOT;
        case RegRoot::CurrentUser:
            return HKEY_CURRENT_USER;
        case RegRoot::LocalMachine:
            return HKEY_LOCAL_MACHINE;
        case RegRoot::Users:
            return HKEY_USERS;
    }
    return nullptr;
}

void flush_registry() {
    check(RegFlushKey(HKEY_CURRENT_USER), "writing the registry to the disk");
}

std::optional<RegKey> RegKey::open(const RegPath& path) {
    HKEY handle = nullptr;
    const LONG result = RegOpenKeyExW(root_handle(path.root), path.below.c_str(), 0, KEY_READ, &handle);
    if (is_gone(result)) return std::nullopt;
    check(result, "opening " + shown(path));
    return RegKey(handle, path);
}

RegKey RegKey::existing(const RegPath& path) {
    std::optional<RegKey> key = open(path);
    if (!key) throw Failure{Exit::None, "no key " + shown(path)};
    return std::move(*key);
}

RegKey::~RegKey() {
    if (handle_ != nullptr) RegCloseKey(handle_);
}

std::optional<RegValue> RegKey::value(const std::u16string& name) const {
    RegValue value;
    value.data.resize(kUsualData);
    for (;;) {
        auto size = static_cast<DWORD>(value.data.size());
        const LONG result = RegQueryValueExW(handle_, name.c_str(), nullptr, &value.type,
                                             reinterpret_cast<BYTE*>(value.data.data()), &size);
        if (is_gone(result)) return std::nullopt;
        value.data.resize(size);
        if (is(result, ERROR_MORE_DATA)) continue;
        check(result, "reading " + shown(path_));
        return value;
    }
}

std::vector<std::u16string> RegKey::sub_keys() const {
    std::vector<std::u16string> names;
    for (;;) {
        WCHAR name[kNameRoom];
        DWORD length = kNameRoom;
        const LONG result =
            RegEnumKeyExW(handle_, static_cast<DWORD>(names.size()), name, &length, nullptr, nullptr, nullptr, nullptr);
        if (is(result, ERROR_NO_MORE_ITEMS)) return names;
        if (is_gone(result)) return {};
        check(result, "reading " + shown(path_));
        names.emplace_back(name, length);
    }
}

std::vector<NamedRegValue> RegKey::values() const {
    std::vector<NamedRegValue> values;
    std::string data(kUsualData, '\0');
    for (;;) {
        WCHAR name[kNameRoom];
        DWORD length = kNameRoom;
        DWORD type = 0;
        auto size = static_cast<DWORD>(data.size());
        const LONG result = RegEnumValueW(handle_, static_cast<DWORD>(values.size()), name, &length, nullptr, &type,
                                          reinterpret_cast<BYTE*>(data.data()), &size);
        if (is(result, ERROR_NO_MORE_ITEMS)) return values;
        if (is_gone(result)) return {};
        if (is(result, ERROR_MORE_DATA)) {
            data.resize(size);
            continue;
        }
        check(result, "reading " + shown(path_));
        values.push_back({{name, length}, {type, data.substr(0, size)}});
    }
}

RegChanges::RegChanges(const RegKey& key, bool subtree)
    : handle_(CeFindFirstRegChange(key.handle(), subtree, REG_NOTIFY_CHANGE_NAME | REG_NOTIFY_CHANGE_LAST_SET)) {
    if (handle_ == INVALID_HANDLE_VALUE)
        throw reg_failure(static_cast<LONG>(GetLastError()), "watching " + shown(key.path()));
}

RegChanges::~RegChanges() {
    CeFindCloseRegChange(handle_);
}

bool RegChanges::came(DWORD milliseconds) const {
    return WaitForSingleObject(handle_, milliseconds) == WAIT_OBJECT_0;
}

bool RegChanges::rearm() const {
    if (CeFindNextRegChange(handle_)) return true;
    const DWORD error = GetLastError();
    if (error == ERROR_KEY_DELETED) return false;
    throw reg_failure(static_cast<LONG>(error), "watching the registry");
}

namespace {

void walk(const RegKey& key, const VisitRegKey& visit, int depth) {
    if (!visit(key.path(), key.values(), depth)) return;
    for (const std::u16string& name : key.sub_keys()) {
        if (const std::optional<RegKey> child = RegKey::open(reg_child(key.path(), name)))
            walk(*child, visit, depth + 1);
    }
}

}  // namespace

void walk_reg_tree(const RegKey& top, const VisitRegKey& visit) {
    walk(top, visit, 0);
}

}  // namespace zr
