// The XML module: libxml2 behind the platform's words.

#include <libxml/SAX2.h>
#include <libxml/parser.h>

#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "shell/xml_module.h"

namespace {

using namespace zr::platform;

// Of one element; a document of ours has two.
constexpr std::size_t kMostAttributes = 64;

const char* chars(const xmlChar* text) {
    return reinterpret_cast<const char*>(text);
}

XmlText text_of(const xmlChar* text) {
    return {chars(text), std::strlen(chars(text))};
}

class Parse {
public:
    Parse(const XmlEvents& events, XmlFault& fault) : events_(events), fault_(fault) {}

    XmlResult run(const char* document, int size);

private:
    static Parse& of(void* parser) { return *static_cast<Parse*>(static_cast<xmlParserCtxtPtr>(parser)->_private); }

    static void start(void* parser, const xmlChar* name, const xmlChar* prefix, const xmlChar* uri, int namespaces,
                      const xmlChar** namespace_texts, int attributes, int defaulted, const xmlChar** texts);
    static void end(void* parser, const xmlChar* name, const xmlChar* prefix, const xmlChar* uri);
    static void text(void* parser, const xmlChar* text, int size);
    static void document_type(void* parser, const xmlChar* name, const xmlChar* external, const xmlChar* system);
    static void error(void* parser, xmlErrorPtr error);

    void stop(XmlResult result);
    void say(const char* text);

    const XmlEvents& events_;
    XmlFault& fault_;
    xmlParserCtxtPtr parser_ = nullptr;
    XmlResult result_ = XmlResult::Whole;
};

void Parse::stop(XmlResult result) {
    if (result_ != XmlResult::Whole) return;
    result_ = result;
    fault_.line = xmlSAX2GetLineNumber(parser_);
    fault_.column = xmlSAX2GetColumnNumber(parser_);
    xmlStopParser(parser_);
}

void Parse::say(const char* text) {
    std::snprintf(fault_.text, sizeof fault_.text, "%s", text ? text : "not well-formed");
    // One line.
    for (char* c = fault_.text; *c; ++c) {
        if (*c == '\n') *c = c[1] != '\0' ? ' ' : '\0';
    }
}

void Parse::start(void* parser, const xmlChar* name, const xmlChar*, const xmlChar*, int, const xmlChar**,
                  int attributes, int, const xmlChar** texts) {
    Parse& self = of(parser);
    if (self.result_ != XmlResult::Whole) return;
    const auto count = static_cast<std::size_t>(attributes);
    XmlAttribute all[kMostAttributes];
    if (count > kMostAttributes) {
        self.say("an element has too many attributes");
        return self.stop(XmlResult::Broken);
    }
    // Each is its name, prefix, namespace, and where its value begins and ends.
    for (std::size_t i = 0; i < count; ++i, texts += 5) {
        all[i] = {text_of(texts[0]), {chars(texts[3]), static_cast<std::size_t>(texts[4] - texts[3])}};
    }
    const int line = xmlSAX2GetLineNumber(parser);
    if (!self.events_.start(self.events_.context, line, text_of(name), all, count)) self.stop(XmlResult::Stopped);
}

void Parse::end(void* parser, const xmlChar*, const xmlChar*, const xmlChar*) {
    Parse& self = of(parser);
    if (self.result_ != XmlResult::Whole) return;
    if (!self.events_.end(self.events_.context)) self.stop(XmlResult::Stopped);
}

void Parse::text(void* parser, const xmlChar* text, int size) {
    Parse& self = of(parser);
    if (self.result_ != XmlResult::Whole) return;
    const XmlText given{chars(text), static_cast<std::size_t>(size)};
    if (!self.events_.text(self.events_.context, given)) self.stop(XmlResult::Stopped);
}

// What it could bring is entities, of which there are the five.
void Parse::document_type(void* parser, const xmlChar*, const xmlChar*, const xmlChar*) {
    Parse& self = of(parser);
    self.say("a document type is not allowed");
    self.stop(XmlResult::Broken);
}

void Parse::error(void* parser, xmlErrorPtr error) {
    Parse& self = of(parser);
    if (error->level < XML_ERR_ERROR || self.result_ != XmlResult::Whole) return;
    self.say(error->message);
    self.fault_.line = error->line;
    self.fault_.column = error->int2;
    // The parser halts by itself, and must not be stopped in the middle of saying why.
    self.result_ = error->code == XML_ERR_NO_MEMORY ? XmlResult::NoMemory : XmlResult::Broken;
}

XmlResult Parse::run(const char* document, int size) {
    xmlSAXHandler handler{};
    handler.initialized = XML_SAX2_MAGIC;
    handler.startElementNs = start;
    handler.endElementNs = end;
    handler.characters = text;
    handler.ignorableWhitespace = text;
    handler.cdataBlock = text;
    handler.internalSubset = document_type;
    handler.serror = error;

    parser_ = xmlNewParserCtxt();
    if (!parser_) return XmlResult::NoMemory;
    const std::unique_ptr<xmlParserCtxt, decltype(&xmlFreeParserCtxt)> owner(parser_, &xmlFreeParserCtxt);
    if (parser_->sax == nullptr) return XmlResult::NoMemory;
    *parser_->sax = handler;
    parser_->_private = this;
    // The five entities come resolved; no others can be declared, and nothing is fetched. Depth and sizes are bounded
    // by who reads. No tree is built.
    constexpr int options = XML_PARSE_NONET | XML_PARSE_NOENT | XML_PARSE_HUGE | XML_PARSE_IGNORE_ENC;
    xmlCtxtReadMemory(parser_, document, size, nullptr, nullptr, options);
    if (result_ != XmlResult::Whole) return result_;
    if (parser_->wellFormed != 0) return XmlResult::Whole;
    say(nullptr);
    return parser_->errNo == XML_ERR_NO_MEMORY ? XmlResult::NoMemory : XmlResult::Broken;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) XmlResult zr_xml_parse(const char* document, std::size_t size,
                                                                         const XmlEvents* events, XmlFault* fault) {
    static const bool begun = [] {
        xmlInitParser();
        return true;
    }();
    if (!begun || size > INT_MAX) return XmlResult::NoMemory;
    return Parse(*events, *fault).run(document, static_cast<int>(size));
}
