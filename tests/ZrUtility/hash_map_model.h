#pragma once

// What the tests of the hash maps share: a ZrLLHashMap as it is described, for comparison (vectors, divisions, no
// shortcuts, keys of 32 bits), its log records, and what an iterator yields.

#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include "ZrUtility/ZrIterator.h"
#include "log_tape.h"

namespace zr::test {

// A number as the maps take it.
inline void* as(std::intptr_t number) {
    return reinterpret_cast<void*>(number);
}

// What a map logs when it grows.
inline TapedRecord growth(std::uintptr_t from, std::uintptr_t to) {
    return {".\\ZrLLHashMap.cppzrwindowsmobile", 86, 0xA80020, {from, to}, {}};
}

// All that is left of an iterator, which is deleted.
inline std::vector<void*> all(ZrIterator* iterator) {
    const std::unique_ptr<ZrIterator> owned(iterator);
    std::vector<void*> found;
    while (owned->hasNext()) {
        found.push_back(owned->next());
    }
    return found;
}

class HashMapModel {
public:
    enum State : unsigned char { EMPTY, IN_USE, REMOVED };

    HashMapModel(int capacity, std::vector<TapedRecord>& log) : log_(log) { reset(capacity); }

    std::intptr_t put(std::intptr_t key, std::intptr_t value) {
        if (count_ + 1 > threshold_) rehash();
        const auto slot = static_cast<std::size_t>(locate(static_cast<std::int32_t>(key)));
        if (states[slot] == IN_USE) return std::exchange(values[slot], value);
        states[slot] = IN_USE;
        keys[slot] = key;
        values[slot] = value;
        ++count_;
        return 0;
    }

    std::intptr_t get(std::intptr_t key) const {
        const int slot = slotOf(key);
        return slot >= 0 ? values[static_cast<std::size_t>(slot)] : 0;
    }

    std::intptr_t remove(std::intptr_t key) {
        const int slot = slotOf(key);
        if (slot < 0) return 0;
        states[static_cast<std::size_t>(slot)] = REMOVED;
        --count_;
        return values[static_cast<std::size_t>(slot)];
    }

    bool containsKey(std::intptr_t key) const { return slotOf(key) >= 0; }
    int size() const { return count_; }
    int threshold() const { return threshold_; }
    int capacity() const { return static_cast<int>(states.size()); }

    void clear() {
        states.assign(states.size(), EMPTY);
        count_ = 0;
    }

    // What is in use of one of the two arrays, in the order of the slots.
    std::vector<void*> inUse(const std::vector<std::intptr_t>& array) const {
        std::vector<void*> found;
        for (std::size_t i = 0; i < states.size(); ++i) {
            if (states[i] == IN_USE) found.push_back(reinterpret_cast<void*>(array[i]));
        }
        return found;
    }

    std::vector<std::intptr_t> keys;
    std::vector<std::intptr_t> values;
    std::vector<State> states;

private:
    void reset(int capacity) {
        const auto slots = static_cast<std::size_t>(capacity);
        keys.assign(slots, 0);
        values.assign(slots, 0);
        states.assign(slots, EMPTY);
        count_ = 0;
        threshold_ = 75 * capacity / 100;
    }

    // The slot of a key, or where it goes.
    int locate(std::int32_t key) const {
        const int c = capacity();
        std::int64_t start = (key & 0x7FFFFFFF) % c;
        const auto step = static_cast<std::int32_t>(static_cast<std::uint32_t>(key) * 2 + 1);
        int firstRemoved = -1;
        for (int probes = 0;; start = (start + 1) % c) {
            std::int64_t at = start;
            do {
                const auto slot = static_cast<std::size_t>(at);
                if (states[slot] == EMPTY) return firstRemoved >= 0 ? firstRemoved : static_cast<int>(at);
                if (states[slot] == REMOVED && firstRemoved < 0) firstRemoved = static_cast<int>(at);
                if (states[slot] == IN_USE && keys[slot] == key) return static_cast<int>(at);
                at = (at + step) % c;
                if (at < 0) at += c;
                ++probes;
            } while (at != start);
            if (probes >= c) return firstRemoved;
        }
    }

    int slotOf(std::intptr_t key) const {
        const int slot = locate(static_cast<std::int32_t>(key));
        return slot >= 0 && states[static_cast<std::size_t>(slot)] == IN_USE ? slot : -1;
    }

    void rehash() {
        const int old = capacity();
        const auto oldKeys = keys;
        const auto oldValues = values;
        const auto oldStates = states;
        const int count = count_;
        log_.push_back(growth(static_cast<std::uintptr_t>(old), static_cast<std::uintptr_t>(2 * old + 1)));
        reset(2 * old + 1);
        count_ = count;
        for (auto i = static_cast<std::size_t>(old); i-- > 0;) {
            if (oldStates[i] != IN_USE) continue;
            const auto slot = static_cast<std::size_t>(locate(static_cast<std::int32_t>(oldKeys[i])));
            keys[slot] = oldKeys[i];
            values[slot] = oldValues[i];
            states[slot] = IN_USE;
        }
    }

    std::vector<TapedRecord>& log_;
    int count_ = 0;
    int threshold_ = 0;
};

}  // namespace zr::test
