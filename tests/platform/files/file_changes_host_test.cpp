// Watched folders where the host takes them away or has no room for them. Each child lives in namespaces of its own, so
// that it may mount, and set limits that hold for nobody else.

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <ctime>
#include <fstream>

#include "files_support.h"
#include "platform/file_changes.h"
#include "platform/files/file_changes_support.h"
#include "support/child.h"

namespace fs = std::filesystem;
using namespace zr::test;

namespace {

bool put(const char* file, const std::string& text) {
    std::ofstream out(file);
    out << text << std::flush;
    return out.good();
}

// The administrator of a small world. False where the host does not let anybody be that.
bool enter_namespaces() {
    const uid_t user = getuid();
    const gid_t group = getgid();
    return unshare(CLONE_NEWUSER | CLONE_NEWNS) == 0 && put("/proc/self/uid_map", "0 " + std::to_string(user) + " 1") &&
           put("/proc/self/setgroups", "deny") && put("/proc/self/gid_map", "0 " + std::to_string(group) + " 1") &&
           mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

std::u16string wide(const std::string& text) {
    return {text.begin(), text.end()};
}

HANDLE watch(const std::u16string& path, BOOL subtree = FALSE) {
    return FindFirstChangeNotificationW(path.c_str(), subtree, kNames | FILE_NOTIFY_CHANGE_CEGETINFO);
}

// The names that are added ("+") and removed ("-") until nothing more is to come, or `last` has been told.
std::string told(HANDLE changes, const std::string& last = {}) {
    std::string all;
    while (WaitForSingleObject(changes, kSoon) == WAIT_OBJECT_0) {
        DWORD size = 0;
        CeGetFileNotificationInfo(changes, 0, nullptr, 0, nullptr, &size);
        std::vector<DWORD> words(size / sizeof(DWORD) + 1);
        CeGetFileNotificationInfo(changes, 0, words.data(), size, &size, nullptr);
        for (const char* at = reinterpret_cast<const char*>(words.data()); size != 0;) {
            const auto& record = *reinterpret_cast<const FILE_NOTIFY_INFORMATION*>(at);
            const std::u16string name = record.FileName;
            all += record.Action == FILE_ACTION_ADDED ? " +" : " -";
            all.append(name.begin(), name.end());
            if (record.NextEntryOffset == 0) break;
            at += record.NextEntryOffset;
        }
        if (!FindNextChangeNotification(changes)) return all + " end " + std::to_string(GetLastError());
        if (!last.empty() && all.ends_with(last)) return all;
    }
    return all + " nothing";
}

// Runs a child below a folder of its own; what it says in the end.
std::string said_by(const char* child) {
    const TempFolder folder;
    fs::create_directories(folder.host() / "disk");
    const std::u16string handheld = folder.handheld();
    Child process(child, {folder.host().string(), std::string(handheld.begin(), handheld.end())});
    const std::string said = process.hear();
    EXPECT_EQ(process.wait(), 0);
    return said;
}

#define SAID_BY(child, text)                                                          \
    const std::string text = said_by(child);                                          \
    if ((text) == "not here") GTEST_SKIP() << "the host has no namespaces for users"; \
    static_assert(true)

bool mount_disk(const std::string& folder) {
    return mount("none", (folder + "/disk").c_str(), "tmpfs", 0, nullptr) == 0;
}

}  // namespace

ZR_CHILD(unmounted) {
    if (!enter_namespaces() || !mount_disk(args.at(0))) return say("not here"), 0;
    fs::create_directory(args[0] + "/disk/sub");
    const HANDLE top = watch(wide(args.at(1)) + u"\\disk");
    const HANDLE below = watch(wide(args.at(1)) + u"\\disk\\sub");
    if (umount((args[0] + "/disk").c_str()) != 0) return say("busy"), 0;
    std::string text = told(top) + told(below);
    const std::clock_t before = std::clock();
    WaitForSingleObject(top, 200);
    if (std::clock() - before > CLOCKS_PER_SEC / 20) text += " spins";
    say(text);
    return 0;
}

TEST(FileChangesOnTheHost, AnUnmountedFolderEndsTheWatch) {
    SAID_BY("unmounted", said);
    EXPECT_EQ(said, " end 3 end 3");
}

ZR_CHILD(unmounted_below) {
    if (!enter_namespaces()) return say("not here"), 0;
    std::ofstream(args.at(0) + "/disk/under");
    if (!mount_disk(args[0])) return say("not here"), 0;
    std::ofstream(args[0] + "/disk/over");
    const HANDLE all = watch(wide(args.at(1)), TRUE);
    if (umount((args[0] + "/disk").c_str()) != 0) return say("busy"), 0;
    std::string text = told(all, "+disk\\under");
    std::ofstream(args[0] + "/disk/new");
    say(text + told(all, "+disk\\new"));
    return 0;
}

TEST(FileChangesOnTheHost, AFolderUnmountedBelowShowsWhatItWasMountedOn) {
    SAID_BY("unmounted_below", said);
    EXPECT_EQ(said, " -disk +disk +disk\\under +disk\\new");
}

ZR_CHILD(short_of_watches) {
    if (!enter_namespaces() || !put("/proc/sys/user/max_inotify_watches", "2")) return say("not here"), 0;
    fs::create_directory(args.at(0) + "/other");
    fs::create_directory(args[0] + "/third");
    const std::u16string root = wide(args.at(1));
    const HANDLE first = watch(root + u"\\disk");
    const HANDLE second = watch(root + u"\\other");
    SetLastError(0);
    const HANDLE third = watch(root + u"\\third");
    std::string text = third == INVALID_HANDLE_VALUE ? "error " + std::to_string(GetLastError()) : "watched";
    FindCloseChangeNotification(second);
    const HANDLE again = watch(root + u"\\third");
    text += again != INVALID_HANDLE_VALUE ? " then not" : " still";
    std::ofstream(args[0] + "/disk/file");
    say(text + told(first, "+file"));
    return 0;
}

TEST(FileChangesOnTheHost, NoRoomForAWatch) {
    SAID_BY("short_of_watches", said);
    EXPECT_EQ(said, "error 1450 then not +file");
}

ZR_CHILD(subtree_short_of_watches) {
    if (!enter_namespaces() || !put("/proc/sys/user/max_inotify_watches", "3")) return say("not here"), 0;
    const HANDLE all = watch(wide(args.at(1)), TRUE);  // takes two
    fs::create_directory(args.at(0) + "/a");
    const std::string third = told(all, "+a");
    fs::create_directory(args[0] + "/b");
    say(third + told(all));
    return 0;
}

TEST(FileChangesOnTheHost, NoRoomForAFolderBelowEndsTheWatch) {
    SAID_BY("subtree_short_of_watches", said);
    EXPECT_EQ(said, " +a +b end 1450");
}

ZR_CHILD(short_of_descriptors) {
    if (!enter_namespaces() || !put("/proc/sys/user/max_inotify_instances", "0")) return say("not here"), 0;
    const std::u16string path = wide(args.at(1));
    SetLastError(0);
    std::string text = watch(path) == INVALID_HANDLE_VALUE ? "error " + std::to_string(GetLastError()) : "watched";
    if (!put("/proc/sys/user/max_inotify_instances", "1")) return say("not here"), 0;
    say(text + (watch(path) != INVALID_HANDLE_VALUE ? " then not" : " still"));
    return 0;
}

TEST(FileChangesOnTheHost, NoDescriptorForAnyWatch) {
    SAID_BY("short_of_descriptors", said);
    EXPECT_EQ(said, "error 4 then not");
}
