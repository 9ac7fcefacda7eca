#pragma once

// Changes of the time that a test makes: the clock is pretended to be set, and the zone is that of a file of the test's
// own. Processes that are started later see the same.

#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include "support/sandbox.h"

namespace zr::test {

class TimeChanges {
public:
    TimeChanges() : folder_(sandbox() / "time") {
        std::filesystem::create_directories(folder_);
        make_zone("First");
        link_zone("First");
        setenv("ZR_ZONE_FILE", zone_file().c_str(), 1);
        setenv("ZR_CLOCK_CHANGES", clock_file().c_str(), 1);
    }

    // Those of the process that started this one.
    static TimeChanges of_parent() { return TimeChanges(sandbox() / "time"); }

    // The clock was set.
    void set_clock() const { std::ofstream(clock_file()) << "set"; }

    // A file that looks like zone data, or has been handed real data.
    void make_zone(const std::string& name, const std::string& data = {}) const {
        std::ofstream(folder_ / name, std::ios::binary) << (data.empty() ? "TZif2" + name + "\n" : data);
    }
    // Puts a link to such a file into the zone file's place, at one stroke.
    void link_zone(const std::string& name) const {
        const std::filesystem::path fresh = folder_ / "localtime.new";
        std::filesystem::create_symlink(name, fresh);
        std::filesystem::rename(fresh, zone_file());
    }
    void set_zone(const std::string& name) const {
        make_zone(name);
        link_zone(name);
    }

    std::filesystem::path folder() const { return folder_; }
    std::filesystem::path zone_file() const { return folder_ / "localtime"; }
    std::filesystem::path clock_file() const { return folder_ / "clock"; }

private:
    explicit TimeChanges(std::filesystem::path folder) : folder_(std::move(folder)) {}

    std::filesystem::path folder_;
};

}  // namespace zr::test
