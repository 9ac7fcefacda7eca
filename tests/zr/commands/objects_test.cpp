#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>

#include "platform/kernel.h"
#include "support/child.h"
#include "zr/commands/tool.h"

using nlohmann::json;
using testing::ElementsAre;
using zr::test::Child;
using zr::test::lines_of;
using zr::test::Result;

namespace {

// A handle that is closed with the object.
class Held {
public:
    explicit Held(HANDLE handle) : handle_(handle) { EXPECT_NE(handle_, nullptr); }
    ~Held() { CloseHandle(handle_); }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;

private:
    HANDLE handle_;
};

HANDLE mapping(const char16_t* name, DWORD size, DWORD protection = PAGE_READWRITE) {
    return CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, protection, 0, size, name);
}

json listed() {
    return json::parse(zr::test::zr({"objects", "--json"}).out);
}

// The words of a table's line.
std::vector<std::string> words(const std::string& line) {
    std::istringstream in(line);
    return {std::istream_iterator<std::string>(in), {}};
}

}  // namespace

// Opens what the test names and says how it went.
ZR_CHILD(objects_peer) {
    const HANDLE opened = CreateMutexW(nullptr, TRUE, u"objects test mutex");
    const HANDLE event = CreateEventW(nullptr, FALSE, FALSE, u"objects test event");
    zr::test::say(opened && event ? "ready" : "failed");
    zr::test::hear();
    return 0;
}

TEST(Objects, NothingThere) {
    const Result text = zr::test::zr({"objects"});
    EXPECT_EQ(text.code, 1);
    EXPECT_EQ(text.out, "");
    EXPECT_EQ(text.err, "");
    const Result as_json = zr::test::zr({"objects", "--json"});
    EXPECT_EQ(as_json.code, 1);
    EXPECT_EQ(json::parse(as_json.out), json::array());
}

TEST(Objects, KindStateOwnerAndSize) {
    const Held set(CreateEventW(nullptr, TRUE, TRUE, u"b set"));
    const Held unset(CreateEventW(nullptr, FALSE, FALSE, u"c unset"));
    const Held free_mutex(CreateMutexW(nullptr, FALSE, u"d free"));
    const Held owned_mutex(CreateMutexW(nullptr, TRUE, u"e owned"));
    const Held region(mapping(u"a region", 5000));
    const Held fixed(mapping(u"f fixed", 1, PAGE_READONLY));
    const int self = getpid();
    const json expected = {
        {{"name", "a region"},
         {"kind", "mapping"},
         {"size", 5000},
         {"protection", "read-write"},
         {"processes", {self}}},
        {{"name", "b set"}, {"kind", "event"}, {"manual_reset", true}, {"set", true}, {"processes", {self}}},
        {{"name", "c unset"}, {"kind", "event"}, {"manual_reset", false}, {"set", false}, {"processes", {self}}},
        {{"name", "d free"}, {"kind", "mutex"}, {"owner", nullptr}, {"abandoned", false}, {"processes", {self}}},
        {{"name", "e owned"},
         {"kind", "mutex"},
         {"owner", {{"process", self}, {"thread", GetCurrentThreadId()}}},
         {"abandoned", false},
         {"processes", {self}}},
        {{"name", "f fixed"}, {"kind", "mapping"}, {"size", 1}, {"protection", "read"}, {"processes", {self}}},
    };
    EXPECT_EQ(listed(), expected);

    const Result table = zr::test::zr({"objects"});
    EXPECT_EQ(table.code, 0);
    EXPECT_EQ(table.err, "");
    const auto lines = lines_of(table.out);
    ASSERT_EQ(lines.size(), 7u) << table.out;
    const std::string process = std::to_string(self);
    const std::string owner = process + "/" + std::to_string(GetCurrentThreadId());
    EXPECT_THAT(words(lines[0]), ElementsAre("KIND", "STATE", "SIZE", "OWNER", "OPEN", "IN", "NAME"));
    EXPECT_THAT(words(lines[1]), ElementsAre("mapping", "read-write", "5000", "-", process, "a", "region"));
    EXPECT_THAT(words(lines[2]), ElementsAre("event", "set,", "manual", "-", "-", process, "b", "set"));
    EXPECT_THAT(words(lines[3]), ElementsAre("event", "not", "set,", "auto", "-", "-", process, "c", "unset"));
    EXPECT_THAT(words(lines[4]), ElementsAre("mutex", "free", "-", "-", process, "d", "free"));
    EXPECT_THAT(words(lines[5]), ElementsAre("mutex", "owned", "-", owner, process, "e", "owned"));
    EXPECT_THAT(words(lines[6]), ElementsAre("mapping", "read", "1", "-", process, "f", "fixed"));
    // The columns stand under their headings.
    for (const std::string& line : lines) {
        EXPECT_EQ(line[lines[0].find("NAME") - 1], ' ') << line;
        EXPECT_NE(line[lines[0].find("NAME")], ' ') << line;
    }
}

TEST(Objects, ProcessesThatHaveAnObjectOpen) {
    Child child("objects_peer");
    ASSERT_EQ(child.hear(), "ready");
    const Held event(CreateEventW(nullptr, FALSE, FALSE, u"objects test event"));
    const json objects = listed();
    ASSERT_EQ(objects.size(), 2u);
    EXPECT_EQ(objects[0]["name"], "objects test event");
    std::vector<int> both = {child.pid(), getpid()};
    std::sort(both.begin(), both.end());
    EXPECT_EQ(objects[0]["processes"], json(both));
    EXPECT_EQ(objects[1]["owner"]["process"], child.pid());
    EXPECT_EQ(objects[1]["processes"], json({child.pid()}));
}

TEST(Objects, ThoseOfAKilledProgramAreGone) {
    const Held mutex(CreateMutexW(nullptr, FALSE, u"objects test mutex"));
    Child child("objects_peer");
    ASSERT_EQ(child.hear(), "ready");
    ASSERT_EQ(listed().size(), 2u);
    child.kill(SIGKILL);
    child.wait();
    const json objects = listed();
    ASSERT_EQ(objects.size(), 1u);
    EXPECT_EQ(objects[0]["name"], "objects test mutex");
    EXPECT_EQ(objects[0]["processes"], json({getpid()}));
}

TEST(Objects, NamesCannotSteerATerminal) {
    const Held strange(CreateEventW(nullptr, FALSE, FALSE, u"a/b\x1b[31m\n\u202Etail"));
    const Result table = zr::test::zr({"objects"});
    const auto lines = lines_of(table.out);
    ASSERT_EQ(lines.size(), 2u) << table.out;
    EXPECT_TRUE(lines[1].ends_with("a/b\\x1b[31m\\n\\u202etail")) << lines[1];
    EXPECT_EQ(zr::test::zr({"objects", "--json"}).out.find('\x1b'), std::string::npos);
    EXPECT_EQ(listed()[0]["name"], "a/b\x1b[31m\n\u202Etail");
}

TEST(Objects, ARuntimeFolderThatIsNotOurs) {
    const std::filesystem::path folder = std::filesystem::path(getenv("XDG_RUNTIME_DIR")) / "zrutility";
    std::filesystem::remove_all(folder);
    zr::test::write_file(folder, "a file in its place");
    const Result result = zr::test::zr({"objects"});
    EXPECT_EQ(result.code, 6);
    EXPECT_TRUE(result.err.starts_with("zr: ")) << result.err;
    std::filesystem::remove(folder);
}
