#pragma once

// A folder's identifiers in the order of a sort: by key (keys.h), then by identifier.
//
// The identifiers stand in blocks of bounded size, so that an insertion or removal moves little at any size of the
// folder; positions are found through running totals that are brought up to date as far as they are asked for.

#include <string>
#include <vector>

#include "platform/types.h"

namespace zr::platform::pim {

class Order {
public:
    // In identifier order when not `keyed`. Descending turns the keys around; equal ones still go by identifier.
    explicit Order(LONG base = 0, bool keyed = false, bool descending = false)
        : base_(base), keyed_(keyed), descending_(descending) {}

    std::size_t size() const { return size_; }
    LONG at(std::size_t position);
    const std::u16string& key_of(LONG oid) const;
    // How many identifiers stand at or in front of the place that a key and an identifier have, there or not.
    std::size_t through(const std::u16string& key, LONG oid);
    // Replaces everything; `oids` in identifier order. Keys that were set before count.
    void assign(std::vector<LONG> oids);
    void set_key(LONG oid, std::u16string key);
    // Puts an identifier in its place; one that is there already moves to the place of its new key.
    void put(LONG oid, std::u16string key);
    void erase(LONG oid);

private:
    static constexpr std::size_t kBlock = 512;
    struct Place {
        std::size_t block;
        std::size_t index;
        bool found;
    };

    bool before(LONG a, const std::u16string& key, LONG oid) const;
    bool before(LONG a, LONG b) const { return before(a, key_of(b), b); }
    Place find(LONG oid) const;
    std::size_t start_of(std::size_t block);
    void insert(LONG oid);
    void touch(std::size_t block);  // the totals from this block on are out of date

    LONG base_;
    bool keyed_;
    bool descending_;
    std::size_t size_ = 0;
    std::vector<std::vector<LONG>> blocks_;
    std::vector<std::size_t> starts_;  // of the first known_ blocks: how many identifiers stand in front
    std::size_t known_ = 0;
    std::size_t last_block_ = 0;        // where the last look was: walks go on from there
    std::vector<std::u16string> keys_;  // by identifier - base
};

}  // namespace zr::platform::pim
