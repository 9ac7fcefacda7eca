// What a power cut leaves of the registry.

#include <cstdlib>
#include <filesystem>
#include <random>
#include <vector>

#include "platform/diagnostics.h"
#include "registry_support.h"
#include "support/child.h"
#include "support/disk.h"
#include "support/sandbox.h"
#include "support/sql.h"

namespace {

using namespace zr::test;

std::string payload(DWORD number) {
    return std::string(1000 + number * 37 % 9000, static_cast<char>('a' + number % 26));
}

std::u16string payload_name(DWORD number) {
    return std::u16string(1 + number % 7, u'p');
}

bool take_step(HKEY key, DWORD number) {
    const std::string data = payload(number);
    const std::u16string name = payload_name(number);
    const std::u16string step = u"step" + std::u16string(1, static_cast<WCHAR>(0x4000 + number));
    const ZrRegistryChange changes[] = {
        {ZrRegistryStep::SetValue, key, u"", u"number", REG_DWORD, reinterpret_cast<const BYTE*>(&number), 4},
        {ZrRegistryStep::SetValue, key, u"", name.c_str(), REG_BINARY, reinterpret_cast<const BYTE*>(data.data()),
         static_cast<DWORD>(data.size())},
        {ZrRegistryStep::CreateKey, key, step.c_str(), nullptr, 0, nullptr, 0},
    };
    return ZrRegistryApply(changes, 3, nullptr) == kOk;
}

// Starts with what a power cut has left: what is there must be all of the first `n` steps, and `flushed` of them at
// least.
ZR_CHILD(after_the_cut) {
    setenv("ZR_HOME", args[0].c_str(), 1);
    ZrPretendLaterBoot();
    const auto flushed = static_cast<DWORD>(std::stoul(args[1]));
    const auto written = static_cast<DWORD>(std::stoul(args[2]));
    const Key key = create(HKEY_LOCAL_MACHINE, u"power");
    const DWORD number = get_dword(key, u"number");
    if (flushed == 0 && number == 0xDEADBEEF) return 0;
    if (number < flushed || number > written) return 2;
    for (DWORD i = number > 6 ? number - 6 : 1; i <= number; ++i) {
        if (get(key, payload_name(i)).bytes != payload(i)) return 3;
    }
    for (DWORD i = 1; i <= number; ++i) {
        if (!exists(key, u"step" + std::u16string(1, static_cast<WCHAR>(0x4000 + i)))) return 4;
    }
    if (exists(key, u"step" + std::u16string(1, static_cast<WCHAR>(0x4000 + number + 1)))) return 5;
    if (*ZrRegistrySetAsideText() != 0) return 6;
    return query(args[0] + "/registry.db", "PRAGMA integrity_check") == "ok" ? 0 : 7;
}

ZR_CHILD(until_the_cut) {
    Disk& disk = Disk::instance();
    disk.begin();
    const auto home = sandbox() / ("home" + args[0]);
    setenv("ZR_HOME", home.c_str(), 1);
    const std::string store = home / "registry.db";
    std::mt19937 random(static_cast<unsigned>(std::stoul(args[0])));
    const Key key = create(HKEY_LOCAL_MACHINE, u"power");
    DWORD flushed = 0;
    for (DWORD number = 1; number <= 1200; ++number) {
        if (!take_step(key, number)) return 101;
        if (random() % 5 == 0) {
            if (RegFlushKey(key) != kOk) return 102;
            flushed = number;
        }
        if (random() % 100 != 0) continue;
        const auto left = sandbox() / ("cut" + std::to_string(number));
        disk.cut(store, left, random);
        Child next("after_the_cut", {left, std::to_string(flushed), std::to_string(number)});
        if (const int result = next.wait(); result != 0) return result;
        std::filesystem::remove_all(left);
    }
    // Or else nothing was seen: the journal was synced by flushes, the store by checkpoints.
    return disk.syncs(store) > 1 && disk.syncs(store + "-wal") > 100 ? 0 : 103;
}

TEST(PowerCut, LosesNothingThatWasFlushed) {
    for (const char* seed : {"1", "2"}) {
        Child child("until_the_cut", {seed});
        EXPECT_EQ(child.wait(), 0) << "seed " << seed;
    }
}

// Opens a store that was closed, takes steps and closes it. What a cut at any of its syncs leaves is in folders "cut".
ZR_CHILD(from_opening_to_closing) {
    static constexpr int kDice = 3;
    setenv("ZR_HOME", args[0].c_str(), 1);
    static const std::string store = args[0] + "/registry.db";
    static const auto first = static_cast<DWORD>(std::stoul(args[1]));
    static const auto last = static_cast<DWORD>(std::stoul(args[2]));
    static std::mt19937 random(first);
    static DWORD number = first;
    static int cuts = 0;
    Disk::instance().begin({store, store + "-wal"}, [] {
        for (int i = 0; i < kDice && std::filesystem::exists(store); ++i) {
            const std::string name =
                "cut" + std::to_string(first) + "-" + std::to_string(number) + "-" + std::to_string(++cuts);
            Disk::instance().cut(store, sandbox() / name, random);
        }
    });
    const Key key = create(HKEY_LOCAL_MACHINE, u"power");
    while (number < last) {
        if (!take_step(key, ++number)) return 101;
    }
    return 0;  // and closes it
}

// A store that was closed is whole, whatever is begun with it; and when it is closed it is never without its journal
// before all of that is in it.
TEST(PowerCut, BetweenOpeningAndClosingLosesNothingOfWhatWasClosed) {
    constexpr DWORD kOpenings = zr::test::kInstrumented ? 3 : 6;
    const auto home = sandbox() / "closing";
    DWORD last = 0;
    int cuts = 0;
    for (DWORD opening = 0; opening < kOpenings; ++opening) {
        const DWORD first = last;
        last += opening % 3 == 2 ? 300 : 1 + opening;  // now and then the journal is copied in between
        ASSERT_EQ(Child("from_opening_to_closing", {home, std::to_string(first), std::to_string(last)}).wait(), 0);
        ASSERT_FALSE(std::filesystem::exists(home / "registry.db-wal"));
        std::vector<std::filesystem::path> left;
        for (const auto& entry : std::filesystem::directory_iterator(sandbox())) {
            if (entry.path().filename().string().starts_with("cut")) left.push_back(entry.path());
        }
        for (const auto& folder : left) {
            const std::string name = folder.filename();
            const std::string written = name.substr(name.find('-') + 1);
            Child next("after_the_cut", {folder, std::to_string(first), std::to_string(std::stoi(written))});
            EXPECT_EQ(next.wait(), 0) << name;
            std::filesystem::remove_all(folder);
            ++cuts;
        }
    }
    EXPECT_GE(cuts, zr::test::kInstrumented ? 30 : 60);
}

}  // namespace
