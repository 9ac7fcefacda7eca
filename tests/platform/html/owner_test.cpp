#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <set>
#include <string>
#include <utility>

#include "html_support.h"

namespace {

using namespace zr::test;

// A picture of one red pixel.
constexpr unsigned char kPixel[] = {0x89, 'P',  'N',  'G',  0x0D, 0x0A, 0x1A, 0x0A, 0,    0,    0,    0x0D, 'I',  'H',
                                    'D',  'R',  0,    0,    0,    1,    0,    0,    0,    1,    8,    2,    0,    0,
                                    0,    0x90, 0x77, 0x53, 0xDE, 0,    0,    0,    0x0C, 'I',  'D',  'A',  'T',  8,
                                    0xD7, 0x63, 0xF8, 0xCF, 0xC0, 0,    0,    3,    1,    1,    0,    0x18, 0xDD, 0x8D,
                                    0xB0, 0,    0,    0,    0,    'I',  'E',  'N',  'D',  0xAE, 0x42, 0x60, 0x82};

// A server of this computer that notices whoever comes.
class Server {
public:
    Server() : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
        sockaddr_in place{};
        place.sin_family = AF_INET;
        place.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(socket_, reinterpret_cast<sockaddr*>(&place), sizeof place), 0);
        EXPECT_EQ(listen(socket_, 64), 0);
        socklen_t size = sizeof place;
        EXPECT_EQ(getsockname(socket_, reinterpret_cast<sockaddr*>(&place), &size), 0);
        const std::string port = std::to_string(ntohs(place.sin_port));
        address_ = u"http://127.0.0.1:" + std::u16string(port.begin(), port.end());
    }
    ~Server() { close(socket_); }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    const std::u16string& address() const { return address_; }
    bool was_visited() {
        const int visitor = accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC);
        if (visitor >= 0) close(visitor);
        return visitor >= 0;
    }

private:
    int socket_;
    std::u16string address_;
};

int times(const HtmlParent& parent, std::u16string_view target) {
    return static_cast<int>(std::count_if(parent.told.begin(), parent.told.end(), [&](const Told& one) {
        return one.code == NM_INLINE_IMAGE && one.target == target;
    }));
}

int width_of(IDispatchEx* document, const WCHAR* id) {
    const Ptr<IDispatchEx> image = element(document, id);
    Value width;
    EXPECT_EQ(get(image.get(), id_of(image.get(), u"naturalWidth"), &width), S_OK);
    return width.vt == VT_I4 ? width.lVal : -1;
}

// Images come from the owner, and from nowhere else; links are told and not followed.
TEST(HtmlOwner, GivesImagesAndIsToldOfLinks) {
    HtmlParent parent;
    parent.answer = [&](const Told& image) -> LRESULT {
        if (image.target == u"cid:none") return FALSE;
        if (image.target == u"cid:taken-back") {
            SendMessageW(parent.control(), DTM_IMAGEFAIL, image.cookie, 0);
            return TRUE;
        }
        EXPECT_EQ(ZrHtmlSetImage(parent.control(), image.cookie, kPixel, sizeof kPixel, u"image/png"), S_OK);
        EXPECT_EQ(ZrHtmlSetImage(parent.control(), image.cookie, kPixel, sizeof kPixel, nullptr), E_INVALIDARG);
        return TRUE;
    };
    Server server;
    const std::u16string far = server.address();
    const std::u16string page =
        u"<img id=a src='cid:one'><img id=b src='cid:none'><img id=c src='cid:taken-back'>"
        u"<img id=d src='" +
        far + u"/far.png'><link rel=stylesheet href='" + far + u"/s.css'><link rel=preconnect href='" + far +
        u"'><iframe src='" + far + u"/f'></iframe><style>@font-face{font-family:f;src:url(" + far +
        u"/font)}p{font-family:f;background:url(" + far +
        u"/ground.png)}</style><p>text</p>"
        u"<iframe src='file:///etc/passwd'></iframe>"
        u"<a id=l href='http://x.example/there'>link</a>";
    const HRESULT shown = parent.show(page.c_str());
    ZR_NEEDS_ENGINE(shown);
    EXPECT_EQ(times(parent, u"cid:one"), 1);
    EXPECT_EQ(times(parent, far + u"/far.png"), 1);
    EXPECT_EQ(parent.count(NM_INLINE_IMAGE), 5);  // the ground, too
    EXPECT_FALSE(server.was_visited());
    const Ptr<IDispatchEx> document = parent.document();
    ASSERT_TRUE(document);
    EXPECT_EQ(width_of(document.get(), u"a"), 1);
    EXPECT_EQ(width_of(document.get(), u"b"), 0);
    EXPECT_EQ(width_of(document.get(), u"c"), 0);
    EXPECT_EQ(width_of(document.get(), u"d"), 1);

    // The same source again asks again.
    EXPECT_EQ(eval(document.get(), u"var elem = document.all['b'];elem.src = elem.src;", nullptr), S_OK);
    EXPECT_TRUE(pump_until([&] { return times(parent, u"cid:none") == 2; }));
    EXPECT_EQ(eval(document.get(), u"var elem = document.all['a'];elem.src = elem.src;", nullptr), S_OK);
    EXPECT_TRUE(pump_until([&] { return times(parent, u"cid:one") == 2; }));
    const Ptr<IDispatchEx> link = element(document.get(), u"l");
    DISPPARAMS none{};
    EXPECT_EQ(link->InvokeEx(id_of(link.get(), u"click"), 0, DISPATCH_METHOD, &none, nullptr, nullptr, nullptr), S_OK);
    EXPECT_TRUE(pump_until([&] { return parent.count(NM_HOTSPOT) > 0; }));
    ASSERT_EQ(parent.count(NM_HOTSPOT), 1);
    const auto link_told =
        std::find_if(parent.told.begin(), parent.told.end(), [](const Told& one) { return one.code == NM_HOTSPOT; });
    EXPECT_EQ(link_told->target, u"http://x.example/there");
    // It stayed where it was.
    EXPECT_EQ(width_of(document.get(), u"d"), 1);
    EXPECT_FALSE(server.was_visited());

    // Only where it is allowed, and files never.
    for (const WCHAR* const address : {u"file:///etc/passwd", u"http://127.0.0.1/", u"javascript:1"}) {
        EXPECT_FALSE(SendMessageW(parent.control(), DTM_NAVIGATE, 0, reinterpret_cast<LPARAM>(address)));
        EXPECT_EQ(GetLastError(), ERROR_ACCESS_DENIED);
    }
    EXPECT_EQ(ZrHtmlAllowRemote(parent.control(), TRUE), S_OK);
    const std::u16string remote = u"<img src='" + far + u"/far.png'>";
    EXPECT_TRUE(SendMessageW(parent.control(), WM_SETTEXT, 0, reinterpret_cast<LPARAM>(remote.c_str())));
    EXPECT_TRUE(pump_until([&] { return server.was_visited(); }));
}

// What the page keeps for us is what somebody here holds; the document before is gone.
TEST(HtmlOwner, HoldsObjectsAndLosesThemWithTheDocument) {
    HtmlParent parent;
    const HRESULT shown = parent.show(u"<p id=p>one</p><p id=q title='a\"b'>two</p>");
    ZR_NEEDS_ENGINE(shown);
    Ptr<IDispatchEx> document = parent.document();
    ASSERT_TRUE(document);
    EXPECT_EQ(ZrHtmlLiveObjects(parent.control()), 1);
    const LONGLONG before = ZrLiveObjects(ZrLiveKind::Interfaces);
    {
        Ptr<IDispatchEx> first = element(document.get(), u"p");
        const Ptr<IDispatchEx> again = element(document.get(), u"p");
        const Ptr<IDispatchEx> other = element(document.get(), u"q");
        EXPECT_EQ(first.get(), again.get());
        EXPECT_NE(first.get(), other.get());
        EXPECT_EQ(ZrHtmlLiveObjects(parent.control()), 3);
        first.reset();
        EXPECT_EQ(ZrHtmlLiveObjects(parent.control()), 3);
        Value parent_of;
        EXPECT_EQ(get(other.get(), id_of(other.get(), u"ownerDocument"), &parent_of), S_OK);
        EXPECT_EQ(parent_of.pdispVal, document.get());
        Value text;
        EXPECT_EQ(get(other.get(), id_of(other.get(), u"TITLE", fdexNameCaseInsensitive), &text), S_OK);
        EXPECT_EQ(text.text(), u"a\"b");
        Value missing;
        EXPECT_EQ(get(other.get(), id_of(other.get(), u"noSuchMember"), &missing), DISP_E_MEMBERNOTFOUND);
        EXPECT_EQ(get(other.get(), 4711, &missing), DISP_E_MEMBERNOTFOUND);
    }
    EXPECT_EQ(ZrHtmlLiveObjects(parent.control()), 1);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Interfaces), before);

    // Texts that are no text elsewhere.
    Value odd;
    EXPECT_EQ(eval(document.get(), u"document.all.p.title = 'a\\0b\\ud800c'; 1", &odd), S_OK);
    const Ptr<IDispatchEx> paragraph = element(document.get(), u"p");
    Value title;
    EXPECT_EQ(get(paragraph.get(), id_of(paragraph.get(), u"title"), &title), S_OK);
    EXPECT_EQ(title.text(), std::u16string(u"a\0b\xD800"
                                           u"c",
                                           5));
    EXPECT_EQ(put(paragraph.get(), id_of(paragraph.get(), u"title"), u"\xDC00'\"\\\n"), S_OK);
    Value back;
    EXPECT_EQ(get(paragraph.get(), id_of(paragraph.get(), u"title"), &back), S_OK);
    EXPECT_EQ(back.text(), u"\xDC00'\"\\\n");

    ASSERT_EQ(parent.show(u"<p id=p>next</p>"), S_OK);
    Value gone;
    EXPECT_EQ(get(paragraph.get(), ZR_DISPID_HTML_ID, &gone), RPC_E_DISCONNECTED);
    EXPECT_EQ(eval(document.get(), u"1", &gone), RPC_E_DISCONNECTED);
    const Ptr<IDispatchEx> next = parent.document();
    ASSERT_TRUE(next);
    EXPECT_NE(next.get(), document.get());
}

// A script without a proper end, too.
TEST(HtmlOwner, GetsValuesOfAllKinds) {
    HtmlParent parent;
    const HRESULT shown = parent.show(u"<p id=p>one</p>");
    ZR_NEEDS_ENGINE(shown);
    const Ptr<IDispatchEx> document = parent.document();
    ASSERT_TRUE(document);
    Value number, truth, nothing, object;
    EXPECT_EQ(eval(document.get(), u"1.5", &number), S_OK);
    EXPECT_EQ(number.vt, VT_R8);
    EXPECT_EQ(number.dblVal, 1.5);
    for (const auto& [script, value] : {std::pair(u"-1.25e300", -1.25e300), std::pair(u"5e-324", 5e-324),
                                        std::pair(u"-1/0", -std::numeric_limits<double>::infinity())}) {
        Value other;
        EXPECT_EQ(eval(document.get(), script, &other), S_OK);
        EXPECT_EQ(other.vt, VT_R8);
        EXPECT_EQ(other.dblVal, value);
    }
    Value none;
    EXPECT_EQ(eval(document.get(), u"0/0", &none), S_OK);
    EXPECT_TRUE(std::isnan(none.dblVal));
    EXPECT_EQ(eval(document.get(), u"1 < 2", &truth), S_OK);
    EXPECT_EQ(truth.boolVal, VARIANT_TRUE);
    EXPECT_EQ(eval(document.get(), u"null", &nothing), S_OK);
    EXPECT_EQ(nothing.vt, VT_NULL);
    EXPECT_EQ(eval(document.get(), u"[1, 'x']", &object), S_OK);
    EXPECT_EQ(object.text(), u"[1,\"x\"]");
    EXPECT_EQ(eval(document.get(), u"throw 'thrown'", nullptr), DISP_E_EXCEPTION);
}

TEST(HtmlOwner, LeavesTheDocumentsScriptsOutUntilTheyAreEnabled) {
    HtmlParent parent;
    const WCHAR* const scripted =
        u"<p id=p>before</p><script>document.getElementById('p').id = 'ran'</script>"
        u"<img src=x onerror=\"document.body.id='ran-too'\">";
    const HRESULT shown = parent.show(scripted);
    ZR_NEEDS_ENGINE(shown);
    EXPECT_TRUE(element(parent.document().get(), u"p"));
    SendMessageW(parent.control(), DTM_ENABLESCRIPTING, 0, TRUE);
    ASSERT_EQ(parent.show(scripted), S_OK);
    EXPECT_TRUE(element(parent.document().get(), u"ran"));
    SendMessageW(parent.control(), DTM_CLEAR, 0, 0);
    EXPECT_FALSE(parent.document());
}

}  // namespace
