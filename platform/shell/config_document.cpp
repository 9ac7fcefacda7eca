#include "config_document.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <new>

#include "base/loaded_module.h"
#include "base/utf.h"

namespace zr::platform {
namespace {

LoadedModule xml_module(kXmlModule);

constexpr std::array<std::pair<ElementKind, const char*>, 7> kElements = {{
    {ElementKind::Document, "wap-provisioningdoc"},
    {ElementKind::Characteristic, "characteristic"},
    {ElementKind::Parm, "parm"},
    {ElementKind::NoParm, "noparm"},
    {ElementKind::NoCharacteristic, "nocharacteristic"},
    {ElementKind::ParmQuery, "parm-query"},
    {ElementKind::CharacteristicQuery, "characteristic-query"},
}};

std::string_view view(XmlText text) {
    return {text.data, text.size};
}

bool has_type(ElementKind kind) {
    return kind == ElementKind::Characteristic || kind == ElementKind::NoCharacteristic ||
           kind == ElementKind::CharacteristicQuery;
}

// Looked for once: the loader may be busy with whoever waits for this thread.
XmlParse xml_parse() noexcept {
    static std::atomic<XmlParse> known{nullptr};
    XmlParse parse = known.load(std::memory_order_acquire);
    if (parse) return parse;
    parse = reinterpret_cast<XmlParse>(xml_module.function(kXmlParse));
    known.store(parse, std::memory_order_release);
    return parse;
}

bool is_space(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

}  // namespace

std::u16string_view element_word(ElementKind kind) noexcept {
    switch (kind) {
        case ElementKind::Document:
            return u"wap-provisioningdoc";
        case ElementKind::Characteristic:
            return u"characteristic";
        case ElementKind::Parm:
            return u"parm";
        case ElementKind::NoParm:
            return u"noparm";
        case ElementKind::NoCharacteristic:
            return u"nocharacteristic";
        case ElementKind::ParmQuery:
            return u"parm-query";
        default:
            return u"characteristic-query";
    }
}

std::u16string_view ConfigDocument::keep(XmlText text) {
    if (text.size == 0) return u"";
    // UTF-16 has no more units than UTF-8 has bytes.
    WCHAR* const room = new_text(text.size + 1);
    const std::size_t length = host_to_wide(view(text), std::span(room, text.size));
    room[length] = 0;
    return {room, length};
}

bool ConfigDocument::refuse(std::string_view reason) {
    sentence_ = reason;
    return false;
}

bool ConfigDocument::take_attributes(ConfigElement& element, const XmlAttribute* attributes, std::size_t count) {
    bool named = element.kind == ElementKind::Document;
    bool valued = element.kind != ElementKind::Parm;
    for (const XmlAttribute* each = attributes; each != attributes + count; ++each) {
        const std::string_view name = view(each->name);
        if (name == (has_type(element.kind) ? "type" : "name")) {
            element.name = keep(each->value);
            named = true;
        } else if (name == "value" && element.kind == ElementKind::Parm) {
            element.value = keep(each->value);
            valued = true;
        } else if (name == "datatype" && element.kind == ElementKind::Parm) {
            element.datatype = keep(each->value);
        } else if (name == "recursive" && element.kind == ElementKind::CharacteristicQuery) {
            element.recursive = view(each->value) != "false";
        }
    }
    return (named && valued) || refuse("an element has no name, type or value");
}

bool ConfigDocument::start(int line, XmlText name, const XmlAttribute* attributes, std::size_t count) noexcept try {
    const auto known = std::ranges::find(kElements, view(name), [](const auto& each) { return each.second; });
    if (known == kElements.end()) return refuse("an element that is none of a provisioning document");
    if (open_.empty() != (known->first == ElementKind::Document)) return refuse("not a provisioning document");
    if (open_.size() == kMostDepth) return refuse("its elements lie too deep");
    if (!open_.empty()) {
        ConfigElement& parent = elements_[open_.back()];
        if (parent.kind != ElementKind::Document && parent.kind != ElementKind::Characteristic)
            return refuse("an element in one that holds none");
        parent.empty = false;
    }
    ConfigElement element;
    element.kind = known->first;
    element.depth = static_cast<std::uint8_t>(open_.size());
    element.line = line;
    if (!take_attributes(element, attributes, count)) return false;
    elements_.push_back(element);
    open_.push_back(elements_.size() - 1);
    return true;
} catch (const std::bad_alloc&) {
    no_memory_ = true;
    return false;
}

bool ConfigDocument::text(XmlText text) noexcept try {
    return std::ranges::all_of(view(text), is_space) || refuse("text between the elements");
} catch (const std::bad_alloc&) {
    no_memory_ = true;
    return false;
}

bool ConfigDocument::load_parser() noexcept {
    return xml_parse() != nullptr;
}

ConfigDocument::Result ConfigDocument::parse(const std::string& utf8) {
    const XmlParse parser = xml_parse();
    if (parser == nullptr) {
        char reason[300];
        xml_module.why_missing(reason, sizeof reason);
        sentence_ = "documents cannot be read without libxml2 (package libxml2): " + std::string(reason);
        return Result::NoModule;
    }
    XmlEvents events{};
    events.context = this;
    events.start = [](void* self, int line, XmlText name, const XmlAttribute* attributes, std::size_t count) {
        return static_cast<ConfigDocument*>(self)->start(line, name, attributes, count);
    };
    events.end = [](void* self) {
        static_cast<ConfigDocument*>(self)->open_.pop_back();
        return true;
    };
    events.text = [](void* self, XmlText text) { return static_cast<ConfigDocument*>(self)->text(text); };
    XmlFault fault;
    const XmlResult result = [&] {
        const InsideGate inside(parsing_gate());
        return parser(utf8.data(), utf8.size(), &events, &fault);
    }();
    if (result == XmlResult::Whole) return Result::Read;
    if (result == XmlResult::NoMemory || no_memory_) return Result::NoMemory;
    if (result == XmlResult::Broken) sentence_ = fault.text;
    sentence_ = "line " + std::to_string(fault.line) + ", column " + std::to_string(fault.column) + ": " + sentence_;
    return Result::Bad;
}

ConfigDocument::Result ConfigDocument::read(std::u16string_view text) noexcept try {
    if (text.size() > kMostCharacters) {
        sentence_ = "the document is too large";
        return Result::Bad;
    }
    const auto utf8 = wide_to_utf8(text);
    if (utf8) return parse(*utf8);
    sentence_ = "the document has halves of characters";
    return Result::Bad;
} catch (const std::bad_alloc&) {
    return Result::NoMemory;
}

}  // namespace zr::platform
