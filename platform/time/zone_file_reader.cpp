#include "zone_file_reader.h"

#include <algorithm>

#include "zone_rule_reader.h"

namespace zr::platform {

namespace {

constexpr std::string_view kMagic = "TZif";
constexpr std::size_t kReserved = 15;
constexpr unsigned kTypeSize = 6;
constexpr unsigned kLeapCountSize = 4;

// No place on earth is further away from UTC, and nothing that adds it overflows.
constexpr std::int32_t kLeastOffset = -25 * 3600;
constexpr std::int32_t kGreatestOffset = 26 * 3600;

// Before any leap second, and far from the least number.
constexpr std::int64_t kLongAgo = -(std::int64_t{1} << 60);

// A number of 4 or 8 bytes, most significant first, with its sign.
std::int64_t number_in(std::string_view bytes) {
    std::uint64_t value = 0;
    for (const char byte : bytes)
        value = value << 8 | static_cast<unsigned char>(byte);
    return bytes.size() == 4 ? static_cast<std::int32_t>(value) : static_cast<std::int64_t>(value);
}

}  // namespace

std::uint64_t ZoneFileReader::Header::size_of_data(unsigned time_size) const {
    return std::uint64_t{changes} * (time_size + 1) + std::uint64_t{types} * kTypeSize + characters +
           std::uint64_t{leap_seconds} * (time_size + kLeapCountSize) + standard_marks + utc_marks;
}

bool ZoneFileReader::take(std::uint64_t size, std::string_view& part) {
    if (size > rest_.size()) return false;
    part = rest_.substr(0, static_cast<std::size_t>(size));
    rest_.remove_prefix(part.size());
    return true;
}

bool ZoneFileReader::read_header(Header& header) {
    std::string_view magic;
    std::string_view version;
    std::string_view reserved;
    std::string_view counts;
    if (!take(kMagic.size(), magic) || magic != kMagic) return false;
    if (!take(1, version) || !take(kReserved, reserved) || !take(6 * sizeof(std::uint32_t), counts)) return false;
    header.version = version.front();
    for (std::uint32_t* count : {&header.utc_marks, &header.standard_marks, &header.leap_seconds, &header.changes,
                                 &header.types, &header.characters}) {
        *count = static_cast<std::uint32_t>(number_in(counts.substr(0, sizeof(std::uint32_t))));
        counts.remove_prefix(sizeof(std::uint32_t));
    }
    return header.types >= 1 && header.types <= 256;
}

bool ZoneFileReader::read_types(std::string_view records, std::string_view characters, Zone& zone) {
    for (; !records.empty(); records.remove_prefix(kTypeSize)) {
        const auto offset = static_cast<std::int32_t>(number_in(records.substr(0, 4)));
        const auto at = static_cast<unsigned char>(records[5]);
        if (offset < kLeastOffset || offset > kGreatestOffset || at >= characters.size()) return false;
        const std::string_view name = characters.substr(at);
        const std::size_t length = name.find('\0');
        if (length == std::string_view::npos) return false;
        zone.types_.push_back({offset, std::string(name.substr(0, length))});
    }
    return true;
}

bool ZoneFileReader::read_changes(std::string_view times, std::string_view types, unsigned time_size, Zone& zone) {
    for (; !types.empty(); types.remove_prefix(1), times.remove_prefix(time_size)) {
        const std::int64_t at = number_in(times.substr(0, time_size));
        const auto type = static_cast<unsigned char>(types.front());
        if (type >= zone.types_.size() || (!zone.changes_.empty() && at <= zone.changes_.back().at)) return false;
        zone.changes_.push_back({at, type});
    }
    return true;
}

// A file that counts leap seconds has its times on a clock that does; ours does not. False when that leaves the changes
// out of order, as no real ones would.
bool ZoneFileReader::take_out_leap_seconds(std::string_view records, unsigned time_size, Zone& zone) {
    std::vector<LeapSecond> leaps;
    for (; !records.empty(); records.remove_prefix(time_size + kLeapCountSize)) {
        leaps.push_back(
            {number_in(records.substr(0, time_size)), number_in(records.substr(time_size, kLeapCountSize))});
    }
    for (Zone::Change& change : zone.changes_) {
        const auto later = std::ranges::upper_bound(leaps, change.at, {}, &LeapSecond::at);
        if (later != leaps.begin() && change.at > kLongAgo) change.at -= std::prev(later)->correction;
    }
    return std::ranges::adjacent_find(zone.changes_, std::ranges::greater_equal(), &Zone::Change::at) ==
           zone.changes_.end();
}

bool ZoneFileReader::read_data(const Header& header, unsigned time_size, Zone& zone) {
    std::string_view times;
    std::string_view types;
    std::string_view records;
    std::string_view characters;
    std::string_view leaps;
    std::string_view marks;
    if (!take(std::uint64_t{header.changes} * time_size, times) || !take(header.changes, types) ||
        !take(std::uint64_t{header.types} * kTypeSize, records) || !take(header.characters, characters) ||
        !take(std::uint64_t{header.leap_seconds} * (time_size + kLeapCountSize), leaps) ||
        !take(std::uint64_t{header.standard_marks} + header.utc_marks, marks))
        return false;
    if (!read_types(records, characters, zone) || !read_changes(times, types, time_size, zone)) return false;
    return take_out_leap_seconds(leaps, time_size, zone);
}

// The line behind the data; an empty one says nothing.
bool ZoneFileReader::read_rule(Zone& zone) {
    if (!rest_.starts_with('\n')) return false;
    rest_.remove_prefix(1);
    const std::size_t end = rest_.find('\n');
    if (end == std::string_view::npos) return false;
    return end == 0 || ZoneRuleReader(rest_.substr(0, end)).read(zone);
}

bool ZoneFileReader::read(Zone& zone) {
    Header header;
    if (!read_header(header)) return false;
    if (header.version == 0) return read_data(header, 4, zone);
    // The data in 4-byte times are for readers of the first version.
    std::string_view old;
    if (!take(header.size_of_data(4), old) || !read_header(header)) return false;
    return read_data(header, 8, zone) && read_rule(zone);
}

std::optional<Zone> Zone::of_file(std::string_view bytes) {
    Zone zone;
    if (!ZoneFileReader(bytes).read(zone)) return std::nullopt;
    return zone;
}

}  // namespace zr::platform
