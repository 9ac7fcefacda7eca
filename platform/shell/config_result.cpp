#include "config_result.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "platform/base.h"

namespace zr::platform {
namespace {

constexpr std::size_t kNameRoom = 256;

bool is_high_half(WCHAR c) {
    return (c & 0xFC00) == 0xD800;
}
bool is_low_half(WCHAR c) {
    return (c & 0xFC00) == 0xDC00;
}

bool is_odd(WCHAR c) {
    return (c < 0x20) | (c >= 0xD800) | (c == u'&') | (c == u'<') | (c == u'>') | (c == u'"');
}

// How many characters the text begins with that are written as they are. Many are looked at without a branch for each.
std::size_t plain_run(std::u16string_view text) {
    constexpr std::size_t kStep = 64;
    std::size_t count = 0;
    for (; text.size() - count >= kStep; count += kStep) {
        const WCHAR* const step = text.data() + count;
        std::uint16_t odd = 0;
        for (std::size_t i = 0; i < kStep; ++i) {
            odd |= is_odd(step[i]);
        }
        if (odd != 0) break;
    }
    while (count < text.size() && !is_odd(text[count])) {
        ++count;
    }
    return count;
}

// A key of the registry, opened for reading; empty when it is not there.
class ReadKey {
public:
    ReadKey(HKEY root, LPCWSTR path) { RegOpenKeyExW(root, path, 0, KEY_READ, &key_); }
    ~ReadKey() {
        if (key_ != nullptr) RegCloseKey(key_);
    }
    ReadKey(const ReadKey&) = delete;
    ReadKey& operator=(const ReadKey&) = delete;

    explicit operator bool() const { return key_ != nullptr; }
    HKEY get() const { return key_; }

    std::vector<std::u16string> sub_keys() const;
    std::vector<std::u16string> values() const;
    // False: no such value. One that changes under the reader is looked at again.
    bool value(LPCWSTR name, DWORD& type, std::vector<BYTE>& data) const;

private:
    HKEY key_ = nullptr;
};

std::vector<std::u16string> ReadKey::sub_keys() const {
    std::vector<std::u16string> names;
    WCHAR name[kNameRoom];
    for (DWORD i = 0;; ++i) {
        DWORD chars = kNameRoom;
        if (RegEnumKeyExW(key_, i, name, &chars, nullptr, nullptr, nullptr, nullptr) != 0) return names;
        names.emplace_back(name, chars);
    }
}

std::vector<std::u16string> ReadKey::values() const {
    std::vector<std::u16string> names;
    WCHAR name[kNameRoom];
    for (DWORD i = 0;; ++i) {
        DWORD chars = kNameRoom;
        if (RegEnumValueW(key_, i, name, &chars, nullptr, nullptr, nullptr, nullptr) != 0) return names;
        names.emplace_back(name, chars);
    }
}

bool ReadKey::value(LPCWSTR name, DWORD& type, std::vector<BYTE>& data) const {
    data.resize(256);
    for (;;) {
        auto size = static_cast<DWORD>(data.size());
        const auto error = static_cast<DWORD>(RegQueryValueExW(key_, name, nullptr, &type, data.data(), &size));
        data.resize(size);
        if (error != ERROR_MORE_DATA) return error == ERROR_SUCCESS;
    }
}

class Writer {
public:
    explicit Writer(ConfigAnswer answer) : answer_(answer) {}

    void element(const ConfigElement& element, const ConfigPlan& plan);
    void finish() { close_to(0); }
    std::u16string take() { return std::move(text_); }

private:
    void listed(const ConfigElement& element);
    void parm_query(const ConfigElement& element, const ConfigPlace& place);
    void characteristic_query(const ConfigElement& element, const ConfigPlace& place);
    void content(const ReadKey& key, bool recursive);
    void value(std::u16string_view name, DWORD type, const std::vector<BYTE>& data);

    void begin(std::u16string_view word);
    void attribute(std::u16string_view name, std::u16string_view value);
    void open(std::u16string_view word);  // after begin and its attributes
    void close_to(std::size_t depth);
    void escaped(std::u16string_view text);
    void line() { text_ += u"\r\n"; }
    void indent() { text_.append(2 * open_.size(), u' '); }

    const ConfigAnswer answer_;
    std::u16string text_;
    std::vector<std::u16string_view> open_;
};

void Writer::escaped(std::u16string_view text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const std::size_t plain = plain_run(text.substr(i));
        text_ += text.substr(i, plain);
        i += plain;
        if (i == text.size()) return;
        const WCHAR c = text[i];
        switch (c) {
            case u'&':
                text_ += u"&amp;";
                continue;
            case u'<':
                text_ += u"&lt;";
                continue;
            case u'>':
                text_ += u"&gt;";
                continue;
            case u'"':
                text_ += u"&quot;";
                continue;
            case u'\t':
                text_ += u"&#9;";
                continue;
            case u'\n':
                text_ += u"&#10;";
                continue;
            case u'\r':
                text_ += u"&#13;";
                continue;
            default:
                break;
        }
        if (is_high_half(c) && i + 1 < text.size() && is_low_half(text[i + 1])) {
            text_ += text.substr(i++, 2);
        } else {
            text_ += c < 0x20 || (c & 0xF800) == 0xD800 || c >= 0xFFFE ? WCHAR{0xFFFD} : c;
        }
    }
}

void Writer::begin(std::u16string_view word) {
    indent();
    text_ += u'<';
    text_ += word;
}

void Writer::attribute(std::u16string_view name, std::u16string_view value) {
    text_ += u' ';
    text_ += name;
    text_ += u"=\"";
    escaped(value);
    text_ += u'"';
}

void Writer::open(std::u16string_view word) {
    text_ += u'>';
    line();
    open_.push_back(word);
}

void Writer::close_to(std::size_t depth) {
    while (open_.size() > depth) {
        const std::u16string_view word = open_.back();
        open_.pop_back();
        indent();
        text_ += u"</";
        text_ += word;
        text_ += u'>';
        line();
    }
}

void Writer::value(std::u16string_view name, DWORD type, const std::vector<BYTE>& data) {
    begin(u"parm");
    attribute(u"name", name);
    DWORD number = 0;
    std::u16string text;
    if (type == REG_DWORD && data.size() == sizeof number) {
        std::memcpy(&number, data.data(), sizeof number);
        WCHAR digits[16];
        text = _ultow(number, digits, 10);
    } else if (type == REG_SZ || type == REG_MULTI_SZ || type == REG_EXPAND_SZ) {
        text.resize(data.size() / sizeof(WCHAR));
        std::memcpy(text.data(), data.data(), text.size() * sizeof(WCHAR));
        while (text.ends_with(u'\0'))
            text.pop_back();
        std::ranges::replace(text, u'\0', WCHAR{0xF000});
    } else {
        constexpr char16_t kSigns[] = u"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
        for (std::size_t i = 0; i < data.size(); i += 3) {
            const std::size_t rest = std::min<std::size_t>(data.size() - i, 3);
            const unsigned bits = unsigned{data[i]} << 16 | (rest > 1 ? unsigned{data[i + 1]} << 8 : 0u) |
                                  (rest > 2 ? unsigned{data[i + 2]} : 0u);
            for (std::size_t sign = 0; sign < 4; ++sign) {
                text += sign <= rest ? kSigns[bits >> (18 - 6 * sign) & 63] : u'=';
            }
        }
        type = REG_BINARY;
    }
    attribute(u"value", text);
    attribute(u"datatype", type == REG_EXPAND_SZ ? u"string" : config_datatype(type));
    text_ += u" />";
    line();
}

void Writer::parm_query(const ConfigElement& element, const ConfigPlace& place) {
    const ReadKey key(place.root, place.path);
    DWORD type = 0;
    std::vector<BYTE> data;
    if (key && key.value(element.name.data(), type, data)) return value(element.name, type, data);
    begin(u"noparm");
    attribute(u"name", element.name);
    text_ += u" />";
    line();
}

void Writer::characteristic_query(const ConfigElement& element, const ConfigPlace& place) {
    const ReadKey key(place.root, place.path);
    begin(key ? u"characteristic" : u"nocharacteristic");
    attribute(u"type", element.name);
    if (!key) {
        text_ += u" />";
        return line();
    }
    const std::size_t depth = open_.size();
    open(u"characteristic");
    content(key, element.recursive);
    close_to(depth);
}

void Writer::content(const ReadKey& key, bool recursive) {
    DWORD type = 0;
    std::vector<BYTE> data;
    for (const std::u16string& name : recursive ? key.values() : std::vector<std::u16string>()) {
        if (key.value(name.c_str(), type, data)) value(name, type, data);
    }
    for (const std::u16string& name : key.sub_keys()) {
        begin(u"characteristic");
        attribute(u"type", name);
        const ReadKey below(key.get(), name.c_str());
        if (!recursive || !below) {
            text_ += u" />";
            line();
            continue;
        }
        const std::size_t depth = open_.size();
        open(u"characteristic");
        content(below, true);
        close_to(depth);
    }
}

// The element as it was given.
void Writer::listed(const ConfigElement& element) {
    const std::u16string_view word = element_word(element.kind);
    std::u16string marked(word);
    if (element.failed) marked += u"-error";
    begin(marked);
    const bool typed = element.kind == ElementKind::Characteristic || element.kind == ElementKind::NoCharacteristic ||
                       element.kind == ElementKind::CharacteristicQuery;
    attribute(typed ? u"type" : u"name", element.name);
    if (element.kind == ElementKind::Parm) attribute(u"value", element.value);
    if (!element.datatype.empty()) attribute(u"datatype", element.datatype);
    if (element.kind == ElementKind::Characteristic && !element.empty)
        return open(element.failed ? u"characteristic-error" : word);
    text_ += u" />";
    line();
}

void Writer::element(const ConfigElement& element, const ConfigPlan& plan) {
    close_to(element.depth);
    if (element.kind == ElementKind::Document) {
        begin(element_word(element.kind));
        return open(element_word(element.kind));
    }
    if (answer_ == ConfigAnswer::Failed || element.kind == ElementKind::Characteristic) return listed(element);
    const auto place = [&]() -> const ConfigPlace& { return plan.places()[static_cast<std::size_t>(element.place)]; };
    if (element.kind == ElementKind::ParmQuery) return parm_query(element, place());
    if (element.kind == ElementKind::CharacteristicQuery) return characteristic_query(element, place());
    if (answer_ == ConfigAnswer::Examined) listed(element);
}

}  // namespace

std::u16string config_result(const ConfigDocument& document, const ConfigPlan& plan, ConfigAnswer answer) {
    Writer writer(answer);
    for (const ConfigElement& element : document.elements()) {
        writer.element(element, plan);
    }
    writer.finish();
    return writer.take();
}

}  // namespace zr::platform
