// The hash table and the hash maps beside absl::flat_hash_map and std::unordered_map, with the same keys in the same
// order. Times are per entry or per lookup, bytes are what was asked of operator new, per entry.
//
//   hash_table_*  30-bit hashes to 32-bit values; each side is created for its number of entries
//   integer_map_* integers to integers, 32 random bits as wide as a pointer
//   text_map_*    narrow texts to integers; peers keep string views, so that no side copies texts
//
//   insert, put   a table made, filled and destroyed
//   find, get     random entries, all there (hit) or all absent (miss)
//   delete        a full table emptied, in random order
//   iterate       all entries of a full map
//   bytes         of a full one
//
// Maps are created as full as absl's is with these entries, or where that is above the load that they allow, as full as
// they may be. For bytes, absl's holds so many entries that it is as full as ours.

#include <absl/container/flat_hash_map.h>
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "ZrUtility/ZrHashTable.h"
#include "ZrUtility/ZrLLHashMap.h"
#include "ZrUtility/ZrStringLongHashMap.h"

namespace {

std::size_t bytes_asked = 0;

}  // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
    bytes_asked += size;
    if (void* block = std::malloc(size != 0 ? size : 1)) return block;
    throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    bytes_asked += size;
    return std::malloc(size != 0 ? size : 1);
}
// Out of line, or GCC sees a free() without a malloc().
[[gnu::noinline]] void operator delete(void* block) noexcept {
    std::free(block);
}
[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}

namespace {

[[noreturn]] void give_up(const char* what) {
    std::fprintf(stderr, "%s\n", what);
    std::abort();
}

// ---- What is measured: each has add, get, remove, total ----

using Hashes = std::vector<ULONG>;
using Integers = std::vector<void*>;
using Texts = std::vector<const char*>;

// How many slots make a map of ours as full as absl's, as far as it can be.
int slots_for(std::size_t count) {
    static std::map<std::size_t, int> known;
    int& slots = known[count];
    if (slots != 0) return slots;
    absl::flat_hash_map<void*, void*> peer;
    peer.reserve(count);
    slots = static_cast<int>(std::max(peer.capacity(), (count * 100 + 74) / 75));
    return slots;
}

class OurTable {
public:
    // A table that rehashes on its own would lose its entries when as many are deleted as are left in the largest.
    explicit OurTable(std::size_t count, int autoRehash = 1) : table_(autoRehash) {
        if (table_.CreateTable(static_cast<unsigned>(count)) == 0) give_up("CreateTable");
    }
    void add(ULONG key, std::size_t value) { table_.InsertValue(key, static_cast<ULONG>(value)); }
    std::size_t get(ULONG key) {
        ULONG value = 0;
        table_.FindValue(key, &value, ZrHashTable::FIND_ONLY, 0);
        return value;
    }
    bool remove(ULONG key) { return table_.DeleteValue(key) != 0; }

private:
    ZrHashTable table_;
};

// How full ours are with so many entries.
double fill_of(const Hashes*, std::size_t count) {
    ZrHashTable table;
    table.CreateTable(static_cast<unsigned>(count));
    return static_cast<double>(count) / table.GetSize();
}

template <class Keys>
double fill_of(const Keys*, std::size_t count) {
    return static_cast<double>(count) / slots_for(count);
}

template <class Map>
class PeerTable {
public:
    explicit PeerTable(std::size_t count, int = 1) { map_.reserve(count); }
    void add(typename Map::key_type key, std::size_t value) { map_[key] = static_cast<ULONG>(value); }
    std::size_t get(typename Map::key_type key) {
        const auto found = map_.find(key);
        return found != map_.end() ? found->second : 0;
    }
    bool remove(typename Map::key_type key) { return map_.erase(key) != 0; }

    static std::size_t capacity(std::size_t count) requires requires(Map map) { map.capacity(); }
    {
        Map map;
        map.reserve(count);
        return map.capacity();
    }

private:
    Map map_;
};

template <class Map>
class OurMap {
public:
    explicit OurMap(std::size_t count, int = 1) : map_(slots_for(count)) {}
    template <class Key>
    void add(Key key, std::size_t value) {
        map_.put(untyped(key), reinterpret_cast<void*>(value));
    }
    template <class Key>
    std::size_t get(Key key) {
        return reinterpret_cast<std::size_t>(map_.get(untyped(key)));
    }
    std::size_t total() {
        const std::unique_ptr<ZrIterator> values(map_.values());
        std::size_t sum = 0;
        while (values->hasNext()) {
            sum += reinterpret_cast<std::size_t>(values->next());
        }
        return sum;
    }

private:
    static void* untyped(void* key) { return key; }
    static void* untyped(const char* key) { return const_cast<char*>(key); }

    Map map_;
};

template <class Map>
class PeerMap {
public:
    explicit PeerMap(std::size_t count, int = 1) { map_.reserve(count); }
    template <class Key>
    void add(Key key, std::size_t value) {
        map_[key] = reinterpret_cast<void*>(value);
    }
    template <class Key>
    std::size_t get(Key key) {
        const auto found = map_.find(key);
        return found != map_.end() ? reinterpret_cast<std::size_t>(found->second) : 0;
    }
    std::size_t total() {
        std::size_t sum = 0;
        for (const auto& [key, value] : map_) {
            sum += reinterpret_cast<std::size_t>(value);
        }
        return sum;
    }

    static std::size_t capacity(std::size_t count) requires requires(Map map) { map.capacity(); }
    {
        Map map;
        map.reserve(count);
        return map.capacity();
    }

private:
    Map map_;
};

// ---- Keys ----

// `count` keys and as many others, each once.
std::vector<ULONG> numbers(std::size_t count, int shift) {
    std::mt19937 random(1);
    std::unordered_set<ULONG> seen;
    std::vector<ULONG> found;
    while (found.size() < 2 * count) {
        const ULONG number = static_cast<ULONG>(random()) >> shift;
        if (number != 0 && seen.insert(number).second) found.push_back(number);
    }
    return found;
}

Hashes all_keys(std::size_t count, const Hashes*) {
    return numbers(count, 2);
}

Integers all_keys(std::size_t count, const Integers*) {
    Integers keys;
    for (const ULONG number : numbers(count, 0)) {
        keys.push_back(reinterpret_cast<void*>(static_cast<std::uintptr_t>(number)));
    }
    return keys;
}

Texts all_keys(std::size_t count, const Texts*) {
    // Kept for good: texts are looked at where they stand.
    static std::vector<std::unique_ptr<std::vector<std::string>>> kept;
    auto texts = std::make_unique<std::vector<std::string>>();
    for (const ULONG number : numbers(count, 0)) {
        texts->push_back("user" + std::to_string(number) + "@example.org");
    }
    Texts keys;
    for (const std::string& text : *texts) {
        keys.push_back(text.c_str());
    }
    kept.push_back(std::move(texts));
    return keys;
}

template <class Keys>
struct KeySet {
    explicit KeySet(std::size_t count) {
        Keys keys = all_keys(count, static_cast<const Keys*>(nullptr));
        absent.assign(keys.begin() + static_cast<std::ptrdiff_t>(count), keys.end());
        keys.resize(count);
        present = std::move(keys);
    }
    Keys present;
    Keys absent;
};

// More of them than a processor remembers the way of.
template <class Keys>
Keys queries(const Keys& keys) {
    constexpr std::size_t kQueries = 1 << 17;
    std::mt19937 random(2);
    Keys chosen;
    for (std::size_t i = 0; i < kQueries; ++i) {
        chosen.push_back(keys[random() % keys.size()]);
    }
    return chosen;
}

template <class Table, class Keys>
void fill(Table& table, const Keys& keys) {
    std::size_t value = 0;
    for (const auto& key : keys) {
        table.add(key, ++value);
    }
}

// ---- Measurements ----

template <class Table, class Keys>
void insert(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    const KeySet<Keys> keys(count);
    while (state.KeepRunningBatch(state.range(0))) {
        Table table(count);
        fill(table, keys.present);
        benchmark::DoNotOptimize(table);
    }
}

template <class Table, class Keys>
void look_up(benchmark::State& state, bool hit) {
    const auto count = static_cast<std::size_t>(state.range(0));
    const KeySet<Keys> keys(count);
    Table table(count);
    fill(table, keys.present);
    const Keys asked = queries(hit ? keys.present : keys.absent);
    std::size_t sum = 0;
    while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(asked.size()))) {
        for (const auto& key : asked) {
            sum += table.get(key);
        }
    }
    if ((sum != 0) != hit) give_up("lost");
}

template <class Table, class Keys>
void find_hit(benchmark::State& state) {
    look_up<Table, Keys>(state, true);
}

template <class Table, class Keys>
void find_miss(benchmark::State& state) {
    look_up<Table, Keys>(state, false);
}

template <class Table, class Keys>
void empty_out(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    const KeySet<Keys> keys(count);
    Keys order = keys.present;
    std::shuffle(order.begin(), order.end(), std::mt19937(3));
    const std::size_t tables = 1 + 20000 / count;
    while (state.KeepRunningBatch(static_cast<benchmark::IterationCount>(tables * count))) {
        state.PauseTiming();
        std::vector<std::unique_ptr<Table>> full;
        for (std::size_t i = 0; i < tables; ++i) {
            full.push_back(std::make_unique<Table>(count, 0));
            fill(*full.back(), keys.present);
        }
        state.ResumeTiming();
        for (const auto& table : full) {
            for (const auto& key : order) {
                if (!table->remove(key)) give_up("lost");
            }
        }
        state.PauseTiming();
        full.clear();
        state.ResumeTiming();
    }
}

template <class Table, class Keys>
void iterate(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    const KeySet<Keys> keys(count);
    Table table(count);
    fill(table, keys.present);
    std::size_t sum = 0;
    while (state.KeepRunningBatch(state.range(0))) {
        sum += table.total();
    }
    benchmark::DoNotOptimize(sum);
}

// What operator new was asked for by a table filled with the first `entries` keys, per entry.
template <class Table, class Keys>
double bytes_of(std::size_t count, std::size_t entries) {
    Keys keys = KeySet<Keys>(count).present;
    keys.resize(std::min(entries, keys.size()));
    { const Table known_from_now_on(count); }
    const std::size_t before = bytes_asked;
    Table table(count);
    fill(table, keys);
    return static_cast<double>(bytes_asked - before) / static_cast<double>(keys.size());
}

template <class Table, class Keys>
void bytes(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    std::size_t entries = count;
    if constexpr (requires { Table::capacity(count); }) {
        const double fill = fill_of(static_cast<const Keys*>(nullptr), count);
        entries = static_cast<std::size_t>(std::llround(fill * static_cast<double>(Table::capacity(count))));
    }
    for (auto _ : state) {
        state.counters["bytes"] = bytes_of<Table, Keys>(count, entries);
    }
}

template <class Table, class Keys>
void measure_common(const std::string& subject, const std::string& contender, int count, bool isTable) {
    const auto measure = [&](const std::string& what, auto function) {
        benchmark::RegisterBenchmark((subject + what + "/" + contender).c_str(), function)->Arg(count);
    };
    measure(isTable ? "insert" : "put", insert<Table, Keys>);
    measure(isTable ? "find_hit" : "get_hit", find_hit<Table, Keys>);
    measure(isTable ? "find_miss" : "get_miss", find_miss<Table, Keys>);
    if constexpr (std::is_same_v<Keys, Hashes>) {
        measure("delete", empty_out<Table, Keys>);
    } else {
        measure("iterate", iterate<Table, Keys>);
    }
    benchmark::RegisterBenchmark((subject + "bytes/" + contender).c_str(), bytes<Table, Keys>)
        ->Arg(count)
        ->Iterations(1);
}

[[maybe_unused]] const bool registered = [] {
    for (const int count : {100, 10000, 89948}) {
        measure_common<OurTable, Hashes>("hash_table_", "ours", count, true);
        measure_common<PeerTable<absl::flat_hash_map<ULONG, ULONG>>, Hashes>("hash_table_", "absl", count, true);
        measure_common<PeerTable<std::unordered_map<ULONG, ULONG>>, Hashes>("hash_table_", "std", count, true);
        measure_common<OurMap<ZrLLHashMap>, Integers>("integer_map_", "ours", count, false);
        measure_common<PeerMap<absl::flat_hash_map<void*, void*>>, Integers>("integer_map_", "absl", count, false);
        measure_common<PeerMap<std::unordered_map<void*, void*>>, Integers>("integer_map_", "std", count, false);
        using Text = std::string_view;
        measure_common<OurMap<ZrStringLongHashMap>, Texts>("text_map_", "ours", count, false);
        measure_common<PeerMap<absl::flat_hash_map<Text, void*>>, Texts>("text_map_", "absl", count, false);
        measure_common<PeerMap<std::unordered_map<Text, void*>>, Texts>("text_map_", "std", count, false);
    }
    return true;
}();

}  // namespace
