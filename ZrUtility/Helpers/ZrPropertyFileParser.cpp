#include "ZrUtility/Helpers/ZrPropertyFileParser.h"

#include <cstddef>
#include <iterator>

#include "ZrUtility/Helpers/StringUtilities.h"
#include "ZrUtility/Helpers/text_file.h"
#include "platform/base.h"

namespace {

constexpr std::size_t kLineSize = 1024;

bool beginsWithAny(const WCHAR* text, const WCHAR* markers) {
    while (*markers != 0) {
        const std::size_t length = wcslen(markers);
        if (wcsncmp(text, markers, length) == 0) return true;
        markers += length + 1;
    }
    return false;
}

}  // namespace

WCHAR* ZrPropertyFileParser::StripWhiteSpace(WCHAR* s, int trailing, int leading) {
    if (s == nullptr) return nullptr;
    if (trailing) StringUtilities::TrimTrailingWhitespace(s);
    const WCHAR* start = s;
    if (leading) StringUtilities::TrimLeadingWhitespace(&start);
    return s + (start - s);
}

WCHAR* ZrPropertyFileParser::StripComments(WCHAR* line, const WCHAR* markers, WCHAR quote, WCHAR escape) {
    if (line == nullptr || markers == nullptr || *line == 0) return line;
    bool quoted = false;
    WCHAR* at = line;
    // What has been cut off is looked through as well: where the line goes on is known from the next character alone.
    do {
        if (quote != 0 && *at == quote) quoted = !quoted || (escape != 0 && at[-1] == escape);
        if (!quoted && beginsWithAny(at, markers)) *at = 0;
    } while (*++at != 0);
    return line;
}

WCHAR* ZrPropertyFileParser::NormalizeLine(WCHAR* line, const WCHAR* markers, WCHAR quote, WCHAR escape) {
    return StripWhiteSpace(StripComments(line, markers, quote, escape), 1, 1);
}

WCHAR* ZrPropertyFileParser::StripQuotes(WCHAR* s, WCHAR quote, WCHAR escape) {
    if (s == nullptr || quote == 0 || *s != quote) return s;
    WCHAR* const value = s + 1;
    WCHAR* out = value;  // the text moves down as characters are taken out before this place
    for (const WCHAR* at = value; *at != 0; ++at) {
        if (*at != quote) {
            *out++ = *at;
        } else if (escape != 0 && out[-1] != escape) {
            break;
        } else {
            out[-1] = quote;
        }
    }
    *out = 0;
    return value;
}

int ZrPropertyFileParser::ParsePropertyFile(const WCHAR* path, const WCHAR* markers, WCHAR quote, WCHAR escape,
                                            int (*callback)(ULONG lineNumber, const WCHAR* key, const WCHAR* value,
                                                            void* context),
                                            void* context) {
    if (path == nullptr || callback == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    TextFile file(path);
    if (!file.isOpen()) return 0;
    WCHAR line[kLineSize];
    for (ULONG number = 1; file.readLine(line, std::size(line)); ++number) {
        WCHAR* const key = NormalizeLine(line, markers, quote, escape);
        WCHAR* const equals = wcschr(key, u'=');
        if (equals == nullptr) continue;
        *equals = 0;
        WCHAR* const value = StripQuotes(StripWhiteSpace(equals + 1, 1, 1), quote, escape);
        if (callback(number, StripWhiteSpace(key, 1, 1), value, context) == 0) return 0;
    }
    return file.failed() ? 0 : 1;
}
