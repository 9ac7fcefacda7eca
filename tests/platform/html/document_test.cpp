#include <string>

#include "html_support.h"

namespace {

using namespace zr::test;

// One engine for all that only look.
TEST(HtmlDocument, ShowsReadsAndIsScripted) {
    HtmlParent parent;
    const HRESULT shown = parent.show(
        u"<title>The title</title><body><p id=p style='display:none'>Grüße 𝄞</p><a id=a href='http://x.example/y'>l</a>"
        u"<form><input id=i value='v'></form><script>document.title='changed'</script></body>");
    if (shown == HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND)) {
        GTEST_SKIP() << "no HTML engine: " << trouble();
    }
    ASSERT_EQ(shown, S_OK);
    EXPECT_EQ(parent.count(NM_DOCUMENTCOMPLETE), 1);
    ASSERT_EQ(parent.count(NM_TITLE), 1);
    EXPECT_EQ(parent.told.front().target, u"The title");

    const Ptr<IDispatchEx> document = parent.document();
    ASSERT_TRUE(document);
    const Ptr<IDispatchEx> paragraph = element(document.get(), u"p");
    ASSERT_TRUE(paragraph);

    Value id;
    EXPECT_EQ(get(paragraph.get(), ZR_DISPID_HTML_ID, &id), S_OK);
    EXPECT_EQ(id.text(), u"p");
    Value text;
    EXPECT_EQ(get(paragraph.get(), id_of(paragraph.get(), u"textContent"), &text), S_OK);
    EXPECT_EQ(text.text(), u"Grüße 𝄞");
    Value href;
    EXPECT_EQ(get(element(document.get(), u"a").get(), ZR_DISPID_HTML_HREF, &href), S_OK);
    EXPECT_EQ(href.text(), u"http://x.example/y");
    Value value;
    EXPECT_EQ(get(element(document.get(), u"i").get(), ZR_DISPID_HTML_VALUE, &value), S_OK);
    EXPECT_EQ(value.text(), u"v");

    Value style;
    ASSERT_EQ(get(paragraph.get(), ZR_DISPID_HTML_STYLE, &style), S_OK);
    ASSERT_EQ(style.vt, VT_DISPATCH);
    Ptr<IDispatchEx> look;
    ASSERT_EQ(style.pdispVal->QueryInterface(IID_IDispatchEx, look.any()), S_OK);
    Value display;
    EXPECT_EQ(get(look.get(), ZR_DISPID_HTML_DISPLAY, &display), S_OK);
    EXPECT_EQ(display.text(), u"none");
    EXPECT_EQ(put(look.get(), ZR_DISPID_HTML_DISPLAY, u"block"), S_OK);
    Value changed;
    EXPECT_EQ(get(look.get(), ZR_DISPID_HTML_DISPLAY, &changed), S_OK);
    EXPECT_EQ(changed.text(), u"block");

    Value sum;
    EXPECT_EQ(eval(document.get(), u"1 + 1", &sum), S_OK);
    EXPECT_EQ(sum.vt, VT_I4);
    EXPECT_EQ(sum.lVal, 2);
    EXPECT_EQ(eval(document.get(), u"no such thing(", nullptr), DISP_E_EXCEPTION);

    BYTE* png = nullptr;
    SIZE_T size = 0;
    ASSERT_EQ(ZrHtmlDraw(parent.control(), 240, 320, &png, &size), S_OK) << trouble();
    ASSERT_GT(size, 24u);
    EXPECT_EQ(std::string(png + 1, png + 4), "PNG");
    EXPECT_EQ(png[19], 240);
    EXPECT_EQ(png[22] * 256 + png[23], 320);
    CoTaskMemFree(png);
}

}  // namespace
