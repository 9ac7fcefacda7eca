// Counting the files of a tree: ours, against find in a process of its own and against the C library's walk.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <ftw.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <string>

#include "ZrUtility/FileEnumerator.h"
#include "platform/files.h"

namespace {

namespace fs = std::filesystem;

constexpr int kFolders = 100;

struct Tree {
    std::string host;
    std::u16string handheld;
};

// Trees of empty files in folders of equal size, each made once and all removed at the end, below the root of the
// handheld's file system for this program.
class Trees {
public:
    static const Tree& of(int files) {
        static Trees trees;
        Tree& tree = trees.made_[files];
        if (tree.host.empty()) trees.make(tree, files);
        return tree;
    }

private:
    Trees() {
        std::string pattern = (fs::temp_directory_path() / "zrbench-XXXXXX").string();
        root_ = mkdtemp(pattern.data());
        setenv("ZR_ROOT", root_.c_str(), 1);
    }
    ~Trees() { fs::remove_all(root_); }

    void make(Tree& tree, int files) {
        const std::string name = "tree" + std::to_string(files);
        tree.host = (root_ / name).string();
        tree.handheld.assign(1, u'\\').append(name.begin(), name.end());
        for (int i = 0; i < kFolders; ++i) {
            const fs::path folder = root_ / name / ("folder " + std::to_string(i));
            fs::create_directories(folder);
            for (int file = 0; file < files / kFolders; ++file)
                close(open((folder / ("message " + std::to_string(file))).c_str(), O_CREAT | O_WRONLY, 0600));
        }
        sync();  // writing the tree is not to be measured with the walks
    }

    fs::path root_;
    std::map<int, Tree> made_;
};

void expect(benchmark::State& state, long counted) {
    if (counted != state.range(0)) state.SkipWithError("wrong count");
}

void count_ours(benchmark::State& state) {
    const Tree& tree = Trees::of(static_cast<int>(state.range(0)));
    for (auto _ : state)
        expect(state, FileEnumerator::CountFilesInFolder(tree.handheld.c_str(), nullptr, 100, 0));
}

// Its output is counted as the program writes it: one byte for each file.
void count_find(benchmark::State& state) {
    const Tree& tree = Trees::of(static_cast<int>(state.range(0)));
    const std::string command = "exec find '" + tree.host + "' -type f -printf x";
    for (auto _ : state) {
        FILE* output = popen(command.c_str(), "r");
        long count = 0;
        char buffer[65536];
        while (const std::size_t got = fread(buffer, 1, sizeof buffer, output))
            count += static_cast<long>(got);
        pclose(output);
        expect(state, count);
    }
}

// The usual way: each path on a line.
void count_find_paths(benchmark::State& state) {
    const Tree& tree = Trees::of(static_cast<int>(state.range(0)));
    const std::string command = "exec find '" + tree.host + "' -type f";
    for (auto _ : state) {
        FILE* output = popen(command.c_str(), "r");
        long count = 0;
        char buffer[65536];
        while (const std::size_t got = fread(buffer, 1, sizeof buffer, output))
            for (std::size_t i = 0; i < got; ++i)
                count += buffer[i] == '\n';
        pclose(output);
        expect(state, count);
    }
}

long walked;

void count_nftw(benchmark::State& state) {
    const Tree& tree = Trees::of(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        walked = 0;
        nftw(
            tree.host.c_str(),
            [](const char*, const struct stat*, int kind, FTW*) {
                walked += kind == FTW_F;
                return 0;
            },
            64, FTW_PHYS);
        expect(state, walked);
    }
}

// What the platform itself costs: each entry with its attributes, times and size, against the same of the host.
void search_ours(benchmark::State& state) {
    const std::u16string path = Trees::of(100000).handheld + u"\\folder 7\\*";
    for (auto _ : state) {
        WIN32_FIND_DATAW data;
        long count = 0;
        const HANDLE search = FindFirstFileW(path.c_str(), &data);
        do
            ++count;
        while (FindNextFileW(search, &data));
        FindClose(search);
        expect(state, count);
    }
}

void search_filesystem(benchmark::State& state) {
    const std::string path = Trees::of(100000).host + "/folder 7";
    for (auto _ : state) {
        long count = 0;
        for (const auto& entry : fs::directory_iterator(path)) {
            struct stat status;
            count += stat(entry.path().c_str(), &status) == 0;
        }
        expect(state, count);
    }
}

BENCHMARK(count_ours)
    ->Name("CountFilesInFolder/ours")
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(count_find)
    ->Name("CountFilesInFolder/find")
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(count_find_paths)
    ->Name("CountFilesInFolder/find-paths")
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(count_nftw)
    ->Name("CountFilesInFolder/nftw")
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(search_ours)->Name("FindFiles/ours")->Arg(1000)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(search_filesystem)->Name("FindFiles/filesystem")->Arg(1000)->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
