// Finding modules: ours, beside the dynamic linker's own work on the same files whose names are known.

#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <climits>
#include <filesystem>
#include <string>
#include <vector>

#include "ZrUtility/ZrIModuleEnumerator.h"
#include "platform/modules.h"

namespace {

namespace fs = std::filesystem;

constexpr int kModules = 1000;
constexpr int kId = 7;

// Copies of one module, in a folder below the root of the handheld's file system for this program.
class Modules {
public:
    static const Modules& get() {
        static const Modules modules;
        return modules;
    }
    const std::vector<std::string>& paths() const { return paths_; }

private:
    Modules() {
        std::string pattern = (fs::temp_directory_path() / "zrbench-XXXXXX").string();
        root_ = mkdtemp(pattern.data());
        setenv("ZR_ROOT", root_.c_str(), 1);
        fs::create_directory(root_ / "modules");
        for (int i = 0; i < kModules; ++i) {
            paths_.push_back((root_ / "modules" / ("module" + std::to_string(i) + ".so")).string());
            fs::copy_file(BENCH_MODULE, paths_.back());
        }
    }
    ~Modules() { fs::remove_all(root_); }

    fs::path root_;
    std::vector<std::string> paths_;
};

void enumerate(benchmark::State& state, int level) {
    Modules::get();
    WCHAR folder[] = u"\\modules";
    WCHAR pattern[] = u"*.so";
    for (auto _ : state) {
        int found = 0;
        ZrIModuleEnumerator walk;
        walk.start(kId, {1, 2, 3, 4, 0}, level, folder, pattern);
        for (; walk.isValid(); walk.advance()) {
            ++found;
            FreeLibrary(walk.value());
        }
        if (found != kModules) state.SkipWithError("wrong count");
    }
}

void load_each(benchmark::State& state) {
    const Modules& modules = Modules::get();
    for (auto _ : state) {
        int found = 0;
        for (const std::string& each : modules.paths()) {
            void* const module = dlopen(each.c_str(), RTLD_NOW | RTLD_LOCAL);
            if (!module) continue;
            const auto id = reinterpret_cast<int (*)()>(dlsym(module, "ZrIGetModuleId"));
            if (id && id() == kId) ++found;
            dlclose(module);
        }
        if (found != kModules) state.SkipWithError("wrong count");
    }
}

// The same for modules that are not known before: what the folder holds, by their real paths, and their headers read
// where the version is asked for before one is loaded.
void list_and_load(benchmark::State& state, bool reads) {
    const fs::path folder = fs::path(Modules::get().paths().front()).parent_path();
    for (auto _ : state) {
        int found = 0;
        for (const fs::directory_entry& each : fs::directory_iterator(folder)) {
            char path[PATH_MAX];
            if (each.path().extension() != ".so" || realpath(each.path().c_str(), path) == nullptr) continue;
            if (reads) {
                char header[4096];
                const int file = open(path, O_RDONLY | O_CLOEXEC);
                benchmark::DoNotOptimize(pread(file, header, sizeof header, 0));
                close(file);
            }
            void* const module = dlopen(path, RTLD_NOW | RTLD_LOCAL);
            if (!module) continue;
            const auto id = reinterpret_cast<int (*)()>(dlsym(module, "ZrIGetModuleId"));
            if (id && id() == kId) ++found;
            dlclose(module);
        }
        if (found != kModules) state.SkipWithError("wrong count");
    }
}

BENCHMARK_CAPTURE(enumerate, ours, 0)->Name("enumerate_modules/ours")->Unit(benchmark::kMillisecond);
BENCHMARK(load_each)->Name("enumerate_modules/dlopen")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(list_and_load, listed, false)->Name("enumerate_modules/listed_dlopen")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(enumerate, ours, 1)->Name("enumerate_modules_by_version/ours")->Unit(benchmark::kMillisecond);
BENCHMARK(load_each)->Name("enumerate_modules_by_version/dlopen")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(list_and_load, read, true)
    ->Name("enumerate_modules_by_version/read_dlopen")
    ->Unit(benchmark::kMillisecond);

}  // namespace
