#include "platform/cursor.h"

#include <gtest/gtest.h>

#include <set>

#include "platform/base.h"

namespace {

// Leaves the process without a cursor, as it found it.
class Cursor : public testing::Test {
protected:
    ~Cursor() override { SetCursor(nullptr); }
};

}  // namespace

TEST_F(Cursor, IsNoneAtFirst) {
    EXPECT_EQ(GetCursor(), nullptr);
    EXPECT_EQ(SetCursor(nullptr), nullptr);
}

TEST_F(Cursor, SetReturnsTheOneBefore) {
    const HCURSOR wait = LoadCursorW(nullptr, IDC_WAIT);
    const HCURSOR arrow = LoadCursorW(nullptr, IDC_ARROW);
    ASSERT_NE(wait, nullptr);
    EXPECT_NE(wait, arrow);
    EXPECT_EQ(LoadCursorW(nullptr, IDC_WAIT), wait);
    SetLastError(7);
    EXPECT_EQ(SetCursor(wait), nullptr);
    EXPECT_EQ(GetCursor(), wait);
    EXPECT_EQ(SetCursor(arrow), wait);
    EXPECT_EQ(SetCursor(nullptr), arrow);
    EXPECT_EQ(GetCursor(), nullptr);
    EXPECT_EQ(GetLastError(), 7u);
}

TEST_F(Cursor, EachOfTheSystemsIsItsOwn) {
    std::set<HCURSOR> all;
    for (const LPCWSTR name : {IDC_ARROW, IDC_IBEAM, IDC_WAIT, IDC_CROSS, IDC_UPARROW, IDC_SIZENWSE, IDC_SIZENESW,
                               IDC_SIZEWE, IDC_SIZENS, IDC_SIZEALL, IDC_NO, IDC_HAND, IDC_APPSTARTING, IDC_HELP}) {
        const HCURSOR cursor = LoadCursorW(nullptr, name);
        EXPECT_NE(cursor, nullptr);
        all.insert(cursor);
    }
    EXPECT_EQ(all.size(), 14u);
}

TEST_F(Cursor, RefusesWhatIsNone) {
    const auto none = [](HINSTANCE instance, LPCWSTR name) {
        SetLastError(0);
        return LoadCursorW(instance, name) == nullptr && GetLastError() == ERROR_RESOURCE_NAME_NOT_FOUND;
    };
    EXPECT_TRUE(none(nullptr, nullptr));
    EXPECT_TRUE(none(nullptr, u"wait"));
    EXPECT_TRUE(none(nullptr, reinterpret_cast<LPCWSTR>(UINT_PTR{32517})));
    EXPECT_TRUE(none(reinterpret_cast<HINSTANCE>(UINT_PTR{0x1000}), IDC_WAIT));

    const HCURSOR wait = LoadCursorW(nullptr, IDC_WAIT);
    SetCursor(wait);
    SetLastError(0);
    EXPECT_EQ(SetCursor(reinterpret_cast<HCURSOR>(UINT_PTR{0x1234})), nullptr);
    EXPECT_EQ(GetLastError(), ERROR_INVALID_CURSOR_HANDLE);
    EXPECT_EQ(GetCursor(), wait);
}
