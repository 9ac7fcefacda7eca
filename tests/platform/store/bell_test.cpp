// Bells that somebody removes, renames or empties while they are in use.

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/kernel.h"
#include "platform/registry/registry_support.h"
#include "store/bell.h"
#include "support/child.h"
#include "support/sandbox.h"

namespace {

using namespace zr::test;
using zr::platform::Bell;
namespace fs = std::filesystem;

fs::path bell_of_registry() {
    return sandbox_home() / "registry.db.bell";
}

// What may happen to a file that nobody guards.
const std::vector<std::function<void(const fs::path&)>>& mishaps() {
    static const std::vector<std::function<void(const fs::path&)>> all = {
        [](const fs::path& path) { fs::remove(path); },
        [](const fs::path& path) {
            fs::rename(path, path.string() + ".away");
            fs::remove(path.string() + ".away");
        },
        [](const fs::path& path) { fs::resize_file(path, 0); },
        [](const fs::path& path) { fs::resize_file(path, 1000000); },
        [](const fs::path& path) {
            fs::copy_file(path, path.string() + ".copy");
            fs::rename(path.string() + ".copy", path);
        },
    };
    return all;
}

TEST(Bell, APlaceIsTakenAnewWhereTheFileWasRemoved) {
    const std::string store = sandbox() / "a store";
    for (const auto& mishap : mishaps()) {
        Bell mine;
        ASSERT_EQ(mine.make(store), 0);
        ASSERT_EQ(mine.set_position(50), 0);
        mishap(mine.path());
        Bell another;
        ASSERT_EQ(another.make(store), 0);
        ASSERT_EQ(another.set_position(70), 0);
        ASSERT_EQ(mine.set_position(60), 0);
        EXPECT_EQ(another.oldest_position(1000), 60);
        EXPECT_EQ(mine.oldest_position(1000), 60);
        another.give_up();
        mine.give_up();
        EXPECT_EQ(mine.oldest_position(1000), 1000);
        fs::remove(mine.path());
    }
}

// Tells of each change of the key that it is told of, and makes one when it is asked to.
ZR_CHILD(one_that_watches) {
    const Key key = create(HKEY_CURRENT_USER, u"watched");
    HANDLE changes = CeFindFirstRegChange(key, FALSE, REG_NOTIFY_CHANGE_LAST_SET);
    if (changes == INVALID_HANDLE_VALUE) return 1;
    say("ready");
    for (std::string line = hear(); !line.empty(); line = hear()) {
        const auto number = static_cast<DWORD>(std::stoul(line.substr(1)));
        if (line[0] == '+' && set_dword(key, u"number", number) != kOk) return 2;
        do {
            if (WaitForSingleObject(changes, 30000) != WAIT_OBJECT_0) return 3;
            if (!CeFindNextRegChange(changes)) return 4;
        } while (get_dword(key, u"number") != number);
        say("seen");
    }
    CeFindCloseRegChange(changes);
    return 0;
}

TEST(Bell, ProcessesHearOfEachOtherWhateverBecomesOfIt) {
    std::vector<std::unique_ptr<Child>> children;
    for (int i = 0; i < 3; ++i) {
        children.push_back(std::make_unique<Child>("one_that_watches"));
        ASSERT_EQ(children.back()->hear(), "ready");
    }
    int number = 0;
    for (int round = 0; round < 20; ++round) {
        if (round > 0) mishaps()[static_cast<std::size_t>(round) % mishaps().size()](bell_of_registry());
        ++number;
        for (std::size_t i = 0; i < children.size(); ++i) {
            const bool writes = i == static_cast<std::size_t>(round) % children.size();
            if (!writes) children[i]->say("=" + std::to_string(number));
        }
        children[static_cast<std::size_t>(round) % children.size()]->say("+" + std::to_string(number));
        for (auto& child : children) {
            ASSERT_EQ(child->hear(), "seen") << "round " << round;
        }
    }
}

}  // namespace
