// The helpers at real pages, in a real control.

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ZrUtility/Helpers/HTMLScriptUtilities.h"
#include "ZrUtility/Helpers/IPIEHTMLUtilities.h"
#include "html/engine_patience.h"
#include "platform/base.h"
#include "platform/com.h"
#include "platform/html.h"
#include "platform/kernel.h"
#include "platform/windowing.h"
#include "support/com_ptr.h"

namespace {

using zr::test::Ptr;

constexpr DWORD kPageTime = 60'000;

// A picture of one pixel.
constexpr BYTE kPicture[] = {0x47, 0x49, 0x46, 0x38, 0x39, 0x61, 0x01, 0x00, 0x01, 0x00, 0x80, 0x00,
                             0x00, 0xFF, 0x00, 0x00, 0x00, 0x00, 0x00, 0x2C, 0x00, 0x00, 0x00, 0x00,
                             0x01, 0x00, 0x01, 0x00, 0x00, 0x02, 0x02, 0x44, 0x01, 0x00, 0x3B};

// A control and its owner, which gives every image and counts how often it gave which.
class HtmlPages : public testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(InitHTMLControl(nullptr));
        WNDCLASSW description{};
        description.lpfnWndProc = answer;
        description.lpszClassName = u"html.pages.test";
        RegisterClassW(&description);
    }
    HtmlPages() {
        zr::platform::engine_patience() = {120'000, 120'000, 60'000};
        owner = CreateWindowExW(0, u"html.pages.test", nullptr, 0, 0, 0, 240, 320, nullptr, nullptr, nullptr, nullptr);
        SetWindowLongPtrW(owner, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
        control = CreateWindowExW(0, WC_HTML, nullptr, WS_CHILD, 0, 0, 240, 320, owner, nullptr, nullptr, nullptr);
        EXPECT_NE(control, nullptr);
    }
    ~HtmlPages() override { DestroyWindow(owner); }

    void SetUp() override {
        const HWND other = CreateWindowExW(0, WC_HTML, nullptr, WS_CHILD, 0, 0, 1, 1, owner, nullptr, nullptr, nullptr);
        const LRESULT shown = SendMessageW(other, WM_SETTEXT, 0, reinterpret_cast<LPARAM>(u""));
        const DWORD error = GetLastError();
        DestroyWindow(other);
        if (!shown && error == ERROR_MOD_NOT_FOUND) GTEST_SKIP() << "this computer has nothing that shows documents";
    }

    // Handles messages until it is so.
    template <class Condition>
    bool pumped_until(Condition is_so) {
        const DWORD begin = GetTickCount();
        while (!is_so()) {
            if (GetTickCount() - begin > kPageTime) return false;
            MsgWaitForMultipleObjectsEx(0, nullptr, 100, QS_ALLINPUT, 0);
            MSG message;
            while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
                DispatchMessageW(&message);
            }
        }
        return true;
    }

    static LRESULT answer(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
        const auto* const notice = reinterpret_cast<const NM_HTMLVIEWW*>(lparam);
        if (message != WM_NOTIFY || notice->hdr.code != NM_INLINE_IMAGE)
            return DefWindowProcW(window, message, wparam, lparam);
        auto& self = *reinterpret_cast<HtmlPages*>(GetWindowLongPtrW(window, GWLP_USERDATA));
        ++self.loads[notice->szTarget];
        EXPECT_EQ(ZrHtmlSetImage(self.control, notice->dwCookie, kPicture, sizeof kPicture, u"image/gif"), S_OK);
        return TRUE;
    }

    void show(const std::u16string& page) {
        ASSERT_TRUE(SendMessageW(control, WM_SETTEXT, 0, reinterpret_cast<LPARAM>(page.c_str())));
        ASSERT_EQ(ZrHtmlWait(control, kPageTime), S_OK);
    }

    Ptr<IDispatchEx> document() {
        Ptr<IDispatch> dispatch;
        SendMessageW(control, DTM_DOCUMENTDISPATCH, 0, reinterpret_cast<LPARAM>(dispatch.out()));
        Ptr<IDispatchEx> extended;
        if (dispatch) dispatch->QueryInterface(IID_IDispatchEx, extended.any());
        return extended;
    }

    // The element with that id.
    Ptr<IDispatchEx> element(const WCHAR* id) {
        const Ptr<IDispatchEx> page = document();
        DISPID method = DISPID_UNKNOWN;
        const std::unique_ptr<WCHAR, decltype(&SysFreeString)> name(SysAllocString(u"getElementById"), SysFreeString);
        EXPECT_EQ(page->GetDispID(name.get(), fdexNameCaseSensitive, &method), S_OK);
        VARIANT argument;
        argument.vt = VT_BSTR;
        argument.bstrVal = SysAllocString(id);
        DISPPARAMS arguments{&argument, nullptr, 1, 0};
        VARIANT found;
        VariantInit(&found);
        EXPECT_EQ(page->InvokeEx(method, 0, DISPATCH_METHOD, &arguments, &found, nullptr, nullptr), S_OK);
        VariantClear(&argument);
        Ptr<IDispatchEx> result;
        EXPECT_EQ(found.vt, VT_DISPATCH) << "no such element";
        if (found.vt == VT_DISPATCH) found.pdispVal->QueryInterface(IID_IDispatchEx, result.any());
        VariantClear(&found);
        return result;
    }

    // What a script evaluates to: a text.
    std::u16string evaluated(const WCHAR* script) {
        Ptr<IDispatch> dispatch;
        SendMessageW(control, DTM_DOCUMENTDISPATCH, 0, reinterpret_cast<LPARAM>(dispatch.out()));
        Ptr<IScriptControl> runner;
        if (!dispatch || FAILED(dispatch->QueryInterface(IID_IScriptControl, runner.any()))) return u"no document";
        VARIANT value;
        VariantInit(&value);
        EXPECT_EQ(runner->Eval(const_cast<BSTR>(script), &value), S_OK);
        std::u16string text = value.vt == VT_BSTR ? std::u16string(value.bstrVal, SysStringLen(value.bstrVal)) : u"?";
        VariantClear(&value);
        return text;
    }

    HWND owner = nullptr;
    HWND control = nullptr;
    std::map<std::u16string, int> loads;
};

using StringGet = LONG (*)(IDispatchEx*, const WCHAR**);

std::u16string text_of(StringGet get, const Ptr<IDispatchEx>& object) {
    const WCHAR* value = nullptr;
    EXPECT_EQ(get(object.get(), &value), S_OK);
    if (!value) return u"(null)";
    std::u16string text(value, SysStringLen(const_cast<BSTR>(value)));
    IPIEHTMLUtilities::FreeString(value);
    return text;
}

Ptr<IDispatchEx> style_of(const Ptr<IDispatchEx>& element) {
    Ptr<IDispatchEx> style;
    EXPECT_EQ(IPIEHTMLUtilities::IPIEHTMLElement__get_style(element.get(), style.out()), S_OK);
    EXPECT_TRUE(style);
    return style;
}

TEST_F(HtmlPages, ElementsAreRead) {
    show(
        u"<title>Read me</title><p id='first par'>Text"
        u"<a id=link href='http://example.org/a?b=1&amp;c=%20'>there</a><a id=near href='#here'>here</a>"
        u"<input id=field value='typed \u20AC &quot;in&quot;'><textarea id=area>one\ntwo</textarea>"
        u"<select id=choice><option>x<option value=v selected>y</select>");
    EXPECT_EQ(text_of(IPIEHTMLUtilities::IPIEHTMLElement__get_id, element(u"first par")), u"first par");
    EXPECT_EQ(text_of(IPIEHTMLUtilities::IPIEHTMLElement__get_id, element(u"link")), u"link");
    EXPECT_EQ(text_of(IPIEHTMLUtilities::IPIEHTMLAnchorElement__get_href, element(u"link")),
              u"http://example.org/a?b=1&c=%20");
    EXPECT_EQ(text_of(IPIEHTMLUtilities::IPIEHTMLControlElement__get_value, element(u"field")), u"typed \u20AC \"in\"");
    EXPECT_EQ(text_of(IPIEHTMLUtilities::IPIEHTMLControlElement__get_value, element(u"area")), u"one\ntwo");
    EXPECT_EQ(text_of(IPIEHTMLUtilities::IPIEHTMLControlElement__get_value, element(u"choice")), u"v");
}

TEST_F(HtmlPages, ANumberIsANullString) {
    show(u"<ol><li id=third value=3>three</ol>");
    EXPECT_EQ(text_of(IPIEHTMLUtilities::IPIEHTMLControlElement__get_value, element(u"third")), u"(null)");
}

TEST_F(HtmlPages, StylesAreReadAndChanged) {
    show(u"<div id=box style='display: inline-block'>box</div><p id=plain>plain");
    const Ptr<IDispatchEx> style = style_of(element(u"box"));
    EXPECT_EQ(text_of(IPIEHTMLUtilities::IPIEHTMLStyle__get_display, style), u"inline-block");
    EXPECT_EQ(IPIEHTMLUtilities::IPIEHTMLStyle__put_display(style.get(), u"none"), S_OK);
    EXPECT_EQ(text_of(IPIEHTMLUtilities::IPIEHTMLStyle__get_display, style), u"none");
    EXPECT_EQ(evaluated(u"String(document.getElementById('box').offsetHeight)"), u"0");
    EXPECT_EQ(IPIEHTMLUtilities::IPIEHTMLStyle__put_display(style.get(), u""), S_OK);
    EXPECT_EQ(text_of(IPIEHTMLUtilities::IPIEHTMLStyle__get_display, style), u"");
    EXPECT_EQ(evaluated(u"String(document.getElementById('box').offsetHeight > 0)"), u"true");
    EXPECT_EQ(IPIEHTMLUtilities::IPIEHTMLStyle__put_display(style.get(), nullptr), E_INVALIDARG);
    // A plain one has none of its own.
    EXPECT_EQ(text_of(IPIEHTMLUtilities::IPIEHTMLStyle__get_display, style_of(element(u"plain"))), u"");
}

TEST_F(HtmlPages, ADocumentThatIsGoneFails) {
    show(u"<p id=a style='display:block'>old");
    const Ptr<IDispatchEx> old = element(u"a");
    const Ptr<IDispatchEx> style = style_of(old);
    show(u"<p id=a>new");
    const WCHAR* value = u"untouched";
    EXPECT_EQ(IPIEHTMLUtilities::IPIEHTMLElement__get_id(old.get(), &value), RPC_E_DISCONNECTED);
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(IPIEHTMLUtilities::IPIEHTMLStyle__put_display(style.get(), u"none"), RPC_E_DISCONNECTED);
    EXPECT_EQ(text_of(IPIEHTMLUtilities::IPIEHTMLElement__get_id, element(u"a")), u"a");
}

TEST_F(HtmlPages, OneImageIsLoadedAgain) {
    show(
        u"<img id=first src='http://pictures.invalid/1.gif'><img id=second src='http://pictures.invalid/2.gif'>"
        u"<img src='http://pictures.invalid/3.gif'>");
    const std::map<std::u16string, int> once = {{u"http://pictures.invalid/1.gif", 1},
                                                {u"http://pictures.invalid/2.gif", 1},
                                                {u"http://pictures.invalid/3.gif", 1}};
    EXPECT_EQ(loads, once);
    EXPECT_EQ(HTMLScriptUtilities::RefreshImageById(control, u"second"), S_OK);
    const auto loaded_again = [this] {
        return loads[u"http://pictures.invalid/2.gif"] == 2 &&
               evaluated(u"String(document.getElementById('second').naturalWidth)") == u"1";
    };
    EXPECT_TRUE(pumped_until(loaded_again));
    EXPECT_EQ(loads[u"http://pictures.invalid/1.gif"], 1);
    EXPECT_EQ(loads[u"http://pictures.invalid/3.gif"], 1);
}

TEST_F(HtmlPages, TheLastAnchorOfAnAddressGetsTheFocus) {
    show(
        u"<body><a name=a id=one href='http://example.org/x'>1</a><a name=b id=two href='http://example.org/y'>2</a>"
        u"<a name=c id=three href='http://example.org/x'>3</a><a name=d id=four href='http://example.org/z'>4</a>");
    EXPECT_EQ(HTMLScriptUtilities::FocusByHref(control, u"http://example.org/y"), S_OK);
    EXPECT_EQ(evaluated(u"document.activeElement.id"), u"two");
    EXPECT_EQ(HTMLScriptUtilities::FocusByHref(control, u"http://example.org/x"), S_OK);
    EXPECT_EQ(evaluated(u"document.activeElement.id"), u"three");
    EXPECT_EQ(HTMLScriptUtilities::FocusByHref(control, u"http://example.org/none"), S_OK);
    EXPECT_EQ(evaluated(u"document.activeElement.id"), u"three");
}

TEST_F(HtmlPages, ScriptsMayFail) {
    show(u"<p>page");
    EXPECT_EQ(HTMLScriptUtilities::RefreshImageById(control, u"none"), DISP_E_EXCEPTION);
    EXPECT_EQ(HTMLScriptUtilities::RefreshImageById(control, u"it's"), DISP_E_EXCEPTION);
    EXPECT_EQ(HTMLScriptUtilities::ExecuteCommand(control, u"throw 1"), DISP_E_EXCEPTION);
    EXPECT_EQ(HTMLScriptUtilities::ExecuteCommand(control, u"document.title = 'set'"), S_OK);
    EXPECT_EQ(evaluated(u"document.title"), u"set");
}

TEST_F(HtmlPages, WithoutADocumentNothingIsRun) {
    EXPECT_EQ(HTMLScriptUtilities::ExecuteCommand(control, u"1"), E_FAIL);
}

TEST_F(HtmlPages, ObjectsAreGivenBack) {
    show(u"<p id=a style='display:block'>text");
    const LONGLONG before = ZrHtmlLiveObjects(control);
    for (int round = 0; round < 3; ++round) {
        const Ptr<IDispatchEx> style = style_of(element(u"a"));
        EXPECT_EQ(text_of(IPIEHTMLUtilities::IPIEHTMLStyle__get_display, style), u"block");
        EXPECT_EQ(HTMLScriptUtilities::ExecuteCommand(control, u"document.body"), S_OK);
        EXPECT_GT(ZrHtmlLiveObjects(control), before);
    }
    EXPECT_EQ(ZrHtmlLiveObjects(control), before);
}

// What people send.
struct FoundPage {
    const char* name;
    std::u16string source;
    std::u16string id;    // of an element in it
    std::u16string text;  // of that element
};

std::vector<FoundPage> found_pages() {
    std::u16string deep;
    for (int i = 0; i < 100; ++i) {
        deep += u"<div><b>";
    }
    std::u16string rows;
    for (int i = 0; i < 2000; ++i) {
        rows += u"<tr><td width=50%>&nbsp;<td><font size=1>row";
    }
    return {
        {"newsletter",
         u"<html xmlns:o='urn:x'><head><style>@media screen{.h{display:none}} td{font-family:sans-serif}</style>"
         u"<!--[if mso]><xml><o:Office/></xml><![endif]--></head><body bgcolor=#ffffff leftmargin=0>"
         u"<div style='display:none;max-height:0'>What you missed &zwnj;&nbsp;&zwnj;</div>"
         u"<center><table width=600 cellpadding=0 cellspacing=0 border=0><tr><td background='cid:bg@x'>"
         u"<img src='cid:logo@x' width=600 height=80 alt='Our shop' style='display:block'></td></tr>"
         u"<tr><td style=\"padding:20px;mso-line-height-rule:exactly\"><h1>Spring!</h1>"
         u"<p id=offer>Everything <b>20&nbsp;%</b> off &ndash; today</p><a "
         u"href='https://shop.invalid/?u=1&m=2'>Shop</a>"
         u"</td></tr></table></center><img src='https://track.invalid/o.gif?id=42' width=1 height=1></body></html>",
         u"offer", u"Everything 20\u00A0% off \u2013 today"},
        {"unclosed", u"<p id=a>one<p id=b>two <b>bold <i>both</b> still</i><table><tr>stray<td>cell</p></div></span>",
         u"a", u"one"},
        {"no tags", u"just words & <", u"", u""},
        {"quotes", u"<p id=\"it's\" title=\"a>b\" class=x'y>said \"so\"</p>", u"it's", u"said \"so\""},
        {"characters", u"<p id=c>\xD800 lone \xFFFF \u202E turned &#0; &#xD800; &#x1F600;", u"c", u""},
        {"deep", deep + u"<p id=d>bottom", u"d", u"bottom"},
        {"rows", u"<table>" + rows + u"<tr><td id=last>end", u"last", u"end"},
        {"frames",
         u"<p id=f>frame</p><iframe src='http://away.invalid/'></iframe><meta http-equiv=refresh "
         u"content='0;url=http://away.invalid/'><base href='http://away.invalid/'>",
         u"f", u"frame"},
        {"scripts", u"<p id=s>before</p><script>document.getElementById('s').id='changed'; while(true){}</script>",
         u"s", u"before"},
    };
}

TEST_F(HtmlPages, AreOfEveryKind) {
    for (const FoundPage& page : found_pages()) {
        SCOPED_TRACE(page.name);
        show(page.source);
        if (page.id.empty()) continue;
        const Ptr<IDispatchEx> found = element(page.id.c_str());
        ASSERT_TRUE(found);
        EXPECT_EQ(text_of(IPIEHTMLUtilities::IPIEHTMLElement__get_id, found), page.id);
        if (page.text.empty()) continue;
        const std::u16string script = u"document.getElementById(\"" + page.id + u"\").textContent";
        EXPECT_EQ(evaluated(script.c_str()), page.text);
    }
}

}  // namespace
