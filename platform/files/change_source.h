#pragma once

// The process's one inotify descriptor, read on the host's thread for all watched folders and files.

#include <sys/inotify.h>

#include <atomic>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "kernel/host_events.h"
#include "platform/types.h"

namespace zr::platform {

class FileWatch;
class FolderWatch;
struct FolderNode;

class ChangeSource final : public HostSource {
public:
    // Never destroyed.
    static ChangeSource& instance() noexcept;

    // Before the first folder is watched; the descriptor and the thread stay from then on. An error code when the host
    // does not give them.
    DWORD begin();

    // Guards every watch's knowledge and what follows.
    std::mutex& lock() { return mutex_; }

    void add(FolderWatch& watch) { watches_.insert(&watch); }
    void remove(FolderWatch& watch) noexcept;  // takes the lock

    // Files; these take the lock. Without a folder that was ever watched, descriptor and thread go with the last one.
    DWORD add(FileWatch& watch);
    void remove(FileWatch& watch) noexcept;
    // For a file: the number of a folder whose events are told to the files that have a place there, or -1 with errno.
    int watch_folder(const std::string& folder, std::uint32_t events) noexcept;
    void stop_watching(int watch) noexcept;

    // Reports on the host folder `path` go to `node` of `watch`. Sets node.watch; a system error code.
    DWORD report(const std::string& path, FolderWatch& watch, FolderNode& node);
    void stop_reporting(FolderWatch& watch, FolderNode& node) noexcept;

    // At a fork. A child reads nothing from the descriptor, which is its parent's as well; when it resumes, it has the
    // host report to a new one and looks for what happened meanwhile.
    void lock_all() noexcept;
    void unlock_all() noexcept;
    void begin_child() noexcept;
    void resume() noexcept;

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

    void ready() noexcept override;
    DWORD open() noexcept;
    void close() noexcept;
    void report_again();
    void gather() const noexcept;
    void retry_later() noexcept;
    bool has_place(int watch) const noexcept;

    void read_batch();
    bool read_events();
    bool append_events(std::vector<char>& bytes);
    void read_ahead();
    void parse();
    void pair_renames();
    bool settle(std::unordered_set<std::uint32_t>& settled);
    std::string path_of(int watch);
    void dispatch();
    void dispatch(const HostEvent& event);
    void tell_files(const HostEvent& event) noexcept;
    static void tell(const Target& target, const HostEvent& event);
    void move(const HostEvent& from, const HostEvent& to);
    void discard_queue();
    void scan_all() noexcept;
    Target target_at(int watch, std::size_t place) const;  // no watch: there is none
    FolderNode* node_of(int watch, const FolderWatch& owner) const;

    std::mutex life_;  // guards what opens and closes the descriptor; taken before the other one
    bool stays_ = false;
    std::atomic<int> inotify_{-1};

    std::mutex mutex_;
    bool inherited_ = false;  // the watches are those of this process's parent, and nothing is reported
    std::unordered_map<int, std::vector<Target>> targets_;
    std::unordered_set<FolderWatch*> watches_;
    std::vector<FileWatch*> files_;
    bool scan_again_ = false;  // something was lost, and not all could be scanned yet

    // Of the thread alone.
    std::vector<char> buffer_;
    std::size_t filled_ = 0;
    std::list<std::vector<char>> ahead_;  // batches that came while one before was told
    std::vector<HostEvent> events_;
};

}  // namespace zr::platform
