// zr reg find: keys and values by a part of their name or data.

#include <memory>

#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/text.h"
#include "zr/commands/reg_command.h"
#include "zr/stores/registry.h"

namespace zr {
namespace {

struct RegFindOptions {
    std::string text;
    std::string key;
    bool keys = false;
    bool names = false;
    bool data = false;
    bool exact = false;
    bool json = false;
};

class RegFind {
public:
    explicit RegFind(const RegFindOptions& options) : options_(options), wanted_(folded(options.text)) {
        if (!is_utf8(options.text)) throw Failure{Exit::Usage, "TEXT is not valid UTF-8"};
    }

    Exit run() {
        if (!options_.key.empty()) {
            look_in(reg_path_of(options_.key));
        } else {
            for (const RegRoot root : kRegRoots) {
                look_in({root, u""});
            }
        }
        return found_ ? Exit::Ok : Exit::None;
    }

private:
    void look_in(const RegPath& top) {
        walk_reg_tree(RegKey::existing(top), [this](const RegPath& path, const auto& values, int) {
            const std::u16string name = path.below.substr(path.below.rfind(u'\\') + 1);
            if (wants(options_.keys) && !name.empty() && matches(to_utf8(name))) print_key(path);
            for (const NamedRegValue& value : values) {
                const bool found = (wants(options_.names) && matches(to_utf8(value.name))) ||
                                   (wants(options_.data) && data_matches(value.value));
                if (found) print_value(path, value);
            }
            return true;
        });
    }

    // Without an option everything is looked at.
    bool wants(bool option) const { return option || !(options_.keys || options_.names || options_.data); }

    bool matches(const std::string& text) const {
        return options_.exact ? folded(text) == wanted_ : contains_folded(text, wanted_);
    }

    bool data_matches(const RegValue& value) const {
        const bool several = value.type == REG_MULTI_SZ;
        if (const auto texts = several ? reg_texts(value) : std::nullopt) {
            for (const std::u16string& text : *texts) {
                if (matches(to_utf8(text))) return true;
            }
            return false;
        }
        const bool is_text = value.type == REG_SZ || value.type == REG_EXPAND_SZ || value.type == REG_MUI_SZ;
        if (const auto text = is_text ? reg_text(value) : std::nullopt) return matches(to_utf8(*text));
        return matches(reg_data_shown(value));
    }

    void print_key(const RegPath& path) {
        found_ = true;
        if (options_.json) {
            print_json_line(json_of(path));
        } else {
            print(shown(path) + "\\\n");
        }
    }

    void print_value(const RegPath& path, const NamedRegValue& value) {
        found_ = true;
        if (options_.json) {
            Json json = json_of(path);
            json.set_all(value_json(value));
            print_json_line(json);
        } else {
            print(shown(path) + ": " + value_line(value) + "\n");
        }
    }

    const RegFindOptions& options_;
    const std::string wanted_;
    bool found_ = false;
};

}  // namespace

void add_reg_find(Command reg) {
    const auto options = std::make_shared<RegFindOptions>();
    Command command = reg.add_command("find", "Find keys and values by a part of their name or data");
    command.add_option("TEXT", options->text, "What to look for; letter case does not matter").required();
    command.add_option("KEY", options->key, "Look in this key and all below it (default: everywhere)");
    command.add_flag("-k,--keys", options->keys, "Look at the names of keys");
    command.add_flag("-n,--names", options->names, "Look at the names of values");
    command.add_flag("-d,--data", options->data, "Look at the data of values");
    command.add_flag("-e,--exact", options->exact, "The whole name or data must equal TEXT");
    command.add_flag("--json", options->json, "Print one JSON object per key or value and line");
    command.footer(
        "Without --keys, --names or --data all three are looked at. Numbers are compared as they are printed,\n"
        "in decimal, bytes as hexadecimal digits. The exit code is 1 when nothing is found.\n"
        "\n"
        "Examples:\n"
        "  zr reg find proxy\n"
        "  zr reg find --data example.com 'HKCU\\Software'");
    reads_registry(command, [options] {
        page_output();
        return RegFind(*options).run();
    });
}

}  // namespace zr
