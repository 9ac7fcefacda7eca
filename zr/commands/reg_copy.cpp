// zr reg copy, rename and diff: whole keys.

#include "zr/stores/reg_copy.h"

#include <sys/stat.h>

#include <memory>

#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/pager.h"
#include "zr/base/text.h"
#include "zr/commands/reg_command.h"

namespace zr {
namespace {

struct RegCopyOptions {
    std::string key;
    std::string to;
    std::string name;  // of a value
    bool json = false;
};

void tell_copy(const char* change, const RegPath& from, const RegPath& to, bool json) {
    if (!json) return;
    Json line = {{"change", change}, {"from", json_text_of(from)}};
    line.set_all(json_of(to));
    print_json_line(line);
}

Exit copy(const RegCopyOptions& options) {
    const RegPath from = reg_path_of(options.key);
    const RegPath to = reg_path_of(options.to);
    copy_key(from, to, false);
    tell_copy("copied", from, to, options.json);
    return Exit::Ok;
}

// A name alone is one beside the key's present one.
RegPath renamed(const RegPath& from, const std::string& word) {
    RegPath to;
    if (word.find('\\') != std::string::npos) return reg_path_of(word);
    const std::u16string name = reg_name_of(word);
    if (name.empty()) throw Failure{Exit::Usage, "rename: a key cannot have an empty name"};
    to.root = from.root;
    const std::size_t cut = from.below.rfind(u'\\');
    if (cut != std::u16string::npos) to.below = from.below.substr(0, cut);
    return reg_child(to, name);
}

Exit rename_key(const RegCopyOptions& options) {
    const RegPath from = reg_path_of(options.key);
    if (from.below.empty()) throw Failure{Exit::Usage, "a root cannot be renamed"};
    const RegPath to = renamed(from, options.to);
    copy_key(from, to, true);
    tell_copy("renamed", from, to, options.json);
    return Exit::Ok;
}

Exit rename_value(const RegCopyOptions& options) {
    const RegKey key = RegKey::existing(reg_path_of(options.key));
    const std::u16string from = reg_name_of(options.name);
    const std::u16string to = reg_name_of(options.to);
    const std::optional<RegValue> value = key.value(from);
    if (!value) throw Failure{Exit::None, "no value " + shown_name(from) + " in " + shown(key.path())};
    const bool same = !RegNameLess()(from, to) && !RegNameLess()(to, from);
    if (!same && key.value(to))
        throw Failure{Exit::Usage, "rename: " + shown_name(to) + " is there already in " + shown(key.path())};
    const ZrRegistryChange changes[] = {
        {ZrRegistryStep::DeleteValue, key.handle(), u"", from.c_str(), 0, nullptr, 0},
        {ZrRegistryStep::SetValue, key.handle(), u"", to.c_str(), value->type,
         reinterpret_cast<const BYTE*>(value->data.data()), static_cast<DWORD>(value->data.size())}};
    const LONG result = ZrRegistryApply(changes, 2, nullptr);
    if (result != ERROR_SUCCESS) throw reg_failure(result, "renaming in " + shown(key.path()));
    flush_registry();
    if (options.json)
        print_json_line(
            {{"change", "renamed"}, {"key", json_text_of(key.path())}, {"from", to_utf8(from)}, {"name", to_utf8(to)}});
    return Exit::Ok;
}

class RegDiff {
public:
    explicit RegDiff(bool json) : json_(json) {}

    Exit run(const RegContents& first, const RegContents& second) {
        for (const auto& [path, values] : first) {
            const auto other = second.find(path);
            if (other == second.end()) tell_key(false, path);
            compare(path, values, other == second.end() ? RegValues() : other->second);
        }
        for (const auto& [path, values] : second) {
            if (first.contains(path)) continue;
            tell_key(true, path);
            compare(path, {}, values);
        }
        return any_ ? Exit::None : Exit::Ok;
    }

private:
    void compare(const std::u16string& path, const RegValues& first, const RegValues& second) {
        for (const auto& [name, value] : first) {
            const auto other = second.find(name);
            if (other != second.end() && other->second == value) continue;
            tell_value(false, path, name, value);
            if (other != second.end()) tell_value(true, path, name, other->second);
        }
        for (const auto& [name, value] : second) {
            if (!first.contains(name)) tell_value(true, path, name, value);
        }
    }

    void tell_key(bool in_second, const std::u16string& path) {
        any_ = true;
        if (json_) {
            print_json_line({{"in", in_second ? "second" : "first"}, {"below", to_utf8(path)}});
        } else {
            print((in_second ? "+ " : "- ") + printable(to_utf8(path)) + "\\\n");
        }
    }

    void tell_value(bool in_second, const std::u16string& path, const std::u16string& name, const RegValue& value) {
        any_ = true;
        if (json_) {
            Json line = {{"in", in_second ? "second" : "first"}, {"below", to_utf8(path)}};
            line.set_all(value_json({name, value}));
            print_json_line(line);
        } else {
            print((in_second ? "+ " : "- ") + (path.empty() ? "" : printable(to_utf8(path)) + ": ") +
                  value_line({name, value}) + "\n");
        }
    }

    const bool json_;
    bool any_ = false;
};

bool is_file(const std::string& word) {
    struct stat status;
    return word == "-" || ::stat(word.c_str(), &status) == 0;
}

// Who has enough has seen a difference.
Exit print_diff(bool json, const RegContents& first, const RegContents& second) {
    try {
        return RegDiff(json).run(first, second);
    } catch (const ReaderHasEnough&) {
        return Exit::None;
    }
}

Exit diff(const RegCopyOptions& options) {
    page_output();
    const RegPath key = reg_path_of(options.key);
    const RegContents first = contents_of(RegKey::existing(key));
    if (!is_file(options.to))
        return print_diff(options.json, first, contents_of(RegKey::existing(reg_path_of(options.to))));
    const RegContents second = contents_in_file(options.to, key);
    if (second.empty()) throw Failure{Exit::None, options.to + ": no key " + shown(key) + " in this file"};
    return print_diff(options.json, first, second);
}

}  // namespace

void add_reg_copy(Command reg) {
    const auto options = std::make_shared<RegCopyOptions>();
    Command command = reg.add_command("copy", "Copy a key with all below it");
    command.add_option("KEY", options->key, "The key").required();
    command.add_option("NEW", options->to, "The copy, which is not there yet").required();
    command.add_flag("--json", options->json, "Print what was copied as a JSON object");
    command.footer(
        "All of it is copied or nothing. The exit code is 1 when there is no such key, and 2 when NEW is there\n"
        "already, or one of the two is in the other.\n"
        "\n"
        "Example:\n"
        "  zr reg copy 'HKCU\\Software\\Example' 'HKCU\\Software\\Example before'");
    runs_with_registry(command, [options] { return copy(*options); });
}

void add_reg_rename(Command reg) {
    const auto options = std::make_shared<RegCopyOptions>();
    Command command = reg.add_command("rename", "Give a key or a value another name");
    command.add_option("KEY", options->key, "The key").required();
    command.add_option("NEW", options->to, "The new name, or for a key another path").required();
    command.add_option("--value", options->name, "Rename this value of the key; @ is the default value")
        .one_at_a_time();
    command.add_flag("--json", options->json, "Print what was renamed as a JSON object");
    command.footer(
        "A key takes all below it along, in one change. The exit code is 1 when there is no such key or\n"
        "value, and 2 when NEW is there already.\n"
        "\n"
        "Examples:\n"
        "  zr reg rename 'HKCU\\Software\\Exampel' Example\n"
        "  zr reg rename 'HKCU\\Software\\Example' Port --value Prot");
    runs_with_registry(command,
                       [options] { return options->name.empty() ? rename_key(*options) : rename_value(*options); });
}

void add_reg_diff(Command reg) {
    const auto options = std::make_shared<RegCopyOptions>();
    Command command = reg.add_command("diff", "Tell how two keys differ, or a key and a .reg file");
    command.add_option("KEY", options->key, "The key").required();
    command.add_option("OTHER", options->to, "Another key, or a .reg file that speaks of KEY; - is standard input")
        .required();
    command.add_flag("--json", options->json, "Print one JSON object per difference and line");
    command.footer(
        "A line begins with - for what only KEY has and with + for what only OTHER has; a value with other\n"
        "data is both. Paths are those below the keys. The exit code is 0 when there is no difference and 1\n"
        "when there is one.\n"
        "\n"
        "Examples:\n"
        "  zr reg diff 'HKCU\\Software\\Example' 'HKCU\\Software\\Example before'\n"
        "  zr reg diff 'HKCU\\Software\\Example' backup.reg");
    reads_registry(command, [options] { return diff(*options); });
}

}  // namespace zr
