#pragma once

// A provisioning document as it was read: its elements one after the other.

#include <cstdint>
#include <memory_resource>
#include <string>
#include <string_view>
#include <vector>

#include "base/fork_gate.h"
#include "platform/types.h"
#include "shell/xml_module.h"

namespace zr::platform {

enum class ElementKind : std::uint8_t {
    Document,
    Characteristic,
    Parm,
    NoParm,
    NoCharacteristic,
    ParmQuery,
    CharacteristicQuery,
};

// The texts are terminated, and the document's.
struct ConfigElement {
    ElementKind kind{};
    std::uint8_t depth = 0;   // the document's is 0
    bool failed = false;      // its service does not know or take it
    bool recursive = true;    // of a characteristic-query
    bool empty = true;        // nothing in it
    std::int32_t place = -1;  // the key it concerns, among the plan's places
    int line = 0;
    std::u16string_view name;  // or type
    std::u16string_view value;
    std::u16string_view datatype;
};

// The word for a kind of element.
std::u16string_view element_word(ElementKind kind) noexcept;

// Held while a document is parsed: libxml2 has locks of its own.
struct Parsing;
inline ForkGate& parsing_gate() noexcept {
    return fork_gate<Parsing>();
}

class ConfigDocument {
public:
    static constexpr std::size_t kMostCharacters = std::size_t{32} << 20;
    static constexpr std::size_t kMostDepth = 64;

    enum class Result { Read, Bad, NoMemory, NoModule };

    // Once an object. What is not Read has its sentence.
    Result read(std::u16string_view text) noexcept;
    // So that read() asks nothing of the loader. False when there is no parser.
    static bool load_parser() noexcept;
    const std::string& sentence() const { return sentence_; }

    std::vector<ConfigElement>& elements() { return elements_; }
    const std::vector<ConfigElement>& elements() const { return elements_; }

    // Room for a text that lives as long as the document. May throw std::bad_alloc.
    WCHAR* new_text(std::size_t units) { return static_cast<WCHAR*>(texts_.allocate(units * sizeof(WCHAR), 2)); }
    void* new_bytes(std::size_t size) { return texts_.allocate(size, 8); }

private:
    Result parse(const std::string& utf8);
    bool start(int line, XmlText name, const XmlAttribute* attributes, std::size_t count) noexcept;
    bool take_attributes(ConfigElement& element, const XmlAttribute* attributes, std::size_t count);
    bool text(XmlText text) noexcept;
    bool refuse(std::string_view reason);
    std::u16string_view keep(XmlText text);

    std::pmr::monotonic_buffer_resource texts_{std::size_t{16} << 10};
    std::vector<ConfigElement> elements_;
    std::vector<std::size_t> open_;
    std::string sentence_;
    bool no_memory_ = false;
};

}  // namespace zr::platform
