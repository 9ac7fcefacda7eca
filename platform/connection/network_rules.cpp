#include "network_rules.h"

#include <new>
#include <utility>

#include "base/utf.h"
#include "platform/base.h"
#include "platform/com.h"
#include "platform/registry.h"
#include "platform/registry_readers.h"

namespace zr::platform {
namespace {

constexpr LPCWSTR kNetworks = u"Comm\\ConnMgr\\Destinations";
constexpr LPCWSTR kRules = u"Comm\\ConnMgr\\Rules";
constexpr DWORD kLongest = 256;

// Rules that are there and were not read for want of memory are not passed over.
bool succeeded(LONG result) {
    if (result == static_cast<LONG>(ERROR_NOT_ENOUGH_MEMORY)) throw std::bad_alloc();
    return result == static_cast<LONG>(ERROR_SUCCESS);
}

class Key {
public:
    Key(HKEY root, LPCWSTR path) { succeeded(RegOpenKeyExW(root, path, 0, KEY_READ, &key_)); }
    ~Key() {
        if (key_ != nullptr) RegCloseKey(key_);
    }
    Key(const Key&) = delete;
    Key& operator=(const Key&) = delete;

    HKEY get() const { return key_; }
    bool name(DWORD index, std::u16string& name) const {
        WCHAR text[kLongest];
        DWORD chars = kLongest;
        if (key_ == nullptr) return false;
        if (!succeeded(RegEnumKeyExW(key_, index, text, &chars, nullptr, nullptr, nullptr, nullptr))) return false;
        name.assign(text, chars);
        return true;
    }

private:
    HKEY key_ = nullptr;
};

// True with an empty text when there is no such value; false for what is no text.
bool read_text(const Key& key, const std::u16string& below, LPCWSTR name, std::u16string& text) {
    WCHAR buffer[kLongest];
    const HRESULT result = RegistryGetString(key.get(), below.c_str(), name, buffer, kLongest);
    if (result == HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND)) return true;
    if (result == HRESULT_FROM_WIN32(ERROR_NOT_ENOUGH_MEMORY)) throw std::bad_alloc();
    if (FAILED(result)) return false;
    text = buffer;
    return true;
}

bool is_same(const std::u16string& left, const std::u16string& right) {
    return _wcsicmp(left.c_str(), right.c_str()) == 0;
}

// With * and ?; what a star took is given back one character at a time.
bool fits(std::u16string_view pattern, std::u16string_view text) {
    std::size_t p = 0;
    std::size_t t = 0;
    std::size_t star = std::u16string_view::npos;
    std::size_t taken = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == u'*') {
            star = p++;
            taken = t;
        } else if (p < pattern.size() && (pattern[p] == u'?' || towlower(pattern[p]) == towlower(text[t]))) {
            ++p;
            ++t;
        } else if (star != std::u16string_view::npos) {
            p = star + 1;
            t = ++taken;
        } else {
            return false;
        }
    }
    return pattern.find_first_not_of(u'*', p) == std::u16string_view::npos;
}

}  // namespace

NetworkRules::NetworkRules() {
    read_networks();
    read_rules();
}

void NetworkRules::read_networks() {
    const Key key(HKEY_LOCAL_MACHINE, kNetworks);
    Network network;
    for (DWORD i = 0; key.name(i, network.name); ++i) {
        std::u16string text;
        if (!read_text(key, network.name, u"DestId", text) || text.empty()) continue;
        if (SUCCEEDED(CLSIDFromString(text.c_str(), &network.id))) networks_.push_back(network);
    }
    networks_.push_back({u"Internet", IID_DestNetInternet});
    networks_.push_back({u"Work", IID_DestNetCorp});
}

bool NetworkRules::find_network(const std::u16string& text, GUID& id) const {
    for (const Network& each : networks_) {
        if (!is_same(each.name, text)) continue;
        id = each.id;
        return true;
    }
    return !text.empty() && SUCCEEDED(CLSIDFromString(text.c_str(), &id));
}

std::u16string NetworkRules::name_of(const GUID& network) const {
    for (const Network& each : networks_) {
        if (each.id == network) return each.name;
    }
    WCHAR text[40];
    StringFromGUID2(network, text, 40);
    return text;
}

void NetworkRules::read_rules() {
    const Key key(HKEY_LOCAL_MACHINE, kRules);
    std::u16string name;
    for (DWORD i = 0; key.name(i, name); ++i) {
        Rule rule;
        rule.name = name;
        std::u16string network;
        if (!read_text(key, name, u"Interface", rule.interface) || !read_text(key, name, u"Type", rule.type) ||
            !read_text(key, name, u"Connection", rule.connection) || !read_text(key, name, u"Network", network))
            continue;
        if (find_network(network, rule.network)) rules_.push_back(std::move(rule));
    }
}

Judgement NetworkRules::judge(const NetworkConnection& connection, const ConnectionKind& kind,
                              const std::u16string& name) const {
    const std::u16string interface = host_to_wide(connection.interface.name);
    const std::u16string type(kind_word(kind));
    Judgement result;
    for (const Rule& rule : rules_) {
        if (!rule.interface.empty() && !fits(rule.interface, interface)) continue;
        if (!rule.connection.empty() && !fits(rule.connection, name)) continue;
        if (!rule.type.empty() && !is_same(rule.type, type)) continue;
        result = {rule.network, name_of(rule.network), ZrConnectionReason::Rule, rule.name};
        return result;
    }
    if (connection.default_metric) {
        result.network = IID_DestNetInternet;
        result.reason = ZrConnectionReason::DefaultRoute;
    } else if (kind.type == CM_CONNTYPE_VPN || is_private(connection)) {
        result.network = IID_DestNetCorp;
        result.reason = kind.type == CM_CONNTYPE_VPN ? ZrConnectionReason::Vpn : ZrConnectionReason::PrivateNetwork;
    } else {
        return result;
    }
    result.name = name_of(result.network);
    return result;
}

}  // namespace zr::platform
