#pragma once

// What programs wrote and what a fuzzer made of it, as it is and broken further.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <random>
#include <span>
#include <sstream>
#include <string>
#include <vector>

namespace zr::test {

// The kept inputs of a fuzz target, and the examples whose names end so.
inline std::vector<std::string> samples(const std::string& target, const std::string& ending) {
    const std::filesystem::path root = ZR_SOURCE_DIR;
    std::vector<std::string> texts;
    const auto take = [&texts](const std::filesystem::path& file) {
        std::ostringstream text;
        text << std::ifstream(file, std::ios::binary).rdbuf();
        texts.push_back(text.str());
    };
    for (const auto& entry : std::filesystem::directory_iterator(root / "fuzz/corpus" / target)) {
        take(entry.path());
    }
    for (const auto& entry : std::filesystem::directory_iterator(root / "examples/data")) {
        if (entry.path().extension() == ending) take(entry.path());
    }
    std::sort(texts.begin(), texts.end());
    return texts;
}

// One of the texts after up to five changes: other characters, some taken out, some of the pieces put in.
inline std::string broken(const std::vector<std::string>& texts, std::span<const char* const> pieces,
                          std::mt19937& random) {
    std::string text = texts[random() % texts.size()];
    for (int n = static_cast<int>(random() % 6); n > 0 && !text.empty(); --n) {
        const std::size_t at = random() % text.size();
        switch (random() % 4) {
            case 0:
                text[at] = static_cast<char>(random());
                break;
            case 1:
                text.erase(at, random() % 20);
                break;
            default:
                text.insert(at, pieces[random() % pieces.size()]);
        }
    }
    return text;
}

}  // namespace zr::test
