#pragma once

// What the platform and its XML module say to each other. The module parses; it knows nothing of what it reads.

#include <cstddef>

namespace zr::platform {

// Characters in UTF-8, not terminated.
struct XmlText {
    const char* data;
    std::size_t size;
};

struct XmlAttribute {
    XmlText name;
    XmlText value;  // references are resolved
};

// The reader of a document. Each call returns whether it wants to read on; none may throw.
struct XmlEvents {
    void* context;
    bool (*start)(void* context, int line, XmlText name, const XmlAttribute* attributes, std::size_t count);
    bool (*end)(void* context);
    bool (*text)(void* context, XmlText text);
};

enum class XmlResult : int {
    Whole,
    Stopped,  // by the reader
    Broken,   // not well-formed, or with a document type, which none may have
    NoMemory,
};

// Where it was broken, or stopped.
struct XmlFault {
    int line = 0;
    int column = 0;
    char text[200] = "";
};

// Parses a document in UTF-8, whatever it says its encoding to be. Nothing but it is read: no file, no network. Any
// thread.
using XmlParse = XmlResult (*)(const char* document, std::size_t size, const XmlEvents* events, XmlFault* fault);
inline constexpr const char* kXmlModule = "libzrplatform_xml.so";
inline constexpr const char* kXmlParse = "zr_xml_parse";

}  // namespace zr::platform
