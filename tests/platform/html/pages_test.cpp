// Pages as senders make them: in a row, cut anywhere, long, going elsewhere.

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include "html_support.h"
#include "support/display.h"
#include "support/instrumented.h"
#include "support/sandbox.h"

namespace {

using namespace zr::test;

std::u16string wide(int number) {
    const std::string text = std::to_string(number);
    return {text.begin(), text.end()};
}

bool has(HtmlParent& parent, const std::u16string& id) {
    return static_cast<bool>(element(parent.document().get(), id.c_str()));
}

std::u16string evaluated(HtmlParent& parent, const WCHAR* script) {
    Value value;
    if (FAILED(eval(parent.document().get(), script, &value))) return u"failed";
    if (value.vt == VT_I4) return wide(value.lVal);
    return value.text();
}

TEST(HtmlPages, InARowAreNotTakenForOneAnother) {
    HtmlParent parent;
    const HRESULT shown = parent.show(u"<p id=p0>");
    ZR_NEEDS_ENGINE(shown);
    std::mt19937 random(4711);
    int last = 0;
    for (int round = 0; round < 60; ++round) {
        for (auto left = random() % 4; left > 0; --left) {
            const std::u16string id = u"p" + wide(++last);
            const std::u16string page = u"<title>" + id + u"</title><p id=" + id + u"><img src='cid:" + id + u"'>";
            if (random() % 3 == 0) SendMessageW(parent.control(), DTM_CLEAR, 0, 0);
            ASSERT_EQ(parent.begin(page.c_str()), S_OK);
            if (random() % 2 == 0) {
                ASSERT_TRUE(has(parent, id));
            }
        }
        const std::u16string id = u"p" + wide(++last);
        const std::u16string page = u"<title>" + id + u"</title><p id=" + id + u">";
        parent.told.clear();
        ASSERT_EQ(parent.show(page.c_str()), S_OK);
        ASSERT_EQ(parent.count(NM_TITLE), 1);
        EXPECT_EQ(parent.told.front().target, id);
        ASSERT_EQ(parent.count(NM_DOCUMENTCOMPLETE), 1);
        ASSERT_TRUE(has(parent, id));
        ASSERT_FALSE(has(parent, u"p" + wide(last - 1)));
    }
}

TEST(HtmlPages, MayBeGivenInPartsThatEndAnywhere) {
    HtmlParent parent;
    const std::string bytes =
        "<p id=p>Gr\xC3\xBC\xC3\x9F"
        "e \xF0\x9D\x84\x9E \xFF</p>";
    for (const char byte : bytes) {
        const char part[] = {byte, 0};
        ASSERT_EQ(parent.send(DTM_ADDTEXT, FALSE, part), S_OK);
    }
    const HRESULT shown = parent.send(DTM_ENDOFSOURCE, 0, u"");
    ZR_NEEDS_ENGINE(shown);
    EXPECT_EQ(evaluated(parent, u"document.all.p.textContent"), u"Grüße 𝄞 \uFFFD");

    SendMessageW(parent.control(), DTM_CLEAR, 0, 0);
    for (const char16_t unit : std::u16string_view(u"<p id=p>ß𝄞\xDC00 \xD800")) {
        const WCHAR part[] = {unit, 0};
        ASSERT_EQ(parent.send(DTM_ADDTEXTW, FALSE, part), S_OK);
    }
    ASSERT_EQ(parent.send(DTM_ADDTEXT, FALSE, "x"), S_OK);
    ASSERT_EQ(parent.send(DTM_ADDTEXTW, FALSE, u"\xD834"), S_OK);
    ASSERT_EQ(parent.send(DTM_ENDOFSOURCE, 0, u""), S_OK);
    EXPECT_EQ(evaluated(parent, u"document.all.p.textContent"), u"ß𝄞\uFFFD \uFFFDx\uFFFD");
}

// It stays, or it is gone with a clear error; what it went to is never taken for it.
TEST(HtmlPages, ThatGoElsewhereAreNotReplacedUnseen) {
    HtmlParent parent;
    const HRESULT shown = parent.show(u"<p id=p>");
    ZR_NEEDS_ENGINE(shown);
    SendMessageW(parent.control(), DTM_ENABLESCRIPTING, 0, TRUE);
    for (const WCHAR* const page :
         {u"<meta http-equiv=refresh content='0;url=data:text/html,<p id=q>there'><p id=p>here",
          u"<meta http-equiv=refresh content='0;url=about:blank'><p id=p>here",
          u"<p id=p>here<script>location = 'about:srcdoc'</script>",
          u"<p id=p>here<script>setTimeout(() => location.replace('data:text/html,<p id=q>'), 1)</script>",
          u"<p id=p>here<iframe srcdoc=\"<script>top.location = 'data:text/html,<p id=q>'</script>\"></iframe>",
          u"<p id=p>here<form id=f action='about:blank'></form><script>document.all.f.submit()</script>"}) {
        parent.begin(page);
        const Ptr<IDispatchEx> document = parent.document();
        for (int i = 0; i < 40; ++i) {
            Value here;
            const HRESULT result = eval(document.get(), u"document.getElementById('p') ? 1 : 0", &here);
            if (FAILED(result)) {
                EXPECT_EQ(result, document ? RPC_E_DISCONNECTED : E_POINTER);
                break;
            }
            ASSERT_EQ(here.lVal, 1);
            ZrHtmlWait(parent.control(), 5);
        }
        ASSERT_EQ(parent.show(u"<p id=n>next"), S_OK);
        ASSERT_TRUE(has(parent, u"n"));
    }
    // What goes elsewhere within it takes nothing along.
    ASSERT_EQ(parent.show(u"<p id=p>here<iframe srcdoc=\"<script>location = 'data:text/html,x'</script>\"></iframe>"
                          u"<iframe src='data:text/html,<meta http-equiv=refresh content=0>'></iframe>"
                          u"<script>document.open; open('about:blank'); history.pushState(1, '', '#x');</script>"),
              S_OK);
    ASSERT_TRUE(has(parent, u"p"));
    // A document that is written anew by its script is the same one.
    EXPECT_EQ(eval(parent.document().get(), u"document.open(); document.write('<p id=w>'); document.close()", nullptr),
              S_OK);
    EXPECT_TRUE(has(parent, u"w"));
}

TEST(HtmlPages, OfAHundredThousandElementsAndFiftyMegabytes) {
    constexpr std::size_t kLong = (std::size_t{25} << 20) / zr::test::kStride;
    HtmlParent parent;
    std::u16string page;
    for (int i = 0; i < 100'000; ++i) {
        page += u"<b>" + wide(i) + u"</b>";
    }
    const HRESULT shown = parent.show(page.c_str());
    ZR_NEEDS_ENGINE(shown);
    EXPECT_EQ(evaluated(parent, u"document.getElementsByTagName('b').length"), u"100000");
    EXPECT_EQ(evaluated(parent, u"document.getElementsByTagName('b')[99999].textContent"), u"99999");
    page = u"<p id=p style='display:none'>" + std::u16string(kLong, u'ü') + u"</p><p id=q>end";
    ASSERT_EQ(parent.show(page.c_str()), S_OK);
    EXPECT_EQ(evaluated(parent, u"document.all.p.textContent.length"), wide(int{kLong}));
    Value text;
    const Ptr<IDispatchEx> paragraph = element(parent.document().get(), u"p");
    EXPECT_EQ(get(paragraph.get(), id_of(paragraph.get(), u"textContent"), &text), S_OK);
    EXPECT_EQ(text.text().size(), kLong);
    EXPECT_TRUE(has(parent, u"q"));
}

// What no parser would call a page is shown all the same, and can be asked.
TEST(HtmlPages, MayBeBroken) {
    HtmlParent parent;
    const HRESULT shown = parent.show(u"<p id=p>");
    ZR_NEEDS_ENGINE(shown);
    std::u16string deep;
    for (int i = 0; i < 50'000; ++i) {
        deep += i % 2 == 0 ? u"<div>" : u"<table><td>";
    }
    const std::u16string pages[] = {
        u"",
        u"<",
        u"<!--",
        u"<title>never closed <p id=p>",
        u"<script>never closed",
        u"<style>p{",
        u"<plaintext><p>",
        u"<table><p id=p>a<tr><b><td>x</b><table><td></table></tr></p></i></td>",
        u"<b><p><i>x</b>y</p></i></form></body></html><p id=p>after",
        u"<p id=p id=q id='" + std::u16string(1 << 20, u'x') + u"'>",
        u"<base href='http://x.example/'><a href=y>z</a><img src=//x.example/i.png>",
        u"<meta charset=utf-7><meta http-equiv=Content-Security-Policy content=\"default-src 'none'\"><p id=p>",
        u"<frameset cols=*><frame src='http://x.example/'></frameset>",
        u"<object data=x.bin></object><embed src=y><applet code=z></applet><marquee>m</marquee>",
        u"&#0;&#x110000;&#xD800;&nosuch;\uFFFF\uFEFF<p id=p\u0001=x>",
        deep,
    };
    for (const std::u16string& page : pages) {
        ASSERT_EQ(parent.show(page.c_str()), S_OK) << page.size();
        ASSERT_EQ(evaluated(parent, u"document.body ? 1 : 0"), u"1") << page.size();
    }
    ASSERT_EQ(parent.show(u"<p id=n>"), S_OK);
    EXPECT_TRUE(has(parent, u"n"));
}

TEST(HtmlPages, AreLaidOutScrolledAndGivenBitmaps) {
    HtmlParent parent;
    HBITMAP bitmap = nullptr;
    parent.answer = [&](const Told& image) -> LRESULT {
        const HDC screen = GetDC(nullptr);
        bitmap = CreateCompatibleBitmap(screen, 7, 3);
        ReleaseDC(nullptr, screen);
        EXPECT_NE(bitmap, nullptr);
        INLINEIMAGEINFO info{};
        info.dwCookie = image.cookie;
        info.hbm = bitmap;
        info.bOwnBitmap = TRUE;
        return SendMessageW(parent.control(), DTM_SETIMAGE, 0, reinterpret_cast<LPARAM>(&info));
    };
    EXPECT_EQ(SendMessageW(parent.control(), DTM_LAYOUTWIDTH, 0, 0), 0);
    const HRESULT shown = parent.show(
        u"<body style='margin:0'><img id=i src='cid:i'><div style='width:500px;height:2000px'></div><a name=n>n</a>"
        u"<p id='ü'>");
    ZR_NEEDS_ENGINE(shown);
    EXPECT_EQ(SendMessageW(parent.control(), DTM_LAYOUTWIDTH, 0, 0), 500);
    EXPECT_GT(SendMessageW(parent.control(), DTM_LAYOUTHEIGHT, 0, 0), 2000);
    EXPECT_EQ(evaluated(parent, u"document.all.i.naturalWidth * 10 + document.all.i.naturalHeight"), u"73");
    EXPECT_FALSE(DeleteObject(bitmap)) << "the control has deleted it";
    EXPECT_EQ(evaluated(parent, u"scrollY"), u"0");
    EXPECT_EQ(parent.send(DTM_ANCHORW, 0, u"n"), S_OK);
    EXPECT_NE(evaluated(parent, u"scrollY"), u"0");
    EXPECT_EQ(parent.send(DTM_ANCHOR, 0, "\xC3\xBC"), S_OK);
    EXPECT_EQ(parent.send(DTM_ANCHORW, 0, u"'\");none"), HRESULT_FROM_WIN32(ERROR_NOT_FOUND));
    EXPECT_EQ(SendMessageW(parent.control(), DTM_SETIMAGE, 0, 0), FALSE);
}

TEST(HtmlPages, MembersAreListedAndDeleted) {
    HtmlParent parent;
    const HRESULT shown = parent.show(u"<p id=p>");
    ZR_NEEDS_ENGINE(shown);
    const Ptr<IDispatchEx> paragraph = element(parent.document().get(), u"p");
    ASSERT_TRUE(paragraph);
    EXPECT_EQ(put(paragraph.get(), id_of(paragraph.get(), u"ours"), u"x"), S_OK);
    const DISPID ours = id_of(paragraph.get(), u"ours", fdexNameCaseSensitive);
    DISPID at = DISPID_STARTENUM;
    int members = 0;
    bool is_listed = false;
    HRESULT next = S_OK;
    while ((next = paragraph->GetNextDispID(0, at, &at)) == S_OK && members < 5'000) {
        ++members;
        is_listed = is_listed || at == ours;
    }
    EXPECT_EQ(next, S_FALSE);
    EXPECT_TRUE(is_listed);
    EXPECT_GT(members, 50);
    const BSTR name = SysAllocString(u"ours");
    EXPECT_EQ(paragraph->DeleteMemberByName(name, fdexNameCaseSensitive), S_OK);
    EXPECT_EQ(paragraph->DeleteMemberByName(name, fdexNameCaseSensitive), S_OK);
    DISPID gone = 0;
    EXPECT_EQ(paragraph->GetDispID(name, fdexNameCaseSensitive, &gone), DISP_E_UNKNOWNNAME);
    SysFreeString(name);
    Value value;
    EXPECT_EQ(get(paragraph.get(), ours, &value), DISP_E_MEMBERNOTFOUND);
}

#ifdef ZR_ENGINE_ALONE
// The page as the engine draws it when nobody stands between.
TEST(HtmlPages, LookAsTheEngineDrawsThemByItself) {
    const XServer display("640x480x24", 96);
    if (!display.why().empty()) GTEST_SKIP() << display.why();
    const std::string page =
        "<!DOCTYPE html><body style='margin:7px;background:#eef'><h1 style='color:#a31'>News</h1><p>Text that is long "
        "enough to be broken into <b>several</b> lines, <a href='http://x.example/'>with a link</a>.</p><table "
        "border=1><tr><td>1<td>2</table><img width=30 height=20 alt=none>";
    const std::filesystem::path folder = std::getenv("XDG_RUNTIME_DIR");
    {
        HtmlParent parent;
        const std::u16string source(page.begin(), page.end());
        const HRESULT shown = parent.show(source.c_str());
        ZR_NEEDS_ENGINE(shown);
        BYTE* png = nullptr;
        SIZE_T size = 0;
        ASSERT_EQ(ZrHtmlDraw(parent.control(), 240, 320, &png, &size), S_OK);
        std::ofstream(folder / "shown.png", std::ios::binary)
            .write(reinterpret_cast<const char*>(png), static_cast<std::streamsize>(size));
        CoTaskMemFree(png);
    }
    const auto looks_alike = [&](const std::string& source) {
        std::ofstream(folder / "page.html") << source;
        const std::string command = "cd " + folder.string() + " && DISPLAY=" + display.name() +
                                    " GDK_BACKEND=x11 GTK_THEME=Adwaita NO_AT_BRIDGE=1 GSETTINGS_BACKEND=memory "
                                    "LIBGL_ALWAYS_SOFTWARE=1 WEBKIT_DISABLE_COMPOSITING_MODE=1 HOME=. "
                                    "XDG_CACHE_HOME=. XDG_DATA_HOME=. " ZR_ENGINE_ALONE
                                    " shown.png <page.html >/dev/null 2>&1";
        return std::system(command.c_str()) == 0;
    };
    EXPECT_TRUE(looks_alike(page));
    EXPECT_FALSE(looks_alike(page + "<p>more"));
}
#endif

}  // namespace
