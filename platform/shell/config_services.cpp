#include "config_services.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <span>

#include "config_document.h"
#include "platform/base.h"

namespace zr::platform {
namespace {

constexpr std::size_t kMostCharacters = 1023;
constexpr WCHAR kTextSeparator = 0xF000;

constexpr ConfigService kServices[] = {
    {u"CM_ProxyEntries", u"Comm\\ConnMgr\\Providers\\{EF097F4C-DC4B-4c98-8FF6-AEF805DC0E8E}"},
    {u"CM_Networks", u"Comm\\ConnMgr\\Destinations"},
    {u"Registry", nullptr},
};
constexpr const ConfigService& kProxies = kServices[0];

struct Parm {
    LPCWSTR name;
    DWORD type;
};
constexpr Parm kProxyParms[] = {
    {u"ConnectionGUID", REG_SZ}, {u"DestId", REG_SZ},    {u"SrcId", REG_SZ},
    {u"Type", REG_DWORD},        {u"Enable", REG_DWORD}, {u"Proxy", REG_SZ},
    {u"UserName", REG_SZ},       {u"Password", REG_SZ},  {u"ExtraInfo", REG_SZ},
};
constexpr Parm kNetworkParms[] = {{u"DestId", REG_SZ}};

struct Datatype {
    std::u16string_view word;
    DWORD type;
};
constexpr std::u16string_view kBoolean = u"boolean";
constexpr Datatype kDatatypes[] = {
    {u"string", REG_SZ},     {u"integer", REG_DWORD},           {kBoolean, REG_DWORD},
    {u"binary", REG_BINARY}, {u"multiplestring", REG_MULTI_SZ},
};

struct Root {
    std::u16string_view word;
    HKEY key;
};

bool is_same(std::u16string_view left, std::u16string_view right) {
    return left.size() == right.size() && _wcsnicmp(left.data(), right.data(), left.size()) == 0;
}

const Parm* find_parm(const ConfigService& service, std::u16string_view name) {
    const std::span<const Parm> parms = &service == &kProxies ? std::span<const Parm>(kProxyParms) : kNetworkParms;
    const auto found = std::ranges::find_if(parms, [&](const Parm& each) { return is_same(each.name, name); });
    return found == parms.end() ? nullptr : &*found;
}

int digit_of(WCHAR c) {
    if (c >= u'0' && c <= u'9') return c - u'0';
    const WCHAR lower = static_cast<WCHAR>(c | 0x20);
    return c < 0x80 && lower >= u'a' && lower <= u'f' ? lower - u'a' + 10 : 99;
}

// A DWORD, or a negative LONG.
std::optional<DWORD> number_of(std::u16string_view text) {
    const bool negative = text.starts_with(u'-');
    if (negative) text.remove_prefix(1);
    const int base = text.starts_with(u"0x") || text.starts_with(u"0X") ? 16 : 10;
    if (base == 16) text.remove_prefix(2);
    ULONGLONG value = 0;
    for (const WCHAR c : text) {
        const int digit = digit_of(c);
        if (digit >= base) return std::nullopt;
        value = value * static_cast<unsigned>(base) + static_cast<unsigned>(digit);
        if (value > (negative ? 0x80000000u : 0xFFFFFFFFu)) return std::nullopt;
    }
    if (text.empty()) return std::nullopt;
    return static_cast<DWORD>(negative ? 0 - value : value);
}

std::optional<DWORD> truth_of(std::u16string_view text) {
    if (is_same(text, u"true") || text == u"1") return 1;
    if (is_same(text, u"false") || text == u"0") return 0;
    return std::nullopt;
}

bool give_number(std::optional<DWORD> number, ConfigDocument& document, ConfigData& data) {
    if (!number) return false;
    auto* const room = static_cast<BYTE*>(document.new_bytes(sizeof *number));
    std::memcpy(room, &*number, sizeof *number);
    data.bytes = room;
    data.size = sizeof *number;
    return true;
}

bool give_text(std::u16string_view text, ConfigData& data) {
    data.bytes = reinterpret_cast<const BYTE*>(text.data());
    data.size = static_cast<DWORD>((text.size() + 1) * sizeof(WCHAR));
    return true;
}

// Each text with its terminator, and one more.
bool give_texts(std::u16string_view text, ConfigDocument& document, ConfigData& data) {
    WCHAR* const room = document.new_text(text.size() + 2);
    std::ranges::replace_copy(text, room, kTextSeparator, WCHAR{0});
    std::size_t units = text.size();
    if (units != 0 && room[units - 1] != 0) room[units++] = 0;
    room[units++] = 0;
    data.bytes = reinterpret_cast<const BYTE*>(room);
    data.size = static_cast<DWORD>(units * sizeof(WCHAR));
    return true;
}

int base64_of(WCHAR c) {
    if (c >= u'A' && c <= u'Z') return c - u'A';
    if (c >= u'a' && c <= u'z') return c - u'a' + 26;
    if (c >= u'0' && c <= u'9') return c - u'0' + 52;
    return c == u'+' ? 62 : c == u'/' ? 63 : -1;
}

bool give_base64(std::u16string_view text, ConfigDocument& document, ConfigData& data) {
    auto* const room = static_cast<BYTE*>(document.new_bytes(text.size() / 4 * 3 + 3));
    DWORD size = 0;
    unsigned bits = 0;
    int held = 0;
    std::size_t signs = 0;
    std::size_t padding = 0;
    for (const WCHAR c : text) {
        if (c == u' ' || c == u'\n' || c == u'\r' || c == u'\t') continue;
        ++signs;
        if (c == u'=') {
            ++padding;
            continue;
        }
        const int value = base64_of(c);
        if (value < 0 || padding != 0) return false;
        bits = (bits << 6 | static_cast<unsigned>(value)) & 0xFFFFFF;
        held += 6;
        if (held < 8) continue;
        held -= 8;
        room[size++] = static_cast<BYTE>(bits >> held);
    }
    data.bytes = room;
    data.size = size;
    const bool nothing_left = (bits & ((1u << held) - 1)) == 0;
    return signs % 4 == 0 && padding < 3 && held != 6 && nothing_left;
}

bool read_registry_value(const ConfigElement& parm, ConfigDocument& document, ConfigData& data) {
    const std::u16string_view word = parm.datatype.empty() ? u"string" : parm.datatype;
    const auto* const datatype = std::ranges::find(kDatatypes, word, &Datatype::word);
    if (datatype == std::end(kDatatypes)) return false;
    data.type = datatype->type;
    switch (datatype->type) {
        case REG_DWORD:
            return give_number(datatype->word == kBoolean ? truth_of(parm.value) : number_of(parm.value), document,
                               data);
        case REG_BINARY:
            return give_base64(parm.value, document, data);
        case REG_MULTI_SZ:
            return give_texts(parm.value, document, data);
        default:
            return give_text(parm.value, data);
    }
}

}  // namespace

const ConfigService* find_config_service(std::u16string_view name) noexcept {
    const auto* const found = std::ranges::find(kServices, name, &ConfigService::name);
    return found == std::end(kServices) ? nullptr : found;
}

bool has_config_parm(const ConfigService& service, std::u16string_view name) noexcept {
    return service.root == nullptr ? name.size() <= 255 : find_parm(service, name) != nullptr;
}

bool read_config_value(const ConfigService& service, const ConfigElement& parm, ConfigDocument& document,
                       ConfigData& data) {
    if (service.root == nullptr)
        return has_config_parm(service, parm.name) && read_registry_value(parm, document, data);
    const Parm* const known = find_parm(service, parm.name);
    if (known == nullptr) return false;
    if (!parm.datatype.empty() && parm.datatype != config_datatype(known->type)) return false;
    data.type = known->type;
    if (known->type == REG_DWORD) return give_number(number_of(parm.value), document, data);
    return parm.value.size() <= kMostCharacters && give_text(parm.value, data);
}

std::u16string_view config_datatype(DWORD type) noexcept {
    const auto* const found = std::ranges::find(kDatatypes, type, &Datatype::type);
    return found == std::end(kDatatypes) ? std::u16string_view() : found->word;
}

bool split_config_key(std::u16string_view text, HKEY& root, std::u16string_view& path) noexcept {
    const Root roots[] = {
        {u"HKCR", HKEY_CLASSES_ROOT},  {u"HKEY_CLASSES_ROOT", HKEY_CLASSES_ROOT},
        {u"HKCU", HKEY_CURRENT_USER},  {u"HKEY_CURRENT_USER", HKEY_CURRENT_USER},
        {u"HKLM", HKEY_LOCAL_MACHINE}, {u"HKEY_LOCAL_MACHINE", HKEY_LOCAL_MACHINE},
        {u"HKU", HKEY_USERS},          {u"HKEY_USERS", HKEY_USERS},
    };
    const std::size_t slash = std::min(text.find(u'\\'), text.size());
    const auto* const found =
        std::ranges::find_if(roots, [&](const Root& each) { return is_same(each.word, text.substr(0, slash)); });
    if (found == std::end(roots)) return false;
    root = found->key;
    path = text.substr(std::min(slash + 1, text.size()));
    return true;
}

}  // namespace zr::platform
