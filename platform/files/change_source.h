#pragma once

// The process's one inotify descriptor and the thread that reads it for all watched folders.

#include <sys/inotify.h>

#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/types.h"

namespace zr::platform {

class FolderWatch;
struct FolderNode;

class ChangeSource {
public:
    // Made at the first use, and stays: its thread may run as long as the process. Null with `error` set when the host
    // gives no descriptor or thread.
    static ChangeSource* get(DWORD& error);

    // Guards every FolderWatch's knowledge and what follows.
    std::mutex& lock() { return mutex_; }

    void add(FolderWatch& watch) { watches_.insert(&watch); }
    void remove(FolderWatch& watch) noexcept;

    // Reports on the host folder `path` go to `node` of `watch`. Sets node.watch; a system error code.
    DWORD report(const std::string& path, FolderWatch& watch, FolderNode& node);
    void stop_reporting(FolderWatch& watch, FolderNode& node) noexcept;

private:
    struct Target {
        FolderWatch* watch;
        FolderNode* node;
    };
    struct HostEvent {
        int watch;
        std::uint32_t mask;
        std::uint32_t cookie;
        std::string_view name;
        const HostEvent* partner = nullptr;  // the other half of a rename
    };

    ChangeSource(int inotify) : inotify_(inotify) {}

    void run() noexcept;
    void read_batch();
    bool read_events();
    void parse();
    void pair_renames();
    bool settle(std::unordered_set<std::uint32_t>& settled);
    std::string path_of(int watch);
    void dispatch();
    void dispatch(const HostEvent& event);
    static void tell(const Target& target, const HostEvent& event);
    void move(const HostEvent& from, const HostEvent& to);
    void discard_queue();
    void scan_all() noexcept;
    Target target_at(int watch, std::size_t place) const;  // no watch: there is none
    FolderNode* node_of(int watch, const FolderWatch& owner) const;

    const int inotify_;
    std::mutex mutex_;
    std::unordered_map<int, std::vector<Target>> targets_;
    std::unordered_set<FolderWatch*> watches_;
    bool scan_again_ = false;  // something was lost, and not all could be scanned yet

    // Of the thread alone.
    std::vector<char> buffer_;
    std::size_t filled_ = 0;
    std::vector<HostEvent> events_;
};

}  // namespace zr::platform
