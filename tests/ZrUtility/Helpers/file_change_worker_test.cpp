// The threads behind the monitor: what they make of each record, and when they end.

#include "ZrUtility/Helpers/file_change_worker.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstddef>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>

#include "ZrUtility/Helpers/file_monitor_support.h"
#include "platform/diagnostics.h"
#include "platform/file_changes.h"
#include "support/sandbox.h"

using namespace zr::test;

namespace {

// Records as bytes, for the workers of this program instead of those that the folder has.
class Script {
public:
    // `length` is what the record gives as its name's length; without it, the bytes.
    Script& add(DWORD action, const std::u16string& name, std::optional<DWORD> length = {}) {
        const auto bytes = static_cast<DWORD>(name.size() * sizeof(WCHAR));
        const std::size_t at = bytes_.size();
        const std::size_t head = offsetof(FILE_NOTIFY_INFORMATION, FileName);
        bytes_.resize(at + ((head + bytes + sizeof(WCHAR) + 3) & ~std::size_t{3}));
        const DWORD words[] = {0, action, length.value_or(bytes)};
        std::memcpy(bytes_.data() + at, words, sizeof words);
        std::memcpy(bytes_.data() + at + head, name.data(), bytes);
        if (last_) {
            const auto offset = static_cast<DWORD>(at - *last_);
            std::memcpy(bytes_.data() + *last_, &offset, sizeof offset);
        }
        last_ = at;
        return *this;
    }
    const std::vector<char>& bytes() const { return bytes_; }

private:
    std::vector<char> bytes_;
    std::optional<std::size_t> last_;
};

std::mutex g_mutex;
// For the next two calls: one asks for the size, one reads. Workers may look as long as the process lives.
std::optional<Script>& g_script = *new std::optional<Script>;

std::size_t scripted(LPVOID buffer, DWORD size) {
    const std::lock_guard guard(g_mutex);
    if (!g_script) return 0;
    const std::vector<char> bytes = g_script->bytes();
    if (buffer && size >= bytes.size()) {
        std::memcpy(buffer, bytes.data(), bytes.size());
        g_script.reset();
    }
    return bytes.size();
}

// A sink that counts records by line, and holds a worker where its wait has just ended.
class Gate {
public:
    Gate() { zrLogSetSink(sink, this); }
    ~Gate() { zrLogSetSink(nullptr, nullptr); }
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;

    int count(int line) {
        const std::lock_guard guard(mutex_);
        return counts_[line];
    }
    void open() {
        const std::lock_guard guard(mutex_);
        open_ = true;
        changed_.notify_all();
    }

private:
    static void sink(const ZrLogRecord& record, void* context) {
        auto* const gate = static_cast<Gate*>(context);
        if (std::strcmp(record.source, kMonitorSource) != 0) return;
        std::unique_lock guard(gate->mutex_);
        ++gate->counts_[record.line];
        if (record.line == 133) gate->changed_.wait(guard, [gate] { return gate->open_; });
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<int, int> counts_;
    bool open_ = false;
};

// A monitor with one folder that is watched by now.
class Watching {
public:
    Watching() : directory(folder.handheld()) {
        WCHAR* directories[] = {directory.data()};
        EXPECT_EQ(monitor.Initialize(&notebook, directories, 1, nullptr, 0), 1);
        pump(kSoon, [&] {
            write_file(folder.host() / "begin");
            return !notebook.told.empty();
        });
        std::filesystem::remove(folder.host() / "begin");
        const std::u16string gone = u"-" + directory + u"\\begin";
        pump(kSoon, [&] { return notebook.told.back() == gone; });
        notebook.told.clear();
    }

    Told told_of(const Script& script) {
        {
            const std::lock_guard guard(g_mutex);
            g_script = script;
        }
        write_file(folder.host() / "cause");  // its own record is left for after the script's
        const std::u16string end = u"+" + directory + u"\\cause";
        pump(kSoon, [&] { return !notebook.told.empty() && notebook.told.back() == end; });
        notebook.told.pop_back();
        return notebook.told;
    }
    std::u16string path(const WCHAR* name) const { return directory + u"\\" + name; }

    const TempFolder folder;
    std::u16string directory;
    Notebook notebook;
    FileSystemMonitor monitor;
};

}  // namespace

// Stands before the platform's own for everything in this program.
__attribute__((visibility("default"))) BOOL CeGetFileNotificationInfo(HANDLE changes, DWORD flags, LPVOID buffer,
                                                                      DWORD size, LPDWORD returned, LPDWORD available) {
    if (const std::size_t bytes = scripted(buffer, size)) {
        if (returned) *returned = buffer ? static_cast<DWORD>(bytes) : 0;
        if (available) *available = buffer ? 0 : static_cast<DWORD>(bytes);
        return TRUE;
    }
    static const auto own = reinterpret_cast<decltype(&CeGetFileNotificationInfo)>(
        dlsym(RTLD_NEXT, "_Z25CeGetFileNotificationInfoPvjS_jPjS0_"));
    return own(changes, flags, buffer, size, returned, available);
}

TEST(FileChangeWorker, SendsOneMessagePerRecord) {
    Watching world;
    LogCapture log;
    const Script script = Script()
                              .add(FILE_ACTION_ADDED, u"a")
                              .add(FILE_ACTION_REMOVED, u"b")
                              .add(FILE_ACTION_MODIFIED, u"c")
                              .add(FILE_ACTION_RENAMED_OLD_NAME, u"d")
                              .add(FILE_ACTION_RENAMED_NEW_NAME, u"e");
    EXPECT_EQ(world.told_of(script), (Told{u"+" + world.path(u"a"), u"-" + world.path(u"b"), u"*" + world.path(u"c"),
                                           world.path(u"d") + u">" + world.path(u"e")}));
    std::vector<std::pair<int, std::uint32_t>> worker;
    for (const LoggedRecord& each : log.records()) {
        if (each.source == kMonitorSource && each.line < 243) worker.emplace_back(each.line, each.category);
    }
    worker.resize(11);  // then comes what caused the look
    EXPECT_EQ(worker, (std::vector<std::pair<int, std::uint32_t>>{{133, 0x180020},
                                                                  {139, 0x180020},
                                                                  {160, 0x180020},
                                                                  {172, 0x180010},
                                                                  {160, 0x180020},
                                                                  {175, 0x180010},
                                                                  {160, 0x180020},
                                                                  {178, 0x180010},
                                                                  {160, 0x180020},
                                                                  {160, 0x180020},
                                                                  {212, 0x180010}}));
}

TEST(FileChangeWorker, ANewNameWithoutAnOldOneIsPassedOver) {
    Watching world;
    LogCapture log;
    const Script script = Script()
                              .add(FILE_ACTION_RENAMED_NEW_NAME, u"a")
                              .add(FILE_ACTION_RENAMED_OLD_NAME, u"b")
                              .add(FILE_ACTION_RENAMED_NEW_NAME, u"c")
                              .add(FILE_ACTION_RENAMED_NEW_NAME, u"d");
    EXPECT_EQ(world.told_of(script), (Told{world.path(u"b") + u">" + world.path(u"c")}));
    EXPECT_EQ(lines(log, 204), 2);
    EXPECT_EQ(record(log.records(), 204)->category, 0x180008u);
}

TEST(FileChangeWorker, AnOldNameIsKeptUntilItsNewOneComes) {
    Watching world;
    const Script script = Script()
                              .add(FILE_ACTION_RENAMED_OLD_NAME, u"first")
                              .add(FILE_ACTION_RENAMED_OLD_NAME, u"old")
                              .add(FILE_ACTION_ADDED, u"between")
                              .add(FILE_ACTION_RENAMED_NEW_NAME, u"new");
    EXPECT_EQ(world.told_of(script),
              (Told{u"+" + world.path(u"between"), world.path(u"old") + u">" + world.path(u"new")}));
}

TEST(FileChangeWorker, OtherActionsAreIgnored) {
    Watching world;
    EXPECT_EQ(world.told_of(Script().add(0, u"a").add(6, u"b").add(0xFFFFFFFF, u"c").add(FILE_ACTION_ADDED, u"d")),
              (Told{u"+" + world.path(u"d")}));
}

TEST(FileChangeWorker, ANamesLengthCountsCharacters) {
    Watching world;
    EXPECT_EQ(world.told_of(Script().add(FILE_ACTION_ADDED, u"abcdef", 4).add(FILE_ACTION_ADDED, u"xyz", 0xFFFFFFFF)),
              (Told{u"+" + world.path(u"abcd"), u"+" + world.path(u"xyz")}));
}

TEST(FileChangeWorker, EndsWhenItsWaitFails) {
    const LONGLONG handles = ZrLiveObjects(ZrLiveKind::Handles);
    LogCapture log;
    Notebook notebook;
    FileSystemMonitor monitor;
    ASSERT_EQ(monitor.Initialize(&notebook, nullptr, 0, nullptr, 0), 1);
    pump(kSoon, [&] { return ZrLiveObjects(ZrLiveKind::Handles) == handles && lines(log, 243) == 1; });
    const auto records = log.records();
    EXPECT_EQ(record(records, 105)->category, 0x180010u);
    EXPECT_EQ(record(records, 110)->category, 0x180004u);
    EXPECT_EQ(record(records, 243)->category, 0x180010u);
    EXPECT_EQ(record(records, 133)->arguments, std::vector<std::uintptr_t>{WAIT_FAILED});
}

TEST(FileChangeWorker, StaysWhenItsWaitFailsWithQuitWaiting) {
    Gate gate;
    Notebook notebook;
    {
        FileSystemMonitor monitor;
        ASSERT_EQ(monitor.Initialize(&notebook, nullptr, 0, nullptr, 0), 1);
        pump(kSoon, [&] { return gate.count(133) == 1; });
    }
    gate.open();
    FileSystemMonitor monitor;
    ASSERT_EQ(monitor.Initialize(&notebook, nullptr, 0, nullptr, 0), 1);
    pump(kSoon, [&] { return gate.count(243) > 0; });
    EXPECT_EQ(gate.count(105), 2);
    EXPECT_EQ(gate.count(243), 1);  // the second one's
    EXPECT_EQ(gate.count(133), 2);  // and the first does not go round and round
}

TEST(FileChangeWorker, OutlivesItsMonitorWithoutEffect) {
    LogCapture log;
    const TempFolder folder;
    Notebook notebook;
    const auto created = [&] { return lines(log, 172); };
    {
        std::u16string directory = folder.handheld();
        WCHAR* directories[] = {directory.data()};
        FileSystemMonitor monitor;
        ASSERT_EQ(monitor.Initialize(&notebook, directories, 1, nullptr, 0), 1);
        int round = 0;
        pump(kSoon, [&] {
            write_file(folder.host() / std::to_string(round++));
            return created() > 0;
        });
    }
    notebook.told.clear();
    const int before = created();
    write_file(folder.host() / "after");
    write_file(folder.host() / "later");
    pump(kSoon, [&] { return created() >= before + 2; });
    EXPECT_EQ(notebook.told, Told());
    EXPECT_EQ(lines(log, 243), 0);
    EXPECT_LT(lines(log, 133), 1000);  // it waits, although there is a message that nobody takes
}
