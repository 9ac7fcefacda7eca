// zr reg get, set, delete: single values and keys.

#include <memory>

#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/text.h"
#include "zr/commands/reg_command.h"
#include "zr/stores/registry.h"

namespace zr {
namespace {

struct RegGetOptions {
    std::string key;
    std::string name;
    std::vector<std::string> words;
    std::string type = "REG_SZ";
    Option name_option{nullptr};
    bool tree = false;
    bool json = false;
};

constexpr const char* kKeyHelp = "The key, such as 'HKCU\\Software\\Example'";

void print_value(const RegPath& path, const NamedRegValue& value) {
    Json json = json_of(path);
    json.set_all(value_json(value));
    print_json_line(json);
}

// Nothing but the data, one line for each text of several.
void print_data(const RegValue& value) {
    const auto texts = value.type == REG_MULTI_SZ ? reg_texts(value) : std::nullopt;
    if (!texts) return print(reg_data_shown(value) + "\n");
    for (const std::u16string& text : *texts) {
        print(unmistakable(to_utf8(text)) + "\n");
    }
}

void make_changes(const std::vector<ZrRegistryChange>& changes, const std::string& doing) {
    const LONG result = ZrRegistryApply(changes.data(), static_cast<DWORD>(changes.size()), nullptr);
    if (result != ERROR_SUCCESS) throw reg_failure(result, doing);
}

Exit get(const RegGetOptions& options) {
    const std::u16string name = reg_name_of(options.name);
    const RegKey key = RegKey::existing(reg_path_of(options.key));
    const std::optional<RegValue> value = key.value(name);
    if (!value) throw Failure{Exit::None, "no value " + shown_name(name) + " in " + shown(key.path())};
    if (options.json) {
        print_value(key.path(), {name, *value});
    } else {
        print_data(*value);
    }
    return Exit::Ok;
}

Exit set(const RegGetOptions& options) {
    const RegPath path = reg_path_of(options.key);
    const std::optional<DWORD> type = parse_reg_type(options.type);
    if (!type) throw Failure{Exit::Usage, "--type: " + options.type + " is no type such as REG_DWORD or 0x15"};
    const bool with_value = options.name_option.given();
    NamedRegValue value;
    if (with_value) value = {reg_name_of(options.name), parse_reg_value(*type, options.words)};
    const auto* const data = reinterpret_cast<const BYTE*>(value.value.data.data());
    make_changes(
        {{with_value ? ZrRegistryStep::SetValue : ZrRegistryStep::CreateKey, root_handle(path.root), path.below.c_str(),
          value.name.c_str(), value.value.type, data, static_cast<DWORD>(value.value.data.size())}},
        "setting in " + shown(path));
    flush_registry();
    if (!options.json) return Exit::Ok;
    if (with_value) {
        print_value(path, value);
    } else {
        print_json_line(json_of(path));
    }
    return Exit::Ok;
}

void delete_values(const RegKey& key, const std::vector<std::string>& words, bool json) {
    std::vector<std::u16string> names;
    for (const std::string& word : words) {
        names.push_back(reg_name_of(word));
        if (!key.value(names.back()))
            throw Failure{Exit::None, "no value " + shown_name(names.back()) + " in " + shown(key.path())};
    }
    std::vector<ZrRegistryChange> changes;
    changes.reserve(names.size());
    for (const std::u16string& name : names) {
        changes.push_back({ZrRegistryStep::DeleteValue, key.handle(), u"", name.c_str(), 0, nullptr, 0});
    }
    make_changes(changes, "deleting in " + shown(key.path()));
    for (const std::u16string& name : names) {
        if (json) print_json_line({{"deleted", "value"}, {"key", json_text_of(key.path())}, {"name", to_utf8(name)}});
    }
}

void delete_key(const RegKey& key, bool tree, bool json) {
    const RegPath& path = key.path();
    if (path.below.empty()) throw Failure{Exit::Usage, "a root cannot be deleted"};
    if (!tree && !key.sub_keys().empty())
        throw Failure{Exit::Usage, shown(path) + " has keys below it; --tree deletes them too"};
    make_changes({{ZrRegistryStep::DeleteKey, root_handle(path.root), path.below.c_str(), nullptr, 0, nullptr, 0}},
                 "deleting " + shown(path));
    if (json) print_json_line({{"deleted", "key"}, {"key", json_text_of(path)}});
}

Exit remove(const RegGetOptions& options) {
    if (options.tree && !options.words.empty()) throw Failure{Exit::Usage, "--tree is for keys, not for values"};
    const RegPath path = reg_path_of(options.key);
    const RegKey key = RegKey::existing(path);
    if (options.words.empty()) {
        delete_key(key, options.tree, options.json);
    } else {
        delete_values(key, options.words, options.json);
    }
    flush_registry();
    return Exit::Ok;
}

}  // namespace

void add_reg_get(Command reg) {
    const auto options = std::make_shared<RegGetOptions>();
    Command command = reg.add_command("get", "Print the data of a value");
    command.add_option("KEY", options->key, kKeyHelp).required();
    command.add_option("NAME", options->name, "The value; @, or left out, is the key's default value");
    command.add_flag("--json", options->json, "Print a JSON object with key, name, type and data");
    command.footer(
        "Text is printed as text, several texts line by line, numbers in decimal, and everything else as\n"
        "bytes. Text with line breaks or other control characters is printed in quotes, with \\n for a line\n"
        "break and \\\\ for a backslash. In JSON \"data\" is text, texts or a number; what that cannot say exactly is "
        "\"hex\".\n"
        "The exit code is 1 when there is no such value.\n"
        "\n"
        "Examples:\n"
        "  zr reg get 'HKCU\\Software\\Example' Port\n"
        "  zr reg get --json 'HKLM\\Software\\Microsoft\\Color' SHColor | jq -r .hex");
    reads_registry(command, [options] { return get(*options); });
}

void add_reg_set(Command reg) {
    const auto options = std::make_shared<RegGetOptions>();
    Command command = reg.add_command("set", "Set a value, or make a key");
    command.add_option("KEY", options->key, kKeyHelp).required();
    options->name_option =
        command.add_option("NAME", options->name, "The value; @ is the default value. Left out: only make the key");
    command.add_option("DATA", options->words, "Text, a number, or bytes such as '0a ff'; REG_MULTI_SZ takes several");
    command.add_option("-t,--type", options->type, "A type's name, with or without REG_, or its number")
        .one_at_a_time()
        .shows_default();
    command.add_flag("--json", options->json, "Print what was set as a JSON object");
    command.footer(
        "The key is made when it is not there. What was set is on the disk when the command ends.\n"
        "\n"
        "Examples:\n"
        "  zr reg set 'HKCU\\Software\\Example' Name 'Jo Doe'\n"
        "  zr reg set 'HKCU\\Software\\Example' Port 8080 --type dword\n"
        "  zr reg set 'HKCU\\Software\\Example' Offset --type dword -- 0xffffff9c\n"
        "  zr reg set 'HKCU\\Software\\Example' Accounts jo@x.example al@x.example --type multi_sz");
    runs_with_registry(command, [options] { return set(*options); });
}

void add_reg_delete(Command reg) {
    const auto options = std::make_shared<RegGetOptions>();
    Command command = reg.add_command("delete", "Delete values, or a key");
    command.add_option("KEY", options->key, kKeyHelp).required();
    command.add_option("NAME", options->words, "The values to delete; @ is the default value. None: the key itself");
    command.add_flag("--tree", options->tree, "Delete a key that has keys below it, with all of them");
    command.add_flag("--json", options->json, "Print one JSON object per deletion and line");
    command.footer(
        "All of it is deleted or nothing. The exit code is 1 when one of the values, or the key, is not there.\n"
        "\n"
        "Examples:\n"
        "  zr reg delete 'HKCU\\Software\\Example' Port Name\n"
        "  zr reg delete 'HKCU\\Software\\Example' --tree");
    runs_with_registry(command, [options] { return remove(*options); });
}

}  // namespace zr
