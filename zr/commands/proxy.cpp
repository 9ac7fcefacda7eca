// zr proxy: the proxy entries of the Connection Manager, and the client's proxy.

#include <map>
#include <memory>

#include "ZrUtility/Helpers/PyxProxyHelper.h"
#include "zr/base/event_loop.h"
#include "zr/base/output.h"
#include "zr/base/output_file.h"
#include "zr/base/table.h"
#include "zr/base/text.h"
#include "zr/commands/proxy_table.h"
#include "zr/commands/reg_command.h"

namespace zr {
namespace {

Exit list(bool json) {
    JsonArray array;
    Table table({{"NAME", Column::Kind::Reference}, {"PROXY"}});
    for (const ProxyEntry& entry : read_proxy_entries()) {
        if (json) {
            array.add(proxy_entry_json(entry));
        } else {
            table.add(printable(entry.name) + "\t" + proxy_entry_text(entry) + "\n");
        }
    }
    table.finish();
    if (json) array.finish();
    return Exit::Ok;
}

Exit show(const std::string& name, bool json) {
    for (const ProxyEntry& entry : read_proxy_entries()) {
        if (!equal_ignoring_case(entry.name, name)) continue;
        if (json) {
            print_json_line(proxy_entry_json(entry));
            return Exit::Ok;
        }
        const auto line = [](const char* what, const std::string& text) {
            if (!text.empty()) print(std::string(what) + ": " + printable(text) + "\n");
        };
        line("name", entry.name);
        line("enabled", entry.enabled ? "yes" : "no");
        line("proxy", entry.proxy);
        line("type", entry.type ? std::to_string(*entry.type) : "");
        line("from", entry.from);
        line("to", entry.to);
        line("user", entry.user);
        line("the client's own", entry.own ? "yes" : "no");
        line("changed by the client", entry.changed ? "yes" : "no");
        return Exit::Ok;
    }
    throw Failure{Exit::None, "no proxy entry " + name};
}

Exit change(bool enable) {
    if (PyxProxyHelper::IsProxyEnabled() == -1)
        throw Failure{Exit::None, "the client's own two proxy entries are not there"};
    const int done = ChangeProxySettings(enable, 1);
    PyxProxyHelper::Release();
    const int now = PyxProxyHelper::IsProxyEnabled();
    if (done == 0 || now != static_cast<int>(enable))
        throw Failure{Exit::StoreFailed, "the entries could not be changed"};
    return Exit::Ok;
}

Exit revert() {
    if (PyxProxyHelper* const helper = PyxProxyHelper::GetInstance()) helper->RevertNullProxies();
    PyxProxyHelper::Release();
    return Exit::Ok;
}

// As one word of a shell.
std::string quoted(const std::string& text) {
    std::string word = "'";
    for (const char c : text) {
        if (c == '\'') {
            word += "'\\''";
        } else {
            word += c;
        }
    }
    return word + "'";
}

constexpr const char* kWebVariables[] = {"http_proxy", "https_proxy", "HTTPS_PROXY"};
constexpr const char* kSocksVariables[] = {"all_proxy", "ALL_PROXY"};

Exit env(bool json) {
    const auto proxy = internet_proxy();
    const std::string url = proxy ? (proxy->socks ? "socks5://" : "http://") + proxy->address : "";
    Json object;
    const auto say = [&](const char* name, bool set) {
        if (json) {
            object.set(name, set ? Json(url) : Json(nullptr));
        } else if (set) {
            print(std::string("export ") + name + "=" + quoted(url) + "\n");
        } else {
            print(std::string("unset ") + name + "\n");
        }
    };
    for (const char* const name : kWebVariables) {
        say(name, proxy && !proxy->socks);
    }
    for (const char* const name : kSocksVariables) {
        say(name, proxy && proxy->socks);
    }
    if (json) print_json_line(object);
    return Exit::Ok;
}

std::string pac_text() {
    const auto proxy = internet_proxy();
    const std::string answer =
        proxy ? (proxy->socks ? "SOCKS " : "PROXY ") + proxy->address + "; DIRECT" : std::string("DIRECT");
    // A JSON text is one of JavaScript, too, when it is ASCII.
    return "function FindProxyForURL(url, host) {\n"
           "    if (isPlainHostName(host) || host == \"127.0.0.1\" || host == \"[::1]\") return \"DIRECT\";\n"
           "    return " +
           Json(answer).text(true) + ";\n}\n";
}

Exit pac(const std::string& file) {
    OutputFile output(file);
    output.write(pac_text());
    output.finish();
    return Exit::Ok;
}

// What changes is told entry by entry.
class ProxyWatch {
public:
    explicit ProxyWatch(bool json) : json_(json), key_(RegKey::existing(proxy_entries_path())) {}

    Exit run() {
        EventLoop loop;
        const RegChanges changes(key_, true);
        Entries last = look();
        for (const auto& [name, entry] : last) {
            tell("now", entry);
        }
        flush_output();
        while (const auto place = loop.wait({changes.handle()})) {
            if (*place != 0) continue;
            // Armed before the look, so that what comes after it is told by another one.
            if (!changes.rearm()) throw Failure{Exit::None, "the proxy entries were deleted"};
            Entries now = look();
            report(last, now);
            last = std::move(now);
            flush_output();
        }
        return Exit::Ok;
    }

private:
    using Entries = std::map<std::string, ProxyEntry>;

    static Entries look() {
        Entries entries;
        for (ProxyEntry& entry : read_proxy_entries()) {
            std::string name = entry.name;
            entries.emplace(std::move(name), std::move(entry));
        }
        return entries;
    }
    void report(const Entries& before, const Entries& now) const {
        for (const auto& [name, entry] : before) {
            if (!now.contains(name)) tell("removed", entry);
        }
        for (const auto& [name, entry] : now) {
            const auto old = before.find(name);
            if (old == before.end()) {
                tell("added", entry);
            } else if (!(old->second == entry)) {
                tell("changed", entry);
            }
        }
    }
    void tell(const char* what, const ProxyEntry& entry) const {
        if (json_) {
            Json line = {{"change", what}};
            line.set_all(proxy_entry_json(entry));
            print_json_line(line);
        } else {
            print(std::string(what) + " " + printable(entry.name) + ": " + proxy_entry_text(entry) + "\n");
        }
    }

    const bool json_;
    RegKey key_;
};

using Flag = std::shared_ptr<bool>;

Flag json_flag(Command command) {
    auto json = std::make_shared<bool>(false);
    command.add_flag("--json", *json, "Print JSON");
    return json;
}

}  // namespace

void add_proxy_list(Command proxy) {
    Command command = proxy.add_command("list", "List the proxy entries");
    const Flag json = json_flag(command);
    command.footer(
        "A line is the entry's name and, behind a tab, whether it is on, its proxy and the networks it leads from\n"
        "and to.\n\nExample:\n  zr proxy list");
    runs_with_registry(command, [json] { return list(*json); });
}

void add_proxy_show(Command proxy) {
    Command command = proxy.add_command("show", "Show a proxy entry");
    const auto name = std::make_shared<std::string>();
    command.add_option("NAME", *name, "The entry's name").required();
    const Flag json = json_flag(command);
    command.footer(
        "The exit code is 1 when there is no such entry. Passwords are not shown.\n\n"
        "Example:\n  zr proxy show HTTP-Office");
    runs_with_registry(command, [name, json] { return show(*name, *json); });
}

void add_proxy_changes(Command proxy) {
    Command enable = proxy.add_command("enable", "Send web traffic through the client's own proxy");
    enable.footer(
        "Every entry that leads into the Internet or the Work network is pointed at this computer's address on the\n"
        "connection it begins at, with the port of the client's entry. The exit code is 1 when the client has no\n"
        "entries.\n\nExample:\n  zr proxy enable");
    runs_with_registry(enable, [] { return change(true); });
    Command disable = proxy.add_command("disable", "Put the entries back as they were before");
    disable.footer("The exit code is 1 when the client has no entries.\n\nExample:\n  zr proxy disable");
    runs_with_registry(disable, [] { return change(false); });
    Command reverting = proxy.add_command("revert", "Put what was kept of all other entries back, and no more");
    reverting.footer("The client's own entries stay as they are.\n\nExample:\n  zr proxy revert");
    runs_with_registry(reverting, revert);
}

void add_proxy_env(Command proxy) {
    Command command = proxy.add_command("env", "Print the proxy of the Internet network as shell variables");
    const Flag json = json_flag(command);
    command.footer(
        "Variables for which there is no proxy are unset. User names and passwords are left out.\n\n"
        "Example:\n  eval \"$(zr proxy env)\"");
    runs_with_registry(command, [json] { return env(*json); });
}

void add_proxy_pac(Command proxy) {
    Command command = proxy.add_command("pac", "Write the proxy of the Internet network as an auto-configuration file");
    const auto file = std::make_shared<std::string>("-");
    command.add_option("FILE", *file, "The file (default: standard output)");
    command.footer("Example:\n  zr proxy pac ~/proxy.pac");
    runs_with_registry(command, [file] { return pac(*file); });
}

void add_proxy_watch(Command proxy) {
    Command command = proxy.add_command("watch", "Print each change of the proxy entries, until interrupted");
    const Flag json = json_flag(command);
    command.footer(
        "The entries as they are come first. Ends with SIGINT, SIGTERM or SIGHUP, or, with exit code 1, when the\n"
        "entries are not there.\n\nExample:\n  zr proxy watch");
    runs_with_registry(command, [json] { return ProxyWatch(*json).run(); });
}

}  // namespace zr
