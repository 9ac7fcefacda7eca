// Runs of the virtual memory manager beside mappings of the host's, and shared content beside bare shared memory.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "ZrUtility/Helpers/SharedMemManager.h"
#include "ZrUtility/Helpers/VirtualMemoryManager.h"

namespace {

constexpr ULONG kBlock = VirtualMemoryManager::BLOCK_SIZE;

// What is done with a run: nothing, or one write to each page.
enum class Use { None, EveryPage };

template <Use use>
void use_memory(void* memory, ULONG size) {
    if constexpr (use == Use::EveryPage) {
        for (ULONG at = 0; at < size; at += 4096) {
            static_cast<volatile char*>(memory)[at] = 1;
        }
    }
    benchmark::DoNotOptimize(memory);
}

template <Use use>
void run_ours(benchmark::State& state) {
    VirtualMemoryManager& manager = *VirtualMemoryManager::GetInstance();
    for (auto _ : state) {
        ULONG size = static_cast<ULONG>(state.range(0)) * kBlock;
        void* const memory = manager.GetMemory(&size);
        use_memory<use>(memory, size);
        manager.FreeMemory(memory, size);
    }
    VirtualMemoryManager::Release();
}

template <Use use>
void run_mmap(benchmark::State& state) {
    const ULONG size = static_cast<ULONG>(state.range(0)) * kBlock;
    for (auto _ : state) {
        void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        use_memory<use>(memory, size);
        munmap(memory, size);
    }
}
BENCHMARK(run_ours<Use::None>)->Name("GetMemory_FreeMemory/ours")->Arg(1)->Arg(8);
BENCHMARK(run_mmap<Use::None>)->Name("GetMemory_FreeMemory/mmap")->Arg(1)->Arg(8);
BENCHMARK(run_ours<Use::EveryPage>)->Name("GetMemory_use_FreeMemory/ours")->Arg(1)->Arg(8);
BENCHMARK(run_mmap<Use::EveryPage>)->Name("GetMemory_use_FreeMemory/mmap")->Arg(1)->Arg(8);

// A region of the manager's, and bare memory of shm_open, both of the same size. The reader is another manager, as it
// would be in another process; it has opened the region after the content was there.
class Ours {
public:
    explicit Ours(ULONG size) { writer_.Create(name_, size, PAGE_READWRITE, nullptr); }
    void write(unsigned char* data, ULONG size) { writer_.SetContent(name_, data, size); }
    bool start_reading() { return reader_.Open(name_, PAGE_READWRITE, nullptr) == S_OK; }
    void read(unsigned char* to) {
        unsigned char* content = nullptr;
        SharedMemManager::SharedMemHeader header{};
        if (reader_.GetContent(name_, &content, &header) == S_OK) std::memcpy(to, content, header.contentLength);
    }

private:
    WCHAR name_[20] = u"memory_bench region";
    SharedMemManager writer_;
    SharedMemManager reader_;
};

class Bare {
public:
    explicit Bare(ULONG size) : size_(size) {
        const int fd = shm_open(name_.c_str(), O_CREAT | O_EXCL | O_RDWR, 0600);
        if (ftruncate(fd, size) == 0) memory_ = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
    }
    ~Bare() {
        munmap(memory_, size_);
        shm_unlink(name_.c_str());
    }
    void write(const unsigned char* data, ULONG size) { std::memcpy(memory_, data, size); }
    bool start_reading() const { return memory_ != MAP_FAILED; }
    void read(unsigned char* to) { std::memcpy(to, memory_, size_); }

private:
    std::string name_ = "/memory_bench." + std::to_string(getpid());
    ULONG size_;
    void* memory_ = MAP_FAILED;
};

template <class Region>
void write_content(benchmark::State& state) {
    const ULONG size = static_cast<ULONG>(state.range(0));
    std::vector<unsigned char> data(size, 1);
    Region region(size);
    for (auto _ : state) {
        region.write(data.data(), size);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(write_content<Ours>)->Name("SetContent/ours")->Arg(64)->Arg(4096)->Arg(262144);
BENCHMARK(write_content<Bare>)->Name("SetContent/memcpy")->Arg(64)->Arg(4096)->Arg(262144);

template <class Region>
void read_content(benchmark::State& state) {
    const ULONG size = static_cast<ULONG>(state.range(0));
    std::vector<unsigned char> data(size, 1);
    Region region(size);
    region.write(data.data(), size);
    if (!region.start_reading()) state.SkipWithError("the region cannot be read");
    for (auto _ : state) {
        region.read(data.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(read_content<Ours>)->Name("GetContent/ours")->Arg(64)->Arg(4096)->Arg(262144);
BENCHMARK(read_content<Bare>)->Name("GetContent/memcpy")->Arg(64)->Arg(4096)->Arg(262144);

}  // namespace
