// The property parser over any file, and its parts over any text. The first byte chooses the quote, the escape and the
// comment markers.

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>

#include "ZrUtility/Helpers/ZrPropertyFileParser.h"
#include "platform/base.h"
#include "support/input.h"

namespace {

using namespace zr::fuzz;
using Parser = ZrPropertyFileParser;

constexpr std::size_t kLongestLine = 1023;

struct Settings {
    WCHAR quote;
    WCHAR escape;
    const WCHAR* markers;
};

Settings chooseSettings(std::uint8_t byte) {
    static const WCHAR quotes[] = {u'"', u'"', u'\'', 0};
    static const WCHAR escapes[] = {u'\\', u'\\', u'"', 0};
    static const WCHAR* const lists[] = {u"#\0", u"#\0//\0;\0", nullptr, u"\"\0"};
    return {quotes[byte & 3], escapes[byte >> 2 & 3], lists[byte >> 4 & 3]};
}

bool isTrimmed(std::u16string_view text) {
    return text.empty() || (!iswspace(text.front()) && !iswspace(text.back()));
}

struct Walk {
    std::size_t bytes;
    ULONG line = 0;
};

int check(ULONG line, const WCHAR* key, const WCHAR* value, void* context) {
    auto& walk = *static_cast<Walk*>(context);
    const std::u16string_view name = key;
    require(line > walk.line && line <= walk.bytes);
    require(isTrimmed(name) && name.find(u'=') == std::u16string_view::npos);
    require(name.size() + wcslen(value) < kLongestLine);
    walk.line = line;
    return 1;
}

// A file in memory: what is written can be opened by its number.
void parse(const std::uint8_t* data, std::size_t size, const Settings& settings) {
    static const int file = memfd_create("properties", MFD_CLOEXEC);
    static const std::u16string path = [] {
        setenv("ZR_ROOT", "/", 1);
        WCHAR text[64];
        StringCchPrintfW(text, 64, u"\\proc\\self\\fd\\%d", file);
        return std::u16string(text);
    }();
    require(ftruncate(file, 0) == 0 && pwrite(file, data, size, 0) == static_cast<ssize_t>(size));
    Walk walk{size};
    require(Parser::ParsePropertyFile(path.c_str(), settings.markers, settings.quote, settings.escape, check, &walk) ==
            1);
}

void strip(const std::u16string& text, const Settings& settings) {
    const Block line = copy(text);
    const WCHAR* normal = Parser::NormalizeLine(line.get(), settings.markers, settings.quote, settings.escape);
    require(normal >= line.get() && isTrimmed(normal) && text.find(normal) != std::u16string::npos);

    const Block quoted = copy(text);
    const WCHAR* value = Parser::StripQuotes(quoted.get(), settings.quote, settings.escape);
    const bool taken = value != quoted.get();
    require(taken == (settings.quote != 0 && text.starts_with(settings.quote)));
    require(std::u16string_view(value).size() + (taken ? 1 : 0) <= text.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const Settings settings = chooseSettings(data[0]);
    parse(data + 1, size - 1, settings);
    strip(text(data + 1, size - 1), settings);
    return 0;
}
