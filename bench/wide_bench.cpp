// The wide runtime beside what a program on the host would call: the C library's snprintf and ICU.

#include <benchmark/benchmark.h>
#include <unicode/uchar.h>
#include <unicode/ustring.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/base.h"

namespace {

// ---- Formatting: the same text, in the units of each ----

void format_line_ours(benchmark::State& state) {
    WCHAR buffer[256];
    int number = 1;
    for (auto _ : state) {
        benchmark::DoNotOptimize(StringCchPrintfW(buffer, 256, u"item %d of %u: %s (%08x)", number++, 1000u,
                                                  u"a subject of usual length", 0xBEEFu));
        benchmark::ClobberMemory();
    }
}
void format_line_snprintf(benchmark::State& state) {
    char buffer[256];
    int number = 1;
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::snprintf(buffer, 256, "item %d of %u: %s (%08x)", number++, 1000u,
                                               "a subject of usual length", 0xBEEFu));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(format_line_ours)->Name("format_line/ours");
BENCHMARK(format_line_snprintf)->Name("format_line/snprintf");

void format_string_ours(benchmark::State& state) {
    WCHAR buffer[1024];
    const std::u16string text(static_cast<std::size_t>(state.range(0)), u'x');
    for (auto _ : state) {
        benchmark::DoNotOptimize(StringCchPrintfW(buffer, 1024, u"<%s>", text.c_str()));
        benchmark::ClobberMemory();
    }
}
void format_string_snprintf(benchmark::State& state) {
    char buffer[1024];
    const std::string text(static_cast<std::size_t>(state.range(0)), 'x');
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::snprintf(buffer, 1024, "<%s>", text.c_str()));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(format_string_ours)->Name("format_string/ours")->Arg(8)->Arg(64)->Arg(1000);
BENCHMARK(format_string_snprintf)->Name("format_string/snprintf")->Arg(8)->Arg(64)->Arg(1000);

void format_float_ours(benchmark::State& state) {
    WCHAR buffer[256];
    double number = 1.25;
    for (auto _ : state) {
        benchmark::DoNotOptimize(StringCchPrintfW(buffer, 256, u"%.2f %g", number, number * 1.5));
        benchmark::ClobberMemory();
        number += 0.37;
    }
}
void format_float_snprintf(benchmark::State& state) {
    char buffer[256];
    double number = 1.25;
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::snprintf(buffer, 256, "%.2f %g", number, number * 1.5));
        benchmark::ClobberMemory();
        number += 0.37;
    }
}
BENCHMARK(format_float_ours)->Name("format_float/ours");
BENCHMARK(format_float_snprintf)->Name("format_float/snprintf");

// ---- Comparing without regard to case ----

struct Pair {
    std::u16string left;
    std::u16string right;
};

// 0: equal but for case, ASCII; 1: the same in Cyrillic and accented Latin; 2: different at once; 3: one letter each.
Pair pair(std::int64_t kind) {
    switch (kind) {
        case 0:
            return {u"Firstname.Lastname@Example-Company.com", u"firstname.lastname@example-company.COM"};
        case 1:
            return {u"\x0416\x0418\x0412\x0410\x0413\x041E \xC9\xC8\xC0\xD6\xDC \x0418\x0432\x0430\x043D\x043E\x0432",
                    u"\x0436\x0438\x0432\x0430\x0433\x043E \xE9\xE8\xE0\xF6\xFC \x0438\x0432\x0430\x043D\x043E\x0432"};
        case 2:
            return {u"alpha@example.com", u"Zulu@example.com"};
        default:
            return {u"a", u"A"};
    }
}

void compare_ours(benchmark::State& state) {
    const Pair texts = pair(state.range(0));
    for (auto _ : state) {
        benchmark::DoNotOptimize(_wcsicmp(texts.left.c_str(), texts.right.c_str()));
    }
}
void compare_icu(benchmark::State& state) {
    const Pair texts = pair(state.range(0));
    for (auto _ : state) {
        benchmark::DoNotOptimize(u_strcasecmp(texts.left.c_str(), texts.right.c_str(), U_FOLD_CASE_DEFAULT));
    }
}
BENCHMARK(compare_ours)->Name("compare/ours")->DenseRange(0, 3);
BENCHMARK(compare_icu)->Name("compare/icu")->DenseRange(0, 3);

// ---- Lower-casing an address in place ----

void lower_ours(benchmark::State& state) {
    const std::u16string text = pair(state.range(0)).left;
    WCHAR buffer[128];
    for (auto _ : state) {
        text.copy(buffer, text.size());
        benchmark::DoNotOptimize(CharLowerBuffW(buffer, static_cast<DWORD>(text.size())));
        benchmark::ClobberMemory();
    }
}
void lower_icu(benchmark::State& state) {
    const std::u16string text = pair(state.range(0)).left;
    WCHAR buffer[128];
    for (auto _ : state) {
        UErrorCode error = U_ZERO_ERROR;
        benchmark::DoNotOptimize(
            u_strFoldCase(buffer, 128, text.data(), static_cast<int>(text.size()), U_FOLD_CASE_DEFAULT, &error));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(lower_ours)->Name("lower/ours")->DenseRange(0, 1);
BENCHMARK(lower_icu)->Name("lower/icu")->DenseRange(0, 1);

// ---- UTF-8 to UTF-16 ----

const char* utf8_text(std::int64_t kind) {
    return kind == 0 ? "A line of plain text as messages and folder names are made of, in ASCII letters only."
                     : "\xD0\x9F\xD1\x80\xD0\xB8\xD0\xB2\xD0\xB5\xD1\x82, caf\xC3\xA9 \xE4\xB8\xAD\xE6\x96\x87 "
                       "\xF0\x9F\x98\x80 \xD0\xBC\xD0\xB8\xD1\x80 and some ASCII between";
}

void decode_ours(benchmark::State& state) {
    const std::string text = utf8_text(state.range(0));
    WCHAR buffer[256];
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), buffer, 256));
        benchmark::ClobberMemory();
    }
}
void decode_icu(benchmark::State& state) {
    const std::string text = utf8_text(state.range(0));
    WCHAR buffer[256];
    for (auto _ : state) {
        UErrorCode error = U_ZERO_ERROR;
        std::int32_t length = 0;
        benchmark::DoNotOptimize(u_strFromUTF8WithSub(buffer, 256, &length, text.data(), static_cast<int>(text.size()),
                                                      0xFFFD, nullptr, &error));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(decode_ours)->Name("decode_utf8/ours")->DenseRange(0, 1);
BENCHMARK(decode_icu)->Name("decode_utf8/icu")->DenseRange(0, 1);

// ---- The heap ----

void heap_ours(benchmark::State& state) {
    const auto size = static_cast<SIZE_T>(state.range(0));
    for (auto _ : state) {
        void* const block = HeapAlloc(GetProcessHeap(), 0, size);
        benchmark::DoNotOptimize(block);
        HeapFree(GetProcessHeap(), 0, block);
    }
}
void heap_malloc(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    for (auto _ : state) {
        void* const block = std::malloc(size);
        benchmark::DoNotOptimize(block);
        std::free(block);
    }
}
BENCHMARK(heap_ours)->Name("heap/ours")->Arg(64)->Arg(4096);
BENCHMARK(heap_malloc)->Name("heap/malloc")->Arg(64)->Arg(4096);

}  // namespace
