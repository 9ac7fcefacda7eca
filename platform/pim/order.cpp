#include "order.h"

#include <algorithm>

namespace zr::platform::pim {

const std::u16string& Order::key_of(LONG oid) const {
    static const std::u16string none;
    const auto index = static_cast<std::size_t>(oid - base_);
    return index < keys_.size() ? keys_[index] : none;
}

void Order::set_key(LONG oid, std::u16string key) {
    const auto index = static_cast<std::size_t>(oid - base_);
    if (index >= keys_.size()) {
        if (key.empty()) return;
        keys_.resize(index + 1);
    }
    keys_[index] = std::move(key);
}

bool Order::before(LONG a, const std::u16string& key, LONG oid) const {
    if (keyed_) {
        const int order = key_of(a).compare(key);
        if (order != 0) return (order < 0) != descending_;
    }
    return a < oid;
}

void Order::touch(std::size_t block) {
    known_ = std::min(known_, block + 1);
    last_block_ = std::min(last_block_, block);
}

// How many identifiers stand in front of a block.
std::size_t Order::start_of(std::size_t block) {
    if (known_ == 0) {
        starts_.assign(1, 0);
        known_ = 1;
    }
    if (known_ <= block) starts_.resize(std::max(starts_.size(), block + 1));
    for (; known_ <= block; ++known_) {
        starts_[known_] = starts_[known_ - 1] + blocks_[known_ - 1].size();
    }
    return starts_[block];
}

LONG Order::at(std::size_t position) {
    if (known_ == 0) static_cast<void>(start_of(0));
    std::size_t block = last_block_ < known_ ? last_block_ : 0;
    if (position < starts_[block] || position >= starts_[block] + blocks_[block].size()) {
        const auto end = starts_.begin() + static_cast<std::ptrdiff_t>(known_);
        block = static_cast<std::size_t>(std::upper_bound(starts_.begin(), end, position) - starts_.begin()) - 1;
    }
    while (position >= start_of(block) + blocks_[block].size()) {
        ++block;
    }
    last_block_ = block;
    return blocks_[block][position - starts_[block]];
}

std::size_t Order::through(const std::u16string& key, LONG oid) {
    const auto in_reach = [&](LONG each) {
        return before(each, key, oid) || (each == oid && (!keyed_ || key_of(each) == key));
    };
    const auto block =
        std::partition_point(blocks_.begin(), blocks_.end(), [&](const auto& each) { return in_reach(each.back()); });
    if (block == blocks_.end()) return size_;
    const auto place = std::partition_point(block->begin(), block->end(), in_reach);
    return start_of(static_cast<std::size_t>(block - blocks_.begin())) +
           static_cast<std::size_t>(place - block->begin());
}

void Order::assign(std::vector<LONG> oids) {
    if (keyed_) {
        std::sort(oids.begin(), oids.end(), [this](LONG a, LONG b) { return before(a, b); });
    }
    blocks_.clear();
    // Half full, so that insertions find room.
    const std::size_t fill = keyed_ ? kBlock / 2 : kBlock;
    for (std::size_t i = 0; i < oids.size(); i += fill) {
        const std::size_t end = std::min(oids.size(), i + fill);
        blocks_.emplace_back(oids.begin() + static_cast<std::ptrdiff_t>(i),
                             oids.begin() + static_cast<std::ptrdiff_t>(end));
    }
    size_ = oids.size();
    known_ = 0;
}

Order::Place Order::find(LONG oid) const {
    const auto block = std::partition_point(blocks_.begin(), blocks_.end(),
                                            [&](const auto& each) { return before(each.back(), oid); });
    const auto number = static_cast<std::size_t>(block - blocks_.begin());
    if (block == blocks_.end()) return {number, 0, false};
    const auto place = std::partition_point(block->begin(), block->end(), [&](LONG each) { return before(each, oid); });
    return {number, static_cast<std::size_t>(place - block->begin()), place != block->end() && *place == oid};
}

void Order::insert(LONG oid) {
    Place place = find(oid);
    if (place.found) return;
    if (place.block == blocks_.size()) {
        if (blocks_.empty() || blocks_.back().size() >= kBlock) blocks_.emplace_back();
        place = {blocks_.size() - 1, blocks_.back().size(), false};
    }
    auto& block = blocks_[place.block];
    block.insert(block.begin() + static_cast<std::ptrdiff_t>(place.index), oid);
    ++size_;
    if (block.size() > kBlock) {
        std::vector<LONG> upper(block.begin() + kBlock / 2, block.end());
        block.resize(kBlock / 2);
        blocks_.insert(blocks_.begin() + static_cast<std::ptrdiff_t>(place.block) + 1, std::move(upper));
    }
    touch(place.block);
}

void Order::put(LONG oid, std::u16string key) {
    if (keyed_) {
        if (key_of(oid) != key) {
            erase(oid);
            set_key(oid, std::move(key));
        }
    }
    insert(oid);
}

void Order::erase(LONG oid) {
    const Place place = find(oid);
    if (!place.found) return;
    auto& block = blocks_[place.block];
    block.erase(block.begin() + static_cast<std::ptrdiff_t>(place.index));
    --size_;
    touch(place.block);
    if (block.empty()) {
        blocks_.erase(blocks_.begin() + static_cast<std::ptrdiff_t>(place.block));
        known_ = std::min(known_, place.block);
        last_block_ = 0;
    }
    if (keyed_) set_key(oid, {});
}

}  // namespace zr::platform::pim
