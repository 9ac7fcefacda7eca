// zr reg list, tree: what is in a key, and below it.

#include <limits>
#include <memory>

#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/table.h"
#include "zr/base/text.h"
#include "zr/commands/reg_command.h"
#include "zr/stores/registry.h"

namespace zr {
namespace {

struct RegListOptions {
    std::string key;
    LONG depth = std::numeric_limits<LONG>::max();
    bool keys = false;
    bool json = false;
};

void list_key(const RegPath& path, std::u16string_view name, bool json, Table& table) {
    if (json) {
        print_json_line(json_of(path));
    } else {
        table.add(printable(to_utf8(name)) + "\\\n");
    }
}

void list_value(const RegPath& path, const NamedRegValue& value, bool json, Table& table) {
    if (json) {
        Json line = json_of(path);
        line.set_all(value_json(value));
        print_json_line(line);
        return;
    }
    table.add((value.name.empty() ? "@" : printable(to_utf8(value.name))) + "\t" + reg_type_name(value.value.type) +
              "\t" + reg_data_shown(value.value) + "\n");
}

void list_in(const RegListOptions& options, Table& table) {
    if (options.key.empty()) {
        for (const RegRoot root : kRegRoots) {
            list_key({root, u""}, to_utf16(reg_root_name(root)), options.json, table);
        }
        return;
    }
    const RegKey key = RegKey::existing(reg_path_of(options.key));
    for (const std::u16string& name : key.sub_keys()) {
        list_key(reg_child(key.path(), name), name, options.json, table);
    }
    for (const NamedRegValue& value : key.values()) {
        list_value(key.path(), value, options.json, table);
    }
}

Exit list(const RegListOptions& options) {
    page_output();
    Table table({{"NAME", Column::Kind::Reference}, {"TYPE"}, {"DATA"}});
    list_in(options, table);
    table.finish();
    return Exit::Ok;
}

std::string last_name(const RegPath& path) {
    return printable(to_utf8(path.below.substr(path.below.rfind(u'\\') + 1)));
}

void print_tree(const RegPath& top, const RegListOptions& options) {
    walk_reg_tree(RegKey::existing(top), [&](const RegPath& path, const auto& values, int depth) {
        if (options.json) {
            print_json_line(options.keys ? json_of(path) : key_json(path, values));
            return depth < options.depth;
        }
        const std::string indent(2 * static_cast<std::size_t>(depth), ' ');
        print(indent + (depth == 0 ? shown(path) : last_name(path)) + "\\\n");
        for (const NamedRegValue& value : values) {
            if (!options.keys) print(indent + "  " + value_line(value) + "\n");
        }
        return depth < options.depth;
    });
}

Exit tree(const RegListOptions& options) {
    page_output();
    if (!options.key.empty()) {
        print_tree(reg_path_of(options.key), options);
        return Exit::Ok;
    }
    for (const RegRoot root : kRegRoots) {
        print_tree({root, u""}, options);
    }
    return Exit::Ok;
}

}  // namespace

void add_reg_list(Command reg) {
    const auto options = std::make_shared<RegListOptions>();
    Command command = reg.add_command("list", "List the keys and values in a key");
    command.add_option("KEY", options->key, "The key (default: the roots)");
    command.add_flag("--json", options->json, "Print one JSON object per key or value and line");
    command.footer(
        "A line is a key's name with a backslash behind it, or a value's name, type and data with tabs\n"
        "between; @ is the default value. The exit code is 1 when there is no such key.\n"
        "\n"
        "Examples:\n"
        "  zr reg list HKLM\n"
        "  zr reg list --json 'HKCU\\Software\\Example' | jq -r 'select(.type == \"REG_DWORD\") | .name'");
    reads_registry(command, [options] { return list(*options); });
}

void add_reg_tree(Command reg) {
    const auto options = std::make_shared<RegListOptions>();
    Command command = reg.add_command("tree", "Print a key and all below it");
    command.add_option("KEY", options->key, "The key (default: all roots)");
    command.add_option("-d,--depth", options->depth, "Go down no more than this many keys").positive();
    command.add_flag("-k,--keys", options->keys, "Print keys only, without their values");
    command.add_flag("--json", options->json, "Print one JSON object per key and line");
    command.footer(
        "The exit code is 1 when there is no such key.\n"
        "\n"
        "Examples:\n"
        "  zr reg tree HKCU --depth 2 --keys\n"
        "  zr reg tree --json 'HKLM\\Comm' | jq -r '.key'");
    reads_registry(command, [options] { return tree(*options); });
}

}  // namespace zr
