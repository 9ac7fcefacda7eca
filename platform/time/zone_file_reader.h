#pragma once

// Reads the bytes of a zone file, tzfile(5).

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

#include "time/zone.h"

namespace zr::platform {

class ZoneFileReader {
public:
    explicit ZoneFileReader(std::string_view bytes) : rest_(bytes) {}

    // False when the bytes are no zone file; the zone is then in some state.
    bool read(Zone& zone);

private:
    struct Header {
        char version = 0;
        std::uint32_t utc_marks = 0;
        std::uint32_t standard_marks = 0;
        std::uint32_t leap_seconds = 0;
        std::uint32_t changes = 0;
        std::uint32_t types = 0;
        std::uint32_t characters = 0;

        std::uint64_t size_of_data(unsigned time_size) const;
    };
    struct LeapSecond {
        std::int64_t at;
        std::int64_t correction;
    };

    bool take(std::uint64_t size, std::string_view& part);
    bool read_header(Header& header);
    bool read_data(const Header& header, unsigned time_size, Zone& zone);
    static bool read_types(std::string_view records, std::string_view characters, Zone& zone);
    static bool read_changes(std::string_view times, std::string_view types, unsigned time_size, Zone& zone);
    static bool take_out_leap_seconds(std::string_view records, unsigned time_size, Zone& zone);
    bool read_rule(Zone& zone);

    std::string_view rest_;
};

}  // namespace zr::platform
