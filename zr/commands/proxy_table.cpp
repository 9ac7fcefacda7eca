#include "zr/commands/proxy_table.h"

#include <platform/base.h>
#include <platform/com.h>
#include <platform/connection.h>
#include <platform/registry_readers.h>

#include "ZrUtility/Helpers/PyxProxyHelper.h"
#include "zr/base/text.h"

namespace zr {
namespace {

constexpr unsigned kHttp = 1;
constexpr unsigned kSocks4 = 4;
constexpr unsigned kSocks5 = 5;

const RegPath kEntries = {RegRoot::LocalMachine, u"Comm\\ConnMgr\\Providers\\{EF097F4C-DC4B-4c98-8FF6-AEF805DC0E8E}"};
const RegPath kBackups = {RegRoot::LocalMachine, u"SOFTWARE\\Kelvane\\Halcyon\\PyxBrowser"};
const RegPath kNetworks = {RegRoot::LocalMachine, u"Comm\\ConnMgr\\Destinations"};

std::string text_of(const RegKey& key, const char16_t* name) {
    WCHAR text[1024];
    return SUCCEEDED(RegistryGetString(key.handle(), nullptr, name, text, 1024)) ? to_utf8(text) : std::string();
}

std::optional<unsigned> number_of(const RegKey& key, const char16_t* name) {
    DWORD number = 0;
    if (FAILED(RegistryGetDWORD(key.handle(), nullptr, name, &number))) return std::nullopt;
    return number;
}

// The networks' names by their identifiers.
class NetworkNames {
public:
    NetworkNames() {
        if (const auto key = RegKey::open(kNetworks)) {
            for (const std::u16string& name : key->sub_keys()) {
                const auto network = RegKey::open({kNetworks.root, kNetworks.below + u"\\" + name});
                GUID id{};
                if (network && parse(text_of(*network, u"DestId"), id)) all_.push_back({id, to_utf8(name)});
            }
        }
        all_.push_back({IID_DestNetInternet, "Internet"});
        all_.push_back({IID_DestNetCorp, "Work"});
    }

    std::string name_of(const std::string& text) const {
        GUID id{};
        if (!parse(text, id)) return text;
        for (const auto& [known, name] : all_) {
            if (known == id) return name;
        }
        return text;
    }
    static bool is_internet(const std::string& text) {
        GUID id{};
        return parse(text, id) && id == IID_DestNetInternet;
    }

private:
    static bool parse(const std::string& text, GUID& id) {
        return !text.empty() && SUCCEEDED(CLSIDFromString(to_utf16(text).c_str(), &id));
    }

    std::vector<std::pair<GUID, std::string>> all_;
};

bool is_own(const std::u16string& name) {
    HKEY key = nullptr;
    std::u16string copy = name;
    RegOpenKeyExW(HKEY_LOCAL_MACHINE, (kEntries.below + u"\\" + name).c_str(), 0, KEY_READ, &key);
    return key != nullptr && PyxProxyHelper::ProviderItem(key, copy.data()).IsHalcyonProvider() != 0;
}

std::vector<std::u16string> entry_names() {
    const auto key = RegKey::open(kEntries);
    return key ? key->sub_keys() : std::vector<std::u16string>();
}

std::optional<RegKey> entry_key(const std::u16string& name) {
    return RegKey::open({kEntries.root, kEntries.below + u"\\" + name});
}

}  // namespace

RegPath proxy_entries_path() {
    return kEntries;
}

std::vector<ProxyEntry> read_proxy_entries() {
    std::vector<ProxyEntry> entries;
    const NetworkNames networks;
    for (const std::u16string& name : entry_names()) {
        const auto key = entry_key(name);
        if (!key) continue;
        ProxyEntry entry;
        entry.name = to_utf8(name);
        entry.own = is_own(name);
        entry.from = networks.name_of(text_of(*key, u"SrcId"));
        entry.to = networks.name_of(text_of(*key, u"DestId"));
        entry.enabled = number_of(*key, u"Enable").value_or(0) != 0;
        entry.type = number_of(*key, u"Type");
        entry.proxy = text_of(*key, u"Proxy");
        entry.user = text_of(*key, u"UserName");
        entry.changed = RegKey::open({kBackups.root, kBackups.below + u"\\" + name}).has_value();
        entries.push_back(std::move(entry));
    }
    return entries;
}

std::string proxy_entry_text(const ProxyEntry& entry) {
    std::string text = entry.enabled ? "on" : "off";
    text += " " + (entry.proxy.empty() ? std::string("-") : printable(entry.proxy));
    if (!entry.from.empty() || !entry.to.empty())
        text += ", " + printable(entry.from.empty() ? "-" : entry.from) + " to " +
                printable(entry.to.empty() ? "-" : entry.to);
    if (entry.own) text += ", the client's own";
    if (entry.changed) text += ", changed by the client";
    return text;
}

Json proxy_entry_json(const ProxyEntry& entry) {
    Json json = {{"name", entry.name}, {"enabled", entry.enabled}, {"proxy", entry.proxy}, {"from", entry.from},
                 {"to", entry.to},     {"user", entry.user},       {"own", entry.own},     {"changed", entry.changed}};
    json.set("type", entry.type ? Json(*entry.type) : Json(nullptr));
    return json;
}

std::optional<InternetProxy> internet_proxy() {
    for (const std::u16string& name : entry_names()) {
        const auto key = entry_key(name);
        if (!key || !NetworkNames::is_internet(text_of(*key, u"DestId"))) continue;
        if (number_of(*key, u"Enable").value_or(0) == 0) continue;
        const unsigned type = number_of(*key, u"Type").value_or(0);
        std::string proxy = text_of(*key, u"Proxy");
        const bool socks = type == kSocks4 || type == kSocks5;
        if (proxy.empty() || (type != kHttp && !socks)) continue;
        return InternetProxy{std::move(proxy), socks};
    }
    return std::nullopt;
}

}  // namespace zr
