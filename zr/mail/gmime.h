#pragma once

// GMime as the mail room uses it. For its sources only.

#include <gmime/gmime.h>

#include <memory>
#include <string>
#include <type_traits>

namespace zr {

struct GUnref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
struct GFree {
    void operator()(gpointer memory) const { g_free(memory); }
};
struct FreeParserOptions {
    void operator()(GMimeParserOptions* options) const { g_mime_parser_options_free(options); }
};
template <class T>
using GObjectPtr = std::unique_ptr<T, GUnref>;
using ParserOptions = std::unique_ptr<GMimeParserOptions, FreeParserOptions>;

// To be called before anything else of GMime's; any thread, any number of times.
void start_gmime();

// Text without an encoded word is UTF-8 today and was Windows-1252 before.
ParserOptions parser_options();

// GMime's text as valid UTF-8; empty for none.
std::string text_of(const char* text);

}  // namespace zr
