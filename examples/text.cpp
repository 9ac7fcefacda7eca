// Settings out of a property file, a list cut into its entries, a message filled in.
//
//   text "$PWD/examples/data/client.properties"
//
// There is no current folder: a path always starts at the root (the folder that ZR_ROOT names, or the host's).
//
// Every text of the library is UTF-16 and NUL-terminated. What it hands out anew is given back with
// StringUtilities::DeleteString; everything in this program works in place or on buffers of its own.

#include <ZrUtility/ZrUtility.h>
#include <platform/platform.h>

#include <cstdio>
#include <map>
#include <string>

namespace {

using Settings = std::map<std::u16string, std::u16string>;

std::u16string wide(const char* utf8) {
    const int size = MultiByteToWideChar(CP_UTF8, 0, utf8, -1, nullptr, 0);
    std::u16string text(static_cast<std::size_t>(size), u'\0');
    MultiByteToWideChar(CP_UTF8, 0, utf8, -1, text.data(), size);
    return text;
}

void print(const WCHAR* text) {
    char utf8[1024];
    if (WideCharToMultiByte(CP_UTF8, 0, text, -1, utf8, sizeof utf8, nullptr, nullptr) != 0) std::puts(utf8);
}

// Called for each `key = value` line; returning 0 would stop the reading.
int keep(ULONG, const WCHAR* key, const WCHAR* value, void* context) {
    (*static_cast<Settings*>(context))[key] = value;
    return 1;
}

// An entry is a folder's name and, behind its last space, how many new messages it has.
int count_messages(WCHAR* entry) {
    const WCHAR* number = wcsrchr(entry, u' ');
    return number ? _wtoi(number) : 0;
}

// The arguments of a template are one multi-string: texts one after the other, with an empty one at the end.
std::u16string fill(const std::u16string& format, const std::u16string& args) {
    unsigned int size = 0;
    if (!ZrBasicStringFormatter::Format(format.c_str(), args.c_str(), nullptr, size)) return {};
    std::u16string filled(size, u'\0');
    ZrBasicStringFormatter::Format(format.c_str(), args.c_str(), filled.data(), size);
    return filled;
}

std::u16string number(int value) {
    WCHAR digits[34];
    return _itow(value, digits, 10);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s PROPERTIES\n", argv[0]);
        return 2;
    }
    // Comments begin with '#', values may be quoted, and a backslash keeps a quote from closing them.
    Settings settings;
    if (!ZrPropertyFileParser::ParsePropertyFile(wide(argv[1]).c_str(), u"#\0", u'"', u'\\', keep, &settings)) {
        std::fprintf(stderr, "%s cannot be read: error %u\n", argv[1], GetLastError());
        return 1;
    }

    // Empty entries are passed over, whatever stands between them.
    int folders = 0;
    int messages = 0;
    WCHAR semicolon[] = u";";
    StringTokenizer entries(settings[u"folders"].data(), semicolon, 0);
    while (WCHAR* entry = entries.NextToken(nullptr)) {
        entry = ZrPropertyFileParser::StripWhiteSpace(entry, 1, 1);
        if (*entry == 0) continue;
        print(entry);
        ++folders;
        messages += count_messages(entry);
    }

    const std::u16string args = settings[u"user"] + u'\0' + number(messages) + u'\0' + number(folders) + u'\0';
    print(fill(settings[u"greeting"], args).c_str());
}
