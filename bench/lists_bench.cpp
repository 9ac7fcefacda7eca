// Arrays and linked lists beside the standard library's. Arguments are numbers of elements.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <list>
#include <memory>
#include <vector>

#include "ZrUtility/ArrayIterator.h"
#include "ZrUtility/ZrArray.h"
#include "ZrUtility/ZrLinkList.h"

namespace {

using Element = std::uint64_t;

// ---- Arrays. `share`: for how many eighths of the elements there is room at the start.

template <int share>
void appendToArray(benchmark::State& state) {
    const int count = static_cast<int>(state.range(0));
    for (auto _ : state) {
        ZrArray array(sizeof(Element), count * share / 8);
        for (Element i = 0; i < static_cast<Element>(count); ++i) {
            array.appendElement(&i);
        }
        benchmark::DoNotOptimize(array.getArray());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * count);
}

template <int share>
void appendToVector(benchmark::State& state) {
    const int count = static_cast<int>(state.range(0));
    for (auto _ : state) {
        std::vector<Element> vector;
        vector.reserve(static_cast<std::size_t>(count * share / 8));
        for (Element i = 0; i < static_cast<Element>(count); ++i) {
            vector.push_back(i);
        }
        benchmark::DoNotOptimize(vector.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * count);
}

void fill(ZrArray& array, std::int64_t count) {
    for (Element i = 0; i < static_cast<Element>(count); ++i) {
        array.appendElement(&i);
    }
}

// Every element is looked at, one after the other.
void iterateArray(benchmark::State& state) {
    ZrArray array(sizeof(Element), static_cast<int>(state.range(0)));
    fill(array, state.range(0));
    for (auto _ : state) {
        ArrayIterator iterator(array.getArray(), array.getSizeOfElement(), array.getNumberOfElement());
        while (iterator.hasNext()) {
            benchmark::DoNotOptimize(*static_cast<const Element*>(iterator.next()));
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void indexArray(benchmark::State& state) {
    ZrArray array(sizeof(Element), static_cast<int>(state.range(0)));
    fill(array, state.range(0));
    for (auto _ : state) {
        for (int i = 0; i < array.getNumberOfElement(); ++i) {
            benchmark::DoNotOptimize(*static_cast<const Element*>(array.getElementByIndex(i)));
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void iterateVector(benchmark::State& state) {
    const std::vector<Element> vector(static_cast<std::size_t>(state.range(0)), 7);
    for (auto _ : state) {
        for (const Element& element : vector) {
            benchmark::DoNotOptimize(element);
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void indexVector(benchmark::State& state) {
    const std::vector<Element> vector(static_cast<std::size_t>(state.range(0)), 7);
    for (auto _ : state) {
        for (std::size_t i = 0; i < vector.size(); ++i) {
            benchmark::DoNotOptimize(vector[i]);
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

#define ZR_PAIR(name, ours, peer, theirs)                                     \
    BENCHMARK(ours)->Name(#name "/ours")->Arg(100)->Arg(10000)->Arg(1000000); \
    BENCHMARK(theirs)->Name(#name "/" #peer)->Arg(100)->Arg(10000)->Arg(1000000)

ZR_PAIR(array_append, appendToArray<8>, vector, appendToVector<8>);
ZR_PAIR(array_append_growing, appendToArray<1>, vector, appendToVector<1>);
ZR_PAIR(array_walk, iterateArray, vector, iterateVector);
ZR_PAIR(array_walk_by_index, indexArray, vector, indexVector);

// ---- Lists of pointers. Small ones are handled many at a time, so that the clock is stopped seldom.

struct OurList {
    ZrLinkList list;

    void append(void* item) { list.appendElement(item); }
    void clear() { list.clear(); }
    void walk() {
        const std::unique_ptr<ZrIterator> iterator(list.iterator());
        while (iterator->hasNext()) {
            benchmark::DoNotOptimize(iterator->next());
        }
    }
};

struct StandardList {
    std::list<void*> list;

    void append(void* item) { list.push_back(item); }
    void clear() { list.clear(); }
    void walk() {
        for (void* item : list) {
            benchmark::DoNotOptimize(item);
        }
    }
};

template <class List>
class Lists {
public:
    explicit Lists(benchmark::State& state)
        : count_(state.range(0)), lists_(static_cast<std::size_t>(std::max<std::int64_t>(10000 / count_, 1))) {}

    // The heap has had its memory from the system before either contender is measured.
    void warmUp() {
        append();
        clear();
    }
    void append() {
        for (List& list : lists_) {
            for (std::int64_t i = 0; i < count_; ++i) {
                list.append(&lists_);
            }
        }
    }
    void clear() {
        for (List& list : lists_) {
            list.clear();
        }
    }
    void walk() {
        for (List& list : lists_) {
            list.walk();
        }
    }
    void report(benchmark::State& state) const {
        state.SetItemsProcessed(state.iterations() * count_ * static_cast<std::int64_t>(lists_.size()));
    }

private:
    std::int64_t count_;
    std::vector<List> lists_;
};

template <class List>
void appendToList(benchmark::State& state) {
    Lists<List> lists(state);
    lists.warmUp();
    for (auto _ : state) {
        lists.append();
        state.PauseTiming();
        lists.clear();
        state.ResumeTiming();
    }
    lists.report(state);
}

template <class List>
void walkList(benchmark::State& state) {
    Lists<List> lists(state);
    lists.append();
    for (auto _ : state) {
        lists.walk();
    }
    lists.report(state);
}

template <class List>
void clearList(benchmark::State& state) {
    Lists<List> lists(state);
    lists.warmUp();
    for (auto _ : state) {
        state.PauseTiming();
        lists.append();
        state.ResumeTiming();
        lists.clear();
    }
    lists.report(state);
}

ZR_PAIR(list_append, appendToList<OurList>, list, appendToList<StandardList>);
ZR_PAIR(list_walk, walkList<OurList>, list, walkList<StandardList>);
ZR_PAIR(list_clear, clearList<OurList>, list, clearList<StandardList>);

}  // namespace
