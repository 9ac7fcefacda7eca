// zr reg watch: what changes in a key and below it, as it changes.

#include <algorithm>
#include <map>
#include <memory>

#include "zr/base/event_loop.h"
#include "zr/base/json.h"
#include "zr/base/output.h"
#include "zr/base/text.h"
#include "zr/commands/reg_command.h"
#include "zr/stores/registry.h"

namespace zr {
namespace {

struct RegWatchOptions {
    std::string key;
    bool key_only = false;
    bool json = false;
};

// A look that others change the registry under is taken again, but not for ever.
constexpr int kMostLooks = 10;

// Keys by their whole name, values by name, as they were at one time.
using Values = std::map<std::u16string, RegValue>;
using Snapshot = std::map<std::u16string, Values>;

class RegWatch {
public:
    explicit RegWatch(const RegWatchOptions& options)
        : options_(options), key_(RegKey::existing(reg_path_of(options.key))) {}

    Exit run();

private:
    Snapshot settled_look(const RegChanges& changes) const;
    Snapshot look() const;
    bool is_gone() const;
    void report(const Snapshot& before, const Snapshot& now) const;
    void report_values(const std::u16string& key, const Values& before, const Values& now) const;
    void print_key(const char* change, const std::u16string& key) const;
    void print_value(const std::u16string& key, const std::u16string& name, const RegValue* value) const;
    void print_start(const Snapshot& now) const;

    const RegWatchOptions& options_;
    RegKey key_;
};

Exit RegWatch::run() {
    EventLoop loop;
    const RegChanges changes(key_, !options_.key_only);
    Snapshot last = settled_look(changes);
    print_start(last);
    flush_output();
    while (const auto place = loop.wait({changes.handle()})) {
        if (*place != 0) continue;
        Snapshot now = settled_look(changes);
        report(last, now);
        flush_output();
        if (now.empty()) throw Failure{Exit::None, shown(key_.path()) + " was deleted"};
        last = std::move(now);
    }
    return Exit::Ok;
}

// Nothing when the key is gone.
Snapshot RegWatch::settled_look(const RegChanges& changes) const {
    for (int tries = 0;; ++tries) {
        // Armed before the look, so that what comes after it is told by another one.
        if (!changes.rearm() || is_gone()) return {};
        Snapshot now = look();
        if (tries == kMostLooks || !changes.came()) return is_gone() ? Snapshot() : now;
    }
}

bool RegWatch::is_gone() const {
    return RegQueryInfoKeyW(key_.handle(), nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                            nullptr, nullptr, nullptr) == static_cast<LONG>(ERROR_KEY_DELETED);
}

Snapshot RegWatch::look() const {
    Snapshot snapshot;
    walk_reg_tree(key_, [&](const RegPath& path, const std::vector<NamedRegValue>& values, int depth) {
        Values& all = snapshot[reg_path_text(path)];
        // Of the keys in a key that is watched alone only their names count.
        if (options_.key_only && depth > 0) return false;
        for (const NamedRegValue& each : values) {
            all.emplace(each.name, each.value);
        }
        return true;
    });
    return snapshot;
}

void RegWatch::report(const Snapshot& before, const Snapshot& now) const {
    for (const auto& [key, values] : before) {
        if (!now.contains(key)) print_key("removed", key);
    }
    for (const auto& [key, values] : now) {
        const auto old = before.find(key);
        if (old == before.end()) print_key("added", key);
        report_values(key, old == before.end() ? Values() : old->second, values);
    }
}

void RegWatch::report_values(const std::u16string& key, const Values& before, const Values& now) const {
    for (const auto& [name, value] : before) {
        if (!now.contains(name)) print_value(key, name, nullptr);
    }
    for (const auto& [name, value] : now) {
        const auto old = before.find(name);
        if (old == before.end() || old->second != value) print_value(key, name, &value);
    }
}

void RegWatch::print_start(const Snapshot& now) const {
    std::size_t values = 0;
    for (const auto& [key, all] : now) {
        values += all.size();
    }
    const std::size_t keys = now.size() - 1;
    if (options_.json) {
        print_json_line({{"change", "now"}, {"key", json_text_of(key_.path())}, {"keys", keys}, {"values", values}});
        return;
    }
    print("now " + shown(key_.path()) + ": " + std::to_string(keys) + (keys == 1 ? " key, " : " keys, ") +
          std::to_string(values) + (values == 1 ? " value\n" : " values\n"));
}

void RegWatch::print_key(const char* change, const std::u16string& key) const {
    if (options_.json) {
        print_json_line({{"change", std::string("key-") + change}, {"key", to_utf8(key)}});
    } else {
        print(std::string("key ") + change + " " + printable(to_utf8(key)) + "\n");
    }
}

// NULL: the value was removed.
void RegWatch::print_value(const std::u16string& key, const std::u16string& name, const RegValue* value) const {
    if (options_.json) {
        Json line = {{"change", value ? "set" : "removed"}, {"key", to_utf8(key)}, {"name", to_utf8(name)}};
        if (value) add_reg_value(line, *value);
        print_json_line(line);
        return;
    }
    print((value ? "set " : "removed ") + printable(to_utf8(key)) + ": " +
          (value ? value_line({name, *value}) : shown_name(name)) + "\n");
}

}  // namespace

void add_reg_watch(Command reg) {
    const auto options = std::make_shared<RegWatchOptions>();
    Command command = reg.add_command("watch", "Print what changes in a key, as it changes, until interrupted");
    command.add_option("KEY", options->key, "The key").required();
    command.add_flag("--key-only", options->key_only, "Watch the key's own values and keys, not what is below these");
    command.add_flag("--json", options->json, "Print one JSON object per change and line");
    command.footer(
        "The first line counts the keys and values that are watched. Then one follows for each key that is\n"
        "added or removed and each value that is set to other data or removed, by whatever program. What\n"
        "happens closely together to one value is told once. Ends with SIGINT, SIGTERM or SIGHUP, or, with\n"
        "exit code 1, when the key itself is deleted.\n"
        "\n"
        "Examples:\n"
        "  zr reg watch 'HKCU\\Software\\Example'\n"
        "  zr reg watch HKLM --json | jq -r 'select(.change == \"set\") | .key'");
    runs_with_registry(command, [options] { return RegWatch(*options).run(); });
}

}  // namespace zr
