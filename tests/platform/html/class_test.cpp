#include <gtest/gtest.h>

#include <string_view>

#include "platform/html.h"

namespace {

TEST(HtmlClass, IsMadeKnownOnceAndAgain) {
    ASSERT_TRUE(InitHTMLControl(nullptr));
    ASSERT_TRUE(InitHTMLControl(nullptr));
    const HWND window = CreateWindowW(WC_HTML, u"", 0, 0, 0, 240, 320, nullptr, nullptr, nullptr, nullptr);
    ASSERT_NE(window, nullptr);
    WCHAR name[32]{};
    EXPECT_EQ(GetClassNameW(window, name, 32), 12);
    EXPECT_EQ(std::u16string_view(name), WC_HTML);
    EXPECT_TRUE(DestroyWindow(window));
}

TEST(HtmlClass, CallsOfWhatIsNoControlSaySo) {
    EXPECT_EQ(ZrHtmlWait(nullptr, 0), E_HANDLE);
    EXPECT_EQ(ZrHtmlAllowRemote(nullptr, TRUE), E_HANDLE);
    EXPECT_EQ(ZrHtmlSetImage(nullptr, 1, "", 0, nullptr), E_HANDLE);
    EXPECT_EQ(ZrHtmlLiveObjects(nullptr), -1);
}

}  // namespace
