#pragma once

// The disk under a program's files, as a power cut would leave it. The syncs of this program's files are noted with
// what each held then: that is on the disk. Of everything that was written later any sector may have got there or not,
// so dice are thrown for each. The programs that link zr_test_disk have their fsync and fdatasync replaced.

#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <vector>

namespace zr::test {

class Disk {
public:
    static Disk& instance();

    // From now on.
    void begin() { watching_ = true; }
    // Likewise; what these files hold now is on the disk, and `moment` is called in front of each sync.
    void begin(const std::vector<std::string>& paths, std::function<void()> moment);
    int syncs(const std::string& path);
    // What is left of a file. Sectors are written whole.
    std::string after_power_cut(const std::string& path, std::mt19937& random);
    // Writes what is left of a store, the file and its journal, under the same names into another folder.
    void cut(const std::string& store, const std::string& folder, std::mt19937& random);

    void syncing();
    void synced(int file);

private:
    bool watching_ = false;
    std::function<void()> moment_;
    std::mutex mutex_;
    std::map<std::string, std::string> durable_;
    std::map<std::string, int> syncs_;
};

}  // namespace zr::test
