// A store and whoever else is on the computer: a lock that is kept, another ZR_HOME.

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "platform/pim/session_support.h"
#include "platform/registry/registry_support.h"
#include "support/child.h"
#include "support/sandbox.h"

namespace {

using namespace zr::test;
namespace fs = std::filesystem;

// The name of the process that keeps the registry locked, as the failing call says it.
ZR_CHILD(meets_a_lock) {
    HKEY key = nullptr;
    const LONG result = RegCreateKeyExW(HKEY_CURRENT_USER, u"key", 0, nullptr, 0, 0, nullptr, &key, nullptr);
    const std::u16string said = ZrRegistryLastErrorText();
    say(std::to_string(result) + " " + std::string(said.begin(), said.end()));
    return 0;
}

TEST(StoreLock, IsWaitedForWithALimitAndSaysWhoKeepsIt) {
    fs::remove_all(sandbox_home());
    fs::create_directories(sandbox_home());
    const int lock = open((sandbox_home() / "registry.db.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    ASSERT_GE(lock, 0);
    ASSERT_EQ(flock(lock, LOCK_EX), 0);
    Child child("meets_a_lock");
    const std::string said = child.hear();
    EXPECT_EQ(child.wait(), 0);
    EXPECT_TRUE(said.starts_with(std::to_string(ERROR_BUSY) + " ")) << said;
    EXPECT_NE(said.find(": process " + std::to_string(getpid()) + " keeps it locked."), std::string::npos) << said;
    close(lock);
    Child later("meets_a_lock");
    EXPECT_EQ(later.hear(), "0 ");
    EXPECT_EQ(later.wait(), 0);
}

// Who has joined a store keeps it; who joins later looks at the variable then.
ZR_CHILD(changes_its_home) {
    const fs::path second = sandbox_home() / "second";
    if (set_dword(create(HKEY_CURRENT_USER, u"key"), u"value", 1) != kOk) return 1;
    if (setenv("ZR_HOME", second.c_str(), 1) != 0) return 2;
    const Key key = create(HKEY_CURRENT_USER, u"key");
    if (get_dword(key, u"value") != 1 || set_dword(key, u"value", 2) != kOk) return 3;
    const TestSession session;
    if (session.logon != S_OK) return 4;
    if (fs::exists(second / "registry.db") || !fs::exists(second / "pim.db")) return 5;
    if (setenv("ZR_HOME", sandbox_home().c_str(), 1) != 0) return 6;
    // A session that is logged on stays where it is.
    const auto made = session.fresh();
    made->put_LastName(in(u"second"));
    if (made->Save() != S_OK) return 7;
    return fs::exists(sandbox_home() / "pim.db") ? 8 : 0;
}
ZR_CHILD(reads_its_home) {
    return get_dword(create(HKEY_CURRENT_USER, u"key"), u"value") == 2 ? 0 : 1;
}

TEST(StoreHome, IsKeptByWhoHasJoinedAStore) {
    fs::remove_all(sandbox_home());
    fs::create_directories(sandbox_home());
    EXPECT_EQ(Child("changes_its_home").wait(), 0);
    EXPECT_EQ(Child("reads_its_home").wait(), 0);
}

}  // namespace
