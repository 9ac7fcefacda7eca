// Several threads and several processes at once.

#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "registry_support.h"
#include "support/child.h"
#include "support/forked.h"
#include "support/instrumented.h"

namespace {

using namespace zr::test;
using Names = std::vector<std::u16string>;

void in_threads(int count, const std::function<void(int)>& body) {
    std::vector<std::thread> threads;
    for (int i = 0; i < count; ++i) {
        threads.emplace_back(body, i);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

std::u16string numbered(const char16_t* prefix, int number) {
    std::u16string name = prefix;
    for (const char digit : std::to_string(number)) {
        name += static_cast<char16_t>(digit);
    }
    return name;
}

TEST(Threads, EachFindWhatTheyHaveWritten) {
    in_threads(4, [](int number) {
        const Key own = create(HKEY_CURRENT_USER, numbered(u"threads\\own", number));
        const Key common = create(HKEY_CURRENT_USER, u"threads\\common");
        for (DWORD i = 0; i < 60; ++i) {
            ASSERT_EQ(set_dword(own, u"v", i), kOk);
            EXPECT_EQ(get_dword(own, u"v"), i);
            ASSERT_EQ(set_dword(common, numbered(u"v", number), i), kOk);
            EXPECT_EQ(get_dword(common, numbered(u"v", number)), i);
            create(common, numbered(u"k", number));
            ASSERT_EQ(RegDeleteKeyW(common, numbered(u"k", number).c_str()), kOk);
        }
    });
    const Key common = create(HKEY_CURRENT_USER, u"threads\\common");
    EXPECT_EQ(value_names(common), (Names{u"v0", u"v1", u"v2", u"v3"}));
    EXPECT_EQ(sub_keys(common), Names{});
}

TEST(Threads, NeverReadHalfAValue) {
    const Key key = create(HKEY_CURRENT_USER, u"whole");
    ASSERT_EQ(set(key, u"v", REG_BINARY, std::string(5000, 'a')), kOk);
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int i = 0; i < 200; ++i) {
            EXPECT_EQ(set(key, u"v", REG_BINARY, std::string(5000, static_cast<char>('a' + i % 26))), kOk);
        }
        done = true;
    });
    while (!done) {
        std::string bytes(5000, '\0');
        auto size = static_cast<DWORD>(bytes.size());
        EXPECT_EQ(RegQueryValueExW(key, u"v", nullptr, nullptr, reinterpret_cast<BYTE*>(bytes.data()), &size), kOk);
        EXPECT_EQ(bytes, std::string(5000, bytes[0]));
    }
    writer.join();
}

TEST(Threads, OneOfManyMakesAKey) {
    for (int round = 0; round < 10; ++round) {
        std::atomic<int> made{0};
        in_threads(4, [&](int) {
            DWORD disposition = 0;
            create(HKEY_CURRENT_USER, numbered(u"race", round), &disposition);
            if (disposition == REG_CREATED_NEW_KEY) ++made;
        });
        EXPECT_EQ(made, 1);
    }
}

TEST(Threads, CloseAHandleOnce) {
    for (int round = 0; round < 50; ++round) {
        HKEY key = nullptr;
        ASSERT_EQ(RegCreateKeyExW(HKEY_CURRENT_USER, u"close", 0, nullptr, 0, 0, nullptr, &key, nullptr), kOk);
        std::atomic<int> closed{0};
        in_threads(3, [&](int) {
            DWORD size = 0;
            RegQueryValueExW(key, u"v", nullptr, nullptr, nullptr, &size);
            if (RegCloseKey(key) == kOk) ++closed;
        });
        EXPECT_EQ(closed, 1);
    }
}

// Writes on a line from the parent; tells how the first call went.
ZR_CHILD(registry_writer) {
    const auto number = std::stoi(args[0]);
    say("ready");
    hear();
    DWORD disposition = 0;
    const Key common = create(HKEY_LOCAL_MACHINE, u"processes\\common", &disposition);
    for (DWORD i = 0; i < 100; ++i) {
        if (set_dword(common, numbered(u"v", number), i) != kOk) return 2;
        if (get_dword(common, numbered(u"v", number)) != i) return 3;
        create(common, numbered(u"key", number) + u"\\lower");
        if (i % 2 == 1 && RegDeleteKeyW(common, numbered(u"key", number).c_str()) != kOk) return 4;
    }
    return disposition == REG_CREATED_NEW_KEY ? 100 : 0;
}

TEST(Processes, WriteAtTheSameTime) {
    std::vector<std::unique_ptr<Child>> children;
    for (int i = 0; i < 3; ++i) {
        children.push_back(std::make_unique<Child>("registry_writer", std::vector<std::string>{std::to_string(i)}));
    }
    for (const auto& child : children) {
        ASSERT_EQ(child->hear(), "ready");
    }
    for (const auto& child : children) {
        child->say("go");
    }
    int sum = 0;
    for (const auto& child : children) {
        sum += child->wait();
    }
    EXPECT_EQ(sum, 100) << "one of them made the key";
    const Key common = create(HKEY_LOCAL_MACHINE, u"processes\\common");
    EXPECT_EQ(value_names(common), (Names{u"v0", u"v1", u"v2"}));
    EXPECT_EQ(sub_keys(common), Names{});
}

ZR_CHILD(registry_toggler) {
    std::vector<std::u16string> names;
    std::vector<ZrRegistryChange> add;
    for (int i = 0; i < 10; ++i) {
        names.push_back(numbered(u"v", i));
    }
    for (const auto& name : names) {
        add.push_back({ZrRegistryStep::SetValue, HKEY_CURRENT_USER, u"toggle", name.c_str(), REG_SZ, nullptr, 0});
    }
    auto remove = add;
    for (auto& change : remove) {
        change.Step = ZrRegistryStep::DeleteValue;
    }
    say("ready");
    for (int i = 0; i < 100; ++i) {
        if (ZrRegistryApply(add.data(), 10, nullptr) != kOk) return 1;
        if (ZrRegistryApply(remove.data(), 10, nullptr) != kOk) return 2;
    }
    return ZrRegistryApply(add.data(), 10, nullptr) == kOk ? 0 : 3;
}

TEST(Processes, SeeAllOfSeveralChangesOrNone) {
    const Key key = create(HKEY_CURRENT_USER, u"toggle");
    Child child("registry_toggler");
    ASSERT_EQ(child.hear(), "ready");
    std::atomic<bool> done{false};
    std::thread waiter([&] {
        EXPECT_EQ(child.wait(), 0);
        done = true;
    });
    DWORD values = 0;
    const auto look = [&] {
        EXPECT_EQ(RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &values, nullptr, nullptr,
                                   nullptr, nullptr),
                  kOk);
    };
    while (!done) {
        look();
        ASSERT_TRUE(values == 0 || values == 10) << values;
    }
    waiter.join();
    look();
    EXPECT_EQ(values, 10u);
}

ZR_CHILD(registry_deleter) {
    return RegDeleteKeyW(HKEY_CURRENT_USER, u"doomed") == kOk ? 0 : 1;
}

TEST(Processes, AreToldThatAnotherDeletedTheirKey) {
    const Key key = create(HKEY_CURRENT_USER, u"doomed\\lower");
    ASSERT_EQ(set_dword(key, u"v", 1), kOk);
    EXPECT_EQ(get_dword(key, u"v"), 1u);
    Child child("registry_deleter");
    ASSERT_EQ(child.wait(), 0);
    EXPECT_EQ(get(key, u"v").result, code(ERROR_KEY_DELETED));
    EXPECT_EQ(set_dword(key, u"v", 1), code(ERROR_KEY_DELETED));
    create(HKEY_CURRENT_USER, u"doomed\\lower");
    EXPECT_EQ(get(key, u"v").result, code(ERROR_KEY_DELETED));
}

ZR_CHILD(registry_long_writer) {
    const Key key = create(HKEY_CURRENT_USER, u"long");
    for (int i = 0; i < 9500; ++i) {
        ZrRegistryChange change = {ZrRegistryStep::SetValue,          key,     u"", u"v", REG_DWORD,
                                   reinterpret_cast<const BYTE*>(&i), sizeof i};
        std::vector<ZrRegistryChange> many(500, change);
        if (i % 500 == 0 && ZrRegistryApply(many.data(), 500, nullptr) != kOk) return 1;
    }
    if (set_dword(key, u"v", 77) != kOk || RegDeleteKeyW(key, u"kept not") != kOk) return 2;
    return 0;
}

TEST(Processes, CatchUpWhenMoreHasChangedThanIsLogged) {
    const Key key = create(HKEY_CURRENT_USER, u"long");
    const Key kept = create(key, u"kept");
    const Key gone = create(key, u"kept not");
    ASSERT_EQ(set_dword(key, u"v", 1), kOk);
    EXPECT_EQ(get_dword(key, u"v"), 1u);
    Child child("registry_long_writer");
    ASSERT_EQ(child.wait(), 0);
    EXPECT_EQ(get_dword(key, u"v"), 77u);
    EXPECT_EQ(sub_keys(key), Names{u"kept"});
    EXPECT_EQ(set_dword(kept, u"w", 1), kOk);
    EXPECT_EQ(get(gone, u"w").result, code(ERROR_KEY_DELETED));
    const Key again = create(key, u"kept");
    EXPECT_EQ(get_dword(again, u"w"), 1u);
}

// In a forked child: 0, or the number of the check that failed.
int as_a_child(HKEY inherited) {
    if (get_dword(inherited, u"v") != 1) return 1;
    if (set_dword(inherited, u"v", 2) != kOk) return 2;
    if (RegFlushKey(inherited) != kOk) return 3;
    HKEY made = nullptr;
    if (RegCreateKeyExW(inherited, u"by the child", 0, nullptr, 0, 0, nullptr, &made, nullptr) != kOk) return 4;
    return RegCloseKey(made) == kOk && RegCloseKey(inherited) == kOk ? 0 : 5;
}

TEST(Processes, GoOnWithTheirHandlesAfterAFork) {
    const Key key = create(HKEY_CURRENT_USER, u"fork");
    ASSERT_EQ(set_dword(key, u"v", 1), kOk);
    const Key other = create(HKEY_CURRENT_USER, u"busy");
    DWORD number = 0;
    const zr::test::Load busy({[&] {
        ++number;
        EXPECT_EQ(set_dword(other, u"v", number), kOk);
        EXPECT_EQ(get_dword(other, u"v"), number);
    }});
    for (int round = 0; round < 300 / zr::test::kStride; ++round) {
        ASSERT_EQ(set_dword(key, u"v", 1), kOk);
        ASSERT_EQ(zr::test::in_fork([&] { return as_a_child(key); }), 0);
        EXPECT_EQ(get_dword(key, u"v"), 2u);
        EXPECT_EQ(sub_keys(key), Names{u"by the child"});
        ASSERT_EQ(RegDeleteKeyW(key, u"by the child"), kOk);
    }
}

}  // namespace
