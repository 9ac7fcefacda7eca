#include "zr/mail/gmime.h"

#include "zr/base/text.h"

namespace zr {
namespace {

bool load() {
    const LoadedLibrary library(ZR_GMIME_LIBRARY, "reading and writing messages needs the package libgmime-3.0");
    ZR_GMIME_CALLS(ZR_FIND_LOADED_CALL)
    g_mime_init();
    return true;
}

}  // namespace

ZR_GMIME_CALLS(ZR_LOADED_CALL_HERE)

void start_gmime() {
    // Kept for the life of the process: other threads may be inside it at any time.
    static const bool started = load();
    static_cast<void>(started);
}

ParserOptions parser_options() {
    ParserOptions options(g_mime_parser_options_new());
    const char* charsets[] = {"utf-8", "windows-1252", nullptr};
    g_mime_parser_options_set_fallback_charsets(options.get(), charsets);
    return options;
}

std::string text_of(const char* text) {
    return text ? to_utf8(to_utf16(text)) : std::string();
}

}  // namespace zr
