#include "ZrUtility/Helpers/RegistryUtilities.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "platform/registry.h"
#include "platform/registry/registry_support.h"
#include "support/failing_new.h"

namespace {

using zr::test::kOk;
constexpr ULONG kWhite = 0x00FFFFFF;
constexpr ULONG kBlue = 0x00993300;
constexpr auto kAt9 = RegistryUtilities::COLOR_AT_9;
constexpr auto kAt8 = RegistryUtilities::COLOR_AT_8;

class Colors : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, u"Software\\Microsoft\\Color", 0, nullptr, 0, KEY_ALL_ACCESS,
                                  nullptr, &key_, nullptr),
                  kOk);
    }
    void TearDown() override { RegCloseKey(key_); }

    void set(const WCHAR* name, DWORD type, const void* data, std::size_t size) {
        ASSERT_EQ(RegSetValueExW(key_, name, 0, type, static_cast<const BYTE*>(data), static_cast<DWORD>(size)), kOk);
    }
    // An array whose entries are their positions plus `base`.
    void set_array(std::size_t entries, ULONG base, DWORD type = REG_BINARY) {
        std::vector<ULONG> colors(entries);
        for (std::size_t i = 0; i < entries; ++i) {
            colors[i] = base + static_cast<ULONG>(i);
        }
        set(u"SHColor", type, colors.data(), entries * sizeof(ULONG));
    }
    void set_one(const WCHAR* name, ULONG color) { set(name, REG_DWORD, &color, sizeof color); }
    static void expect(ULONG at9, ULONG at8) {
        EXPECT_EQ(RegistryUtilities::GetColor(kAt9), at9);
        EXPECT_EQ(RegistryUtilities::GetColor(kAt8), at8);
    }

    HKEY key_ = nullptr;
};

TEST_F(Colors, WithoutAnArrayAreTheDefaultsAndAreReadAgain) {
    expect(kWhite, kBlue);
    set_array(10, 100);
    expect(109, 108);
}

TEST_F(Colors, WithoutTheKeyAreTheDefaults) {
    ASSERT_EQ(RegDeleteKeyW(HKEY_LOCAL_MACHINE, u"Software\\Microsoft\\Color"), kOk);
    expect(kWhite, kBlue);
}

TEST_F(Colors, AreKeptUntilTheyAreInvalidated) {
    set_array(10, 100);
    expect(109, 108);
    set_array(10, 200);
    expect(109, 108);
    RegistryUtilities::InvalidateCache();
    expect(209, 208);
}

TEST_F(Colors, SingleValuesGoBeforeTheArray) {
    set_array(12, 100);
    set_one(u"8", 0x112233);
    expect(109, 0x112233);
    RegistryUtilities::InvalidateCache();
    set_one(u"9", 0x445566);
    set_one(u"08", 1);
    set_one(u"", 2);
    expect(0x445566, 0x112233);
}

TEST_F(Colors, SingleValuesOfAnyTypeCountByTheirBytes) {
    set_array(10, 100);
    set(u"9", REG_SZ, "\1\2\3\4", 4);
    set(u"8", REG_BINARY, "\1\2", 2);
    expect(0x04030201, 0x0201);
    RegistryUtilities::InvalidateCache();
    set(u"9", REG_BINARY, "\1\2\3\4\5", 5);
    expect(109, 0x0201);
}

TEST_F(Colors, AnArrayThatIsTooShortLeavesWhatWasAndIsGoodForSingleValues) {
    set_array(9, 100);
    expect(0xFFFFFF00, 0x99330000);
    RegistryUtilities::InvalidateCache();
    set_one(u"9", 5);
    expect(5, 0x99330000);
}

TEST_F(Colors, AnArrayOfAnotherTypeIsNone) {
    set_array(10, 100, REG_NONE);
    set_one(u"9", 5);
    expect(kWhite, kBlue);
}

TEST_F(Colors, EqualColorsAreTheDefaultsAndKept) {
    set_array(10, 100);
    set_one(u"9", 108);
    expect(kWhite, kBlue);
    set_one(u"9", 5);
    expect(kWhite, kBlue);
    RegistryUtilities::InvalidateCache();
    expect(5, 108);
}

TEST_F(Colors, AreReadAgainWhenMemoryWasShort) {
    set_array(10, 100);
    {
        const zr::test::FailingNew failing(0);
        EXPECT_EQ(RegistryUtilities::GetColor(kAt9), kWhite);
    }
    expect(109, 108);
}

TEST_F(Colors, AnIndexThatIsNeitherIsTheFirst) {
    set_array(10, 100);
    for (const int index : {2, -1, 1000000}) {
        EXPECT_EQ(RegistryUtilities::GetColor(static_cast<RegistryUtilities::COLOR_INDICES>(index)), 109u);
    }
}

TEST_F(Colors, FirstCallsOfManyThreadsAgree) {
    set_array(10, 100);
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([] {
            for (int round = 0; round < 50; ++round) {
                RegistryUtilities::InvalidateCache();
                EXPECT_EQ(RegistryUtilities::GetColor(kAt8), 108u);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
}

}  // namespace
