// The tokenizer beside strtok_r. Both get a text that they must leave alone, so each works on a copy and releases it.
// Arguments are text lengths in characters.

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "ZrUtility/Helpers/StringTokenizer.h"

namespace {

// Words of one to twelve letters, each with one of the delimiters and now and then a second behind it.
std::string words(std::size_t length, const std::string& delimiters) {
    std::string text;
    for (unsigned int i = 1; text.size() < length; ++i) {
        text.append(1 + i * 7 % 12, static_cast<char>('a' + i % 26));
        text += delimiters[i % delimiters.size()];
        if (i % 5 == 0) text += delimiters[0];
    }
    text.resize(length);
    return text;
}

void tokenizeOurs(benchmark::State& state, const char* delimiters) {
    const std::string narrow = words(static_cast<std::size_t>(state.range(0)), delimiters);
    std::u16string text(narrow.begin(), narrow.end());
    std::u16string set(delimiters, delimiters + std::strlen(delimiters));
    for (auto _ : state) {
        StringTokenizer tokenizer(text.data(), set.data(), 0);
        while (WCHAR* token = tokenizer.NextToken(nullptr)) {
            benchmark::DoNotOptimize(token);
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void tokenizeStrtok(benchmark::State& state, const char* delimiters) {
    const std::string text = words(static_cast<std::size_t>(state.range(0)), delimiters);
    for (auto _ : state) {
        char* copy = strdup(text.c_str());
        char* place = nullptr;
        for (char* token = strtok_r(copy, delimiters, &place); token; token = strtok_r(nullptr, delimiters, &place)) {
            benchmark::DoNotOptimize(token);
        }
        std::free(copy);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

#define ZR_TOKENIZE(name, delimiters)                                                                        \
    BENCHMARK_CAPTURE(tokenizeOurs, name, delimiters)->Name(#name "/ours")->Arg(40)->Arg(1000)->Arg(100000); \
    BENCHMARK_CAPTURE(tokenizeStrtok, name, delimiters)->Name(#name "/strtok_r")->Arg(40)->Arg(1000)->Arg(100000)

ZR_TOKENIZE(tokenize_one, ",");
ZR_TOKENIZE(tokenize_three, ",; ");
ZR_TOKENIZE(tokenize_ten, ",;:. \t\r\n!?");

}  // namespace
