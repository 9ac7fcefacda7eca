#include "registry_support.h"

namespace {

using namespace zr::test;
using Names = std::vector<std::u16string>;

const BYTE kData[] = {'d', 'a', 't', 'a'};

ZrRegistryChange step(ZrRegistryStep kind, const WCHAR* path, const WCHAR* name = nullptr) {
    return {kind, HKEY_CURRENT_USER, path, name, REG_BINARY, kData, sizeof kData};
}

LONG apply(const std::vector<ZrRegistryChange>& changes, DWORD* failed = nullptr) {
    return ZrRegistryApply(changes.data(), static_cast<DWORD>(changes.size()), failed);
}

TEST(Apply, MakesAllChangesInTheirOrder) {
    create(HKEY_CURRENT_USER, u"old\\lower");
    const Key held = create(HKEY_CURRENT_USER, u"held");
    DWORD failed = 99;
    EXPECT_EQ(apply({step(ZrRegistryStep::CreateKey, u"a\\b"),
                     step(ZrRegistryStep::SetValue, u"a\\c", u"v"),
                     step(ZrRegistryStep::SetValue, u"a\\c", nullptr),
                     step(ZrRegistryStep::SetValue, u"a", u"gone"),
                     step(ZrRegistryStep::DeleteValue, u"a", u"GONE"),
                     step(ZrRegistryStep::DeleteKey, u"old"),
                     {ZrRegistryStep::SetValue, held, u"", u"own", REG_SZ, nullptr, 0}},
                    &failed),
              kOk);
    EXPECT_EQ(failed, 99u) << "left alone";
    EXPECT_EQ(sub_keys(HKEY_CURRENT_USER), (Names{u"a", u"held"}));
    const Key a = create(HKEY_CURRENT_USER, u"a");
    EXPECT_EQ(sub_keys(a), (Names{u"b", u"c"}));
    EXPECT_EQ(value_names(a), Names{});
    const Key c = create(a, u"c");
    EXPECT_EQ(value_names(c), (Names{u"", u"v"}));
    EXPECT_EQ(get(c, u"v").bytes, "data");
    EXPECT_EQ(get(held, u"own").type, REG_SZ);
}

TEST(Apply, HasNothingToDoWhereNothingIsToBeDeleted) {
    EXPECT_EQ(apply({step(ZrRegistryStep::DeleteKey, u"no"), step(ZrRegistryStep::DeleteValue, u"no", u"v"),
                     step(ZrRegistryStep::DeleteValue, u"", u"v")}),
              kOk);
    EXPECT_EQ(apply({}), kOk);
    EXPECT_EQ(ZrRegistryApply(nullptr, 0, nullptr), kOk);
    EXPECT_EQ(sub_keys(HKEY_CURRENT_USER), Names{});
}

TEST(Apply, TakesAllBackWhenOneFails) {
    const Key kept = create(HKEY_CURRENT_USER, u"kept\\lower");
    Key gone = create(HKEY_CURRENT_USER, u"gone");
    ASSERT_EQ(RegDeleteKeyW(HKEY_CURRENT_USER, u"gone"), kOk);
    const std::u16string too_long(256, u'n');
    auto bad_handle = step(ZrRegistryStep::CreateKey, u"x");
    bad_handle.Root = nullptr;
    auto deleted = step(ZrRegistryStep::SetValue, u"x", u"v");
    deleted.Root = gone;
    auto no_data = step(ZrRegistryStep::SetValue, u"x", u"v");
    no_data.Data = nullptr;
    const std::pair<ZrRegistryChange, DWORD> bad[] = {
        {bad_handle, ERROR_INVALID_HANDLE},
        {deleted, ERROR_KEY_DELETED},
        {no_data, ERROR_INVALID_PARAMETER},
        {step(ZrRegistryStep::SetValue, u"x", too_long.c_str()), ERROR_INVALID_PARAMETER},
        {step(ZrRegistryStep::CreateKey, too_long.c_str()), ERROR_INVALID_PARAMETER},
        {step(ZrRegistryStep::DeleteKey, u""), ERROR_ACCESS_DENIED},
        {step(static_cast<ZrRegistryStep>(9), u"x"), ERROR_INVALID_PARAMETER},
    };
    for (const auto& [change, error] : bad) {
        DWORD failed = 99;
        EXPECT_EQ(apply({step(ZrRegistryStep::SetValue, u"a", u"v"), step(ZrRegistryStep::DeleteKey, u"kept"), change,
                         step(ZrRegistryStep::CreateKey, u"b")},
                        &failed),
                  code(error));
        EXPECT_EQ(failed, 2u);
        EXPECT_EQ(sub_keys(HKEY_CURRENT_USER), Names{u"kept"});
        EXPECT_EQ(set_dword(kept, u"v", 1), kOk) << "the handle still holds";
    }
    DWORD failed = 99;
    EXPECT_EQ(ZrRegistryApply(nullptr, 1, &failed), code(ERROR_INVALID_PARAMETER));
}

struct Counter {
    int left;
    int at_end;
};

int count_down(ZrRegistryChange* change, LPVOID context) {
    auto& counter = *static_cast<Counter*>(context);
    if (counter.left-- == 0) return counter.at_end;
    static WCHAR name[] = u"v0";
    name[1] = static_cast<WCHAR>(u'0' + counter.left);
    *change = step(ZrRegistryStep::SetValue, u"each", name);
    return 1;
}

TEST(Apply, AsksForOneChangeAfterTheOther) {
    Counter counter = {3, 0};
    EXPECT_EQ(ZrRegistryApplyEach(count_down, &counter, nullptr), kOk);
    EXPECT_EQ(value_names(create(HKEY_CURRENT_USER, u"each")), (Names{u"v0", u"v1", u"v2"}));
    EXPECT_EQ(ZrRegistryApplyEach(nullptr, nullptr, nullptr), code(ERROR_INVALID_PARAMETER));
}

TEST(Apply, MakesNothingWhenItIsCalledOff) {
    Counter counter = {3, -1};
    DWORD failed = 99;
    EXPECT_EQ(ZrRegistryApplyEach(count_down, &counter, &failed), code(ERROR_CANCELLED));
    EXPECT_EQ(failed, 3u);
    EXPECT_FALSE(exists(HKEY_CURRENT_USER, u"each"));
}

TEST(Apply, MakesManyChangesAtOnce) {
    std::vector<std::u16string> names;
    std::vector<ZrRegistryChange> changes;
    for (int i = 0; i < 10000; ++i) {
        names.push_back(u"key" + std::u16string(1, static_cast<WCHAR>(0x4000 + i)));
    }
    for (const auto& name : names) {
        changes.push_back(step(ZrRegistryStep::SetValue, name.c_str(), u"v"));
    }
    EXPECT_EQ(sub_keys(HKEY_CURRENT_USER), Names{});
    ASSERT_EQ(apply(changes), kOk);
    EXPECT_EQ(sub_keys(HKEY_CURRENT_USER), names) << "more changes than the log keeps";
    const Key last = create(HKEY_CURRENT_USER, names.back());
    for (auto& change : changes) {
        change.Step = ZrRegistryStep::DeleteKey;
    }
    ASSERT_EQ(apply(changes), kOk);
    EXPECT_EQ(sub_keys(HKEY_CURRENT_USER), Names{});
    EXPECT_EQ(get(last, u"v").result, code(ERROR_KEY_DELETED));
}

}  // namespace
