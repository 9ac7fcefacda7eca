// Importing a file of cards into a fresh contact store, beside EVCard parsing the same file and keeping nothing. The
// import reads cards on a second thread, so that the processor time, which is of the whole process, is the other half
// of the answer.
// import_memory runs zr itself and reports the most memory that it ever had.

// First: GLib makes macros of TRUE and FALSE, which the platform declares as constants.
#include "zr/stores/contacts.h"

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <libebook-contacts/libebook-contacts.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "zr/vcard/stream.h"

extern char** environ;

namespace {

namespace fs = std::filesystem;

// A folder for the cards and the stores, removed at the end.
class Scratch {
public:
    Scratch() {
        std::string pattern = (fs::temp_directory_path() / "zrbench-XXXXXX").string();
        path_ = mkdtemp(pattern.data());
    }
    ~Scratch() {
        std::error_code ignored;
        fs::remove_all(path_, ignored);
    }
    const fs::path& path() const { return path_; }

    void fresh_store() {
        const fs::path home = path_ / "store";
        fs::remove_all(home);
        fs::create_directory(home);
        setenv("ZR_HOME", home.c_str(), 1);
    }

    // A file of so many cards, each with one to three addresses, as an address book writes them.
    std::string cards(int count) {
        std::string name = path_ / (std::to_string(count) + ".vcf");
        if (fs::exists(name)) return name;
        std::ofstream file(name, std::ios::binary);
        for (int i = 0; i < count; ++i) {
            const std::string n = std::to_string(i);
            file << "BEGIN:VCARD\r\nVERSION:3.0\r\nPRODID:-//Example//Address Book//EN\r\nN:Family" << n << ";Given"
                 << n << ";Middle;;\r\nFN:Given" << n << " Middle Family" << n << "\r\nORG:Company " << i % 100
                 << ";Department\r\nTITLE:Engineer\r\n";
            for (int e = 0; e <= i % 3; ++e) {
                file << "EMAIL;type=INTERNET" << (e == 0 ? ";type=pref" : "") << ":given" << n << "." << e
                     << "@example.com\r\n";
            }
            file << "TEL;type=CELL;type=VOICE:+1 555 " << n << "\r\nTEL;type=WORK;type=VOICE:+1 556 " << n
                 << "\r\nADR;type=HOME:;;" << n << " High Street;Springfield;State;12345;Country\r\n"
                 << "BDAY:1980-01-31\r\nNOTE:Met at the fair\\, likes mail.\\nA second line that is long enough to "
                    "be\r\n"
                 << "  folded by the program that wrote it.\r\nUID:" << n << "-uid\r\nEND:VCARD\r\n";
        }
        return name;
    }

private:
    fs::path path_;
};

Scratch& scratch() {
    static Scratch instance;
    return instance;
}

void import_ours(benchmark::State& state) {
    const std::string path = scratch().cards(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        state.PauseTiming();
        scratch().fresh_store();
        state.ResumeTiming();
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        std::vector<zr::CardToSave> batch;
        zr::Store store;
        {
            zr::CardStream cards(fd);
            zr::CardStream::Part part;
            while (cards.next(part)) {
                for (zr::Card& card : part.cards)
                    batch.push_back({std::move(card)});
                if (batch.size() < 1000) continue;
                store.save(batch);
                batch.clear();
            }
        }
        if (!batch.empty()) store.save(batch);
        close(fd);
        if (store.count() != state.range(0)) state.SkipWithError("cards are missing");
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void parse_ours(benchmark::State& state) {
    const std::string path = scratch().cards(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        zr::LineReader lines(zr::read_from_descriptor(fd));
        zr::CardReader reader(lines);
        std::vector<zr::Problem> problems;
        zr::Card card;
        std::int64_t count = 0;
        while (reader.next(card, problems) == zr::CardReader::Result::Card) {
            ++count;
        }
        close(fd);
        if (count != state.range(0)) state.SkipWithError("cards are missing");
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// The file in memory, cut behind each end of a card: nothing but EVCard's own work.
void parse_evcard(benchmark::State& state) {
    static constexpr std::string_view kEnd = "END:VCARD\r\n";
    const std::string path = scratch().cards(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        std::ifstream file(path, std::ios::binary);
        const std::string text(std::istreambuf_iterator<char>(file), {});
        std::int64_t count = 0;
        for (std::size_t begin = 0, end; (end = text.find(kEnd, begin)) != std::string::npos; begin = end) {
            end += kEnd.size();
            EVCard* card = e_vcard_new_from_string(text.substr(begin, end - begin).c_str());
            benchmark::DoNotOptimize(e_vcard_get_attributes(card));
            g_object_unref(card);
            ++count;
        }
        if (count != state.range(0)) state.SkipWithError("cards are missing");
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

// One card with so many categories, twice as long with each row: what takes more than twice the time is not linear.
std::string long_card(std::int64_t categories) {
    std::string text = "BEGIN:VCARD\r\nVERSION:3.0\r\nN:Family;Given\r\nCATEGORIES:c";
    for (std::int64_t i = 1; i < categories; ++i) {
        text += ",c";
    }
    return text + "\r\nEND:VCARD\r\n";
}

void parse_long_card_ours(benchmark::State& state) {
    const std::string path = scratch().path() / "long.vcf";
    std::ofstream(path, std::ios::binary) << long_card(state.range(0));
    for (auto _ : state) {
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        zr::LineReader lines(zr::read_from_descriptor(fd));
        zr::CardReader reader(lines);
        std::vector<zr::Problem> problems;
        zr::Card card;
        if (reader.next(card, problems) != zr::CardReader::Result::Card) state.SkipWithError("no card");
        close(fd);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void parse_long_card_evcard(benchmark::State& state) {
    const std::string text = long_card(state.range(0));
    for (auto _ : state) {
        EVCard* const card = e_vcard_new_from_string(text.c_str());
        benchmark::DoNotOptimize(e_vcard_get_attributes(card));
        g_object_unref(card);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void import_memory(benchmark::State& state) {
    const std::string path = scratch().cards(static_cast<int>(state.range(0)));
    const std::string tool = fs::read_symlink("/proc/self/exe").parent_path() / "zr";
    long peak = 0;
    for (auto _ : state) {
        scratch().fresh_store();
        const char* argv[] = {tool.c_str(), "contacts", "import", "--quiet", path.c_str(), nullptr};
        pid_t pid = -1;
        int status = 1;
        rusage usage = {};
        if (posix_spawn(&pid, tool.c_str(), nullptr, nullptr, const_cast<char**>(argv), environ) != 0 ||
            wait4(pid, &status, 0, &usage) != pid || status != 0) {
            state.SkipWithError("zr failed");
        }
        peak = std::max(peak, usage.ru_maxrss);
    }
    state.counters["peak_MiB"] = static_cast<double>(peak) / 1024;
}

BENCHMARK(import_ours)
    ->Name("import/ours")
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();
BENCHMARK(parse_evcard)
    ->Name("import/evcard")
    ->Arg(10000)
    ->Arg(100000)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();
BENCHMARK(parse_ours)
    ->Name("parse_cards/ours")
    ->Arg(10000)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();
BENCHMARK(parse_evcard)
    ->Name("parse_cards/evcard")
    ->Arg(10000)
    ->Unit(benchmark::kMillisecond)
    ->MeasureProcessCPUTime()
    ->UseRealTime();
BENCHMARK(parse_long_card_ours)
    ->Name("parse_long_card/ours")
    ->Arg(20000)
    ->Arg(40000)
    ->Arg(80000)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(parse_long_card_evcard)
    ->Name("parse_long_card/evcard")
    ->Arg(20000)
    ->Arg(40000)
    ->Arg(80000)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(import_memory)
    ->Name("import_memory/ours")
    ->Arg(10000)
    ->Arg(100000)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
