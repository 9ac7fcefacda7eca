// String functions beside what a program would take instead: snprintf, ICU's case-insensitive comparison, iconv.
// Arguments are text lengths in characters.

#include <benchmark/benchmark.h>
#include <iconv.h>
#include <unicode/uchar.h>
#include <unicode/ustring.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ZrUtility/Helpers/StringUtilities.h"

namespace {

using Utilities = StringUtilities;

// Pieces repeated up to a length.
std::u16string repeated(std::u16string_view piece, std::size_t length) {
    std::u16string text;
    while (text.size() < length) {
        text += piece;
    }
    text.resize(length);
    return text;
}

std::u16string asciiText(std::size_t length) {
    return repeated(u"The quick brown fox jumps over the lazy dog. ", length);
}

// As Western mail is: mostly ASCII, some accents, a quotation in typographic marks, a price.
std::u16string mailText(std::size_t length) {
    return repeated(
        u"Der \u201egro\u00dfe\u201c Preis f\u00fcr M\u00fcller \u2013 30 \u20ac \u2013 geht an Ren\u00e9. ", length);
}

std::string narrow(const std::u16string& text) {
    return {text.begin(), text.end()};
}

// ---- Formatting: a message of several parts into a new string

void formatOurs(benchmark::State& state) {
    const std::u16string text = asciiText(state.range(0));
    int i = 0;
    for (auto _ : state) {
        WCHAR* formatted = Utilities::SafeFormatString(u"%s: item %d of %u (%08x)", text.c_str(), ++i, 4096u, 0xBEEF);
        benchmark::DoNotOptimize(formatted);
        Utilities::DeleteString(formatted);
    }
}

void formatSnprintf(benchmark::State& state) {
    const std::string text = narrow(asciiText(state.range(0)));
    const char* const format = "%s: item %d of %u (%08x)";
    int i = 0;
    for (auto _ : state) {
        char room[256];
        ++i;
        char* formatted = nullptr;
        const int length = std::snprintf(room, sizeof room, format, text.c_str(), i, 4096u, 0xBEEF);
        if (static_cast<std::size_t>(length) < sizeof room) {
            formatted = strdup(room);
        } else {
            formatted = static_cast<char*>(std::malloc(static_cast<std::size_t>(length) + 1));
            std::snprintf(formatted, static_cast<std::size_t>(length) + 1, format, text.c_str(), i, 4096u, 0xBEEF);
        }
        benchmark::DoNotOptimize(formatted);
        std::free(formatted);
    }
}

BENCHMARK(formatOurs)->Name("SafeFormatString/ours")->Arg(8)->Arg(64)->Arg(180)->Arg(2000);
BENCHMARK(formatSnprintf)->Name("SafeFormatString/snprintf")->Arg(8)->Arg(64)->Arg(180)->Arg(2000);

// ---- Comparing without regard to case

// Two texts that are equal but for their case, and differ, if at all, in one character.
struct Pair {
    std::u16string a;
    std::u16string b;

    Pair(std::u16string text, bool differs) : a(std::move(text)), b(a) {
        for (WCHAR& c : b) {
            if (c >= u'a' && c <= u'z') c = static_cast<WCHAR>(c - 0x20);
        }
        if (differs) b[2] = u'#';
    }
};

using MakeText = std::u16string (*)(std::size_t);

void compareOurs(benchmark::State& state, MakeText make, bool differs) {
    const Pair pair(make(state.range(0)), differs);
    for (auto _ : state) {
        benchmark::DoNotOptimize(Utilities::CompareFunction(pair.a.c_str(), pair.b.c_str(), Utilities::COMPARE_EXACT));
    }
}

void compareIcu(benchmark::State& state, MakeText make, bool differs) {
    const Pair pair(make(state.range(0)), differs);
    for (auto _ : state) {
        benchmark::DoNotOptimize(u_strcasecmp(pair.a.c_str(), pair.b.c_str(), U_FOLD_CASE_DEFAULT) == 0);
    }
}

#define ZR_COMPARE(name, text, differs)                                                                     \
    BENCHMARK_CAPTURE(compareOurs, name, text, differs)->Name(#name "/ours")->Arg(16)->Arg(256)->Arg(4096); \
    BENCHMARK_CAPTURE(compareIcu, name, text, differs)->Name(#name "/icu")->Arg(16)->Arg(256)->Arg(4096)

ZR_COMPARE(CompareEqualAscii, asciiText, false);
ZR_COMPARE(CompareEqualMixed, mailText, false);
ZR_COMPARE(CompareDifferentAscii, asciiText, true);
ZR_COMPARE(CompareDifferentMixed, mailText, true);

// ---- Windows-1252

class Iconv {
public:
    Iconv(const char* to, const char* from) : handle_(iconv_open(to, from)) {}
    ~Iconv() { iconv_close(handle_); }
    Iconv(const Iconv&) = delete;
    Iconv& operator=(const Iconv&) = delete;

    std::size_t operator()(const void* from, std::size_t fromBytes, void* to, std::size_t toBytes) {
        auto* in = const_cast<char*>(static_cast<const char*>(from));
        auto* out = static_cast<char*>(to);
        return iconv(handle_, &in, &fromBytes, &out, &toBytes);
    }

private:
    iconv_t handle_;
};

std::vector<unsigned char> bytesOf(const std::u16string& text) {
    std::vector<unsigned char> bytes(text.size() + 1);
    Utilities::ToASCII(bytes.data(), text.data(), static_cast<int>(text.size()), 0);
    return bytes;
}

void encodeOurs(benchmark::State& state, MakeText make) {
    const std::u16string text = make(state.range(0));
    std::vector<unsigned char> bytes(text.size() + 1);
    for (auto _ : state) {
        Utilities::ToASCII(bytes.data(), text.data(), static_cast<int>(text.size()), 0);
        benchmark::DoNotOptimize(bytes.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void encodeIconv(benchmark::State& state, MakeText make) {
    const std::u16string text = make(state.range(0));
    std::vector<unsigned char> bytes(text.size() + 1);
    Iconv convert("CP1252", "UTF-16LE");
    for (auto _ : state) {
        if (convert(text.data(), text.size() * sizeof(WCHAR), bytes.data(), text.size()) != 0) {
            state.SkipWithError("iconv refused the text");
            return;
        }
        bytes[text.size()] = 0;
        benchmark::DoNotOptimize(bytes.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void decodeOurs(benchmark::State& state, MakeText make) {
    std::vector<unsigned char> bytes = bytesOf(make(state.range(0)));
    std::u16string text(bytes.size(), u'\0');
    const int count = static_cast<int>(bytes.size() - 1);
    for (auto _ : state) {
        Utilities::ToWCHAR(text.data(), bytes.data(), count, 0);
        benchmark::DoNotOptimize(text.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void decodeIconv(benchmark::State& state, MakeText make) {
    const std::vector<unsigned char> bytes = bytesOf(make(state.range(0)));
    std::u16string text(bytes.size(), u'\0');
    const std::size_t count = bytes.size() - 1;
    Iconv convert("UTF-16LE", "CP1252");
    for (auto _ : state) {
        if (convert(bytes.data(), count, text.data(), count * sizeof(WCHAR)) != 0) {
            state.SkipWithError("iconv refused the text");
            return;
        }
        text[count] = 0;
        benchmark::DoNotOptimize(text.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

#define ZR_CONVERT(name, ours, peer, text)                                                   \
    BENCHMARK_CAPTURE(ours, name, text)->Name(#name "/ours")->Arg(16)->Arg(256)->Arg(16384); \
    BENCHMARK_CAPTURE(peer, name, text)->Name(#name "/iconv")->Arg(16)->Arg(256)->Arg(16384)

ZR_CONVERT(ToASCIIAscii, encodeOurs, encodeIconv, asciiText);
ZR_CONVERT(ToASCIIMixed, encodeOurs, encodeIconv, mailText);
ZR_CONVERT(ToWCHARAscii, decodeOurs, decodeIconv, asciiText);
ZR_CONVERT(ToWCHARMixed, decodeOurs, decodeIconv, mailText);

}  // namespace
