// Runs a fuzz target over its kept corpus and over a fixed number of mutations of it, without libFuzzer.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

using Input = std::vector<std::uint8_t>;

constexpr int kMutations = 20000;

void mutate(Input& input, std::mt19937& random) {
    const int edits = 1 + static_cast<int>(random() % 8);
    for (int i = 0; i < edits; ++i) {
        const std::size_t at = input.empty() ? 0 : random() % input.size();
        switch (random() % 4) {
            case 0:
                if (!input.empty()) input[at] = static_cast<std::uint8_t>(random());
                break;
            case 1:
                input.insert(input.begin() + static_cast<std::ptrdiff_t>(at), static_cast<std::uint8_t>(random()));
                break;
            case 2:
                if (!input.empty()) input.erase(input.begin() + static_cast<std::ptrdiff_t>(at));
                break;
            default:
                input.resize(at);
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2 && argc != 3) {
        std::fprintf(stderr, "usage: %s CORPUS [MUTATIONS]\n", argv[0]);
        return 2;
    }
    const int mutations = argc == 3 ? std::atoi(argv[2]) : kMutations;
    std::vector<Input> corpus;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
        std::ifstream file(entry.path(), std::ios::binary);
        corpus.emplace_back(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
    if (corpus.empty()) {
        std::fprintf(stderr, "no inputs in %s\n", argv[1]);
        return 1;
    }
    for (const Input& input : corpus) {
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    std::mt19937 random(20260101);
    for (int i = 0; i < mutations; ++i) {
        Input input = corpus[random() % corpus.size()];
        mutate(input, random);
        LLVMFuzzerTestOneInput(input.data(), input.size());
    }
    std::printf("%zu inputs, %d mutations\n", corpus.size(), mutations);
}
