#pragma once

// One watched folder: what is known to be in it, and the records of what changed.
//
// Whatever is told to it - a notification, or a listing made after notifications were lost - is applied to the known
// entries, and a record is made for exactly what that changed in them. So replaying the records over the first listing
// always gives the known entries, whichever order things came in.

#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "change_records.h"
#include "kernel/host_events.h"
#include "kernel/waitable.h"

namespace zr::platform {

class ChangeSource;

// What is known of a file or folder below a watched one.
struct KnownEntry {
    std::uint64_t inode = 0;
    std::int64_t written = 0;  // nanoseconds
    std::int64_t size = 0;
    bool folder = false;
    bool exact = false;  // `written` and `size` are those that the last record stands for
};

// A folder that the host reports on: the watched one, or with subtree one below it.
struct FolderNode {
    FolderNode* parent = nullptr;
    std::string name;
    int watch = -1;  // the source's number for it
    std::unordered_map<std::string, KnownEntry> entries;
    std::unordered_map<std::string, std::unique_ptr<FolderNode>> below;
};

class FolderWatch final : public Event {
public:
    static constexpr ObjectKind kKind = ObjectKind::FileChanges;

    FolderWatch(ChangeSource& source, std::string path, bool subtree, DWORD filter);

    // --- Called with the source's lock held, and once ended() only stop(). May throw std::bad_alloc; scan() then makes
    // good what was missed.

    // Begins to watch; a system error code.
    DWORD begin();
    // Reads everything again and records the difference. False when that must be tried again later.
    bool scan();
    void stop();
    // In a forked child: has the host report again; what is known stays so. Not after an error of the source.
    void begin_again(DWORD error) noexcept;
    bool ended() const { return end_ != 0; }
    std::string path_of(const FolderNode& folder) const;  // on the host

    void created(FolderNode& folder, std::string_view name, bool is_folder);
    void removed(FolderNode& folder, std::string_view name);
    void renamed(FolderNode& from, std::string_view old_name, FolderNode& to, std::string_view new_name,
                 bool is_folder);
    void written(FolderNode& folder, std::string_view name);
    void attributes_changed(FolderNode& folder, std::string_view name);
    // The host no longer reports on the folder, or (may_be_unreadable) its permissions changed.
    void lost(FolderNode& folder);
    // Its file system is gone: what it was mounted on shows again, another folder of the same name.
    void unmounted(FolderNode& folder);
    void may_be_unreadable(FolderNode& folder);

    // For a fork.
    std::mutex& records_lock() noexcept { return mutex_; }

    // --- Called from any thread.

    // Has the source called for each record from now on.
    void call(HostSource& source) {
        const std::lock_guard guard(mutex_);
        caller_ = &source;
    }
    // Arms the event again; a system error code when the watch has ended.
    DWORD next();
    bool keeps_records() const { return (filter_ & FILE_NOTIFY_CHANGE_CEGETINFO) != 0; }
    std::size_t take(std::span<std::byte> out, std::size_t& left);

private:
    ~FolderWatch() override = default;
    void last_handle_closed() noexcept override;

    struct Found {
        std::string name;
        KnownEntry entry;
    };

    std::string path_of(const FolderNode& folder, std::string_view name) const;
    std::string relative(const FolderNode& folder, std::string_view name) const;
    bool wants_names(bool is_folder) const;
    KnownEntry look_at(const FolderNode& folder, std::string_view name, bool is_folder) const;
    int list(const FolderNode& folder, std::vector<Found>& found) const;

    DWORD enter(FolderNode& folder, bool report);
    void report_again(FolderNode& folder);
    void enter_below(FolderNode& folder, std::string_view name, bool report);
    void leave(FolderNode& folder);
    void leave_below(FolderNode& folder, std::string_view name);
    bool scan(FolderNode& folder);
    void compare(FolderNode& folder, std::vector<Found>& found);
    void compare_entry(FolderNode& folder, const Found& now);
    void add(FolderNode& folder, std::string_view name, const KnownEntry& entry);
    void end(DWORD error);

    void record(DWORD action, const FolderNode& folder, std::string_view name);
    void tell();

    ChangeSource& source_;
    const std::string path_;
    const bool subtree_;
    const DWORD filter_;
    FolderNode root_;
    std::uint64_t inode_ = 0;  // of the watched folder
    std::uint64_t device_ = 0;

    std::mutex mutex_;  // guards what follows
    ChangeRecords records_;
    HostSource* caller_ = nullptr;
    bool armed_ = true;
    bool missed_ = false;  // something changed since the event was set
    DWORD end_ = 0;        // why nothing more will come; changed with the source's lock held as well
};

}  // namespace zr::platform
