#include "ZrUtility/Helpers/HTMLScriptUtilities.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/com.h"
#include "platform/html.h"
#include "platform/windowing.h"
#include "support/failing_new.h"

namespace {

// What the control and its document did, in order.
using Steps = std::vector<std::string>;

// Late binding that nobody asks for.
template <class Face>
class Unbound : public Face {
public:
    HRESULT GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
    HRESULT GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    HRESULT Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override { return E_NOTIMPL; }

protected:
    ~Unbound() = default;
};

// A document that runs scripts: two objects with a count each, so that one can go before the other.
class ScriptRunner final : public Unbound<IScriptControl> {
public:
    explicit ScriptRunner(Steps& steps) : steps_(steps) {}
    HRESULT QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
    ULONG AddRef() override { return ++references; }
    ULONG Release() override {
        steps_.emplace_back("release runner");
        return --references;
    }
    HRESULT Eval(BSTR script, VARIANT* value) override {
        steps_.emplace_back("run");
        pointer = script;
        text = script;
        type_before = value->vt;
        if (returned) {
            returned->AddRef();
            value->vt = VT_UNKNOWN;
            value->punkVal = returned;
        }
        return result;
    }
    HRESULT get_Language(BSTR*) override { return E_NOTIMPL; }
    HRESULT put_Language(BSTR) override { return E_NOTIMPL; }
    HRESULT get_State(LONG*) override { return E_NOTIMPL; }
    HRESULT put_State(LONG) override { return E_NOTIMPL; }
    HRESULT put_SitehWnd(LONG_PTR) override { return E_NOTIMPL; }
    HRESULT get_SitehWnd(LONG_PTR*) override { return E_NOTIMPL; }
    HRESULT get_Timeout(LONG*) override { return E_NOTIMPL; }
    HRESULT put_Timeout(LONG) override { return E_NOTIMPL; }
    HRESULT get_AllowUI(VARIANT_BOOL*) override { return E_NOTIMPL; }
    HRESULT put_AllowUI(VARIANT_BOOL) override { return E_NOTIMPL; }
    HRESULT get_UseSafeSubset(VARIANT_BOOL*) override { return E_NOTIMPL; }
    HRESULT put_UseSafeSubset(VARIANT_BOOL) override { return E_NOTIMPL; }
    HRESULT get_Modules(IUnknown**) override { return E_NOTIMPL; }
    HRESULT get_Error(IUnknown**) override { return E_NOTIMPL; }
    HRESULT get_CodeObject(IDispatch**) override { return E_NOTIMPL; }
    HRESULT get_Procedures(IUnknown**) override { return E_NOTIMPL; }
    HRESULT _AboutBox() override { return E_NOTIMPL; }
    HRESULT AddObject(BSTR, IDispatch*, VARIANT_BOOL) override { return E_NOTIMPL; }
    HRESULT Reset() override { return E_NOTIMPL; }
    HRESULT AddCode(BSTR) override { return E_NOTIMPL; }
    HRESULT ExecuteStatement(BSTR) override { return E_NOTIMPL; }
    HRESULT Run(BSTR, void**, VARIANT*) override { return E_NOTIMPL; }

    ULONG references = 0;
    const WCHAR* pointer = nullptr;
    std::u16string text;
    VARTYPE type_before = VT_ERROR;
    IUnknown* returned = nullptr;
    HRESULT result = S_OK;

private:
    Steps& steps_;
};

class ScriptedDocument final : public Unbound<IDispatch> {
public:
    explicit ScriptedDocument(Steps& steps) : runner(steps), steps_(steps) {}
    HRESULT QueryInterface(REFIID iid, void** object) override {
        steps_.emplace_back("query");
        queried = iid;
        *object = nullptr;
        if (!hands_out) return query_result;
        runner.AddRef();
        *object = static_cast<IScriptControl*>(&runner);
        return query_result;
    }
    ULONG AddRef() override { return ++references; }
    ULONG Release() override {
        steps_.emplace_back("release document");
        return --references;
    }

    ScriptRunner runner;
    ULONG references = 0;
    IID queried{};
    bool hands_out = true;
    HRESULT query_result = S_OK;

private:
    Steps& steps_;
};

// A control on a real window: it answers the query for its document.
class HtmlScripts : public testing::Test {
protected:
    HtmlScripts() {
        WNDCLASSW description{};
        description.lpfnWndProc = answer;
        description.lpszClassName = u"html.scripts.test";
        RegisterClassW(&description);
        control =
            CreateWindowExW(0, description.lpszClassName, nullptr, 0, 0, 0, 0, 0, nullptr, nullptr, nullptr, nullptr);
        SetWindowLongPtrW(control, GWLP_USERDATA, reinterpret_cast<LONG_PTR>(this));
    }
    ~HtmlScripts() override {
        if (IsWindow(control)) DestroyWindow(control);
        EXPECT_EQ(document.references, 0u);
        EXPECT_EQ(document.runner.references, 0u);
    }

    static LRESULT answer(HWND window, UINT message, WPARAM wparam, LPARAM lparam) {
        if (message != 1146) return DefWindowProcW(window, message, wparam, lparam);
        auto& self = *reinterpret_cast<HtmlScripts*>(GetWindowLongPtrW(window, GWLP_USERDATA));
        self.steps.emplace_back("document");
        self.wparam = wparam;
        if (!self.has_document) return 0;
        self.document.AddRef();
        *reinterpret_cast<IDispatch**>(lparam) = &self.document;
        return 0;
    }

    Steps steps;
    ScriptedDocument document{steps};
    HWND control = nullptr;
    WPARAM wparam = 99;
    bool has_document = true;
};

TEST_F(HtmlScripts, AreRunByTheDocument) {
    const WCHAR script[] = u"1 + 1";
    document.runner.result = S_FALSE;
    EXPECT_EQ(HTMLScriptUtilities::ExecuteCommand(control, script), S_FALSE);
    EXPECT_EQ(steps, (Steps{"document", "query", "release document", "run", "release runner"}));
    EXPECT_EQ(wparam, 0u);
    EXPECT_EQ(document.queried, (IID{0x0E59F1D3, 0x1FBE, 0x11D0, {0x8F, 0xF2, 0x00, 0xA0, 0xD1, 0x00, 0x38, 0xBC}}));
    EXPECT_EQ(document.runner.pointer, script);
    EXPECT_EQ(document.runner.type_before, VT_EMPTY);
}

TEST_F(HtmlScripts, WantAControlAndAText) {
    EXPECT_EQ(HTMLScriptUtilities::ExecuteCommand(nullptr, u"x"), E_INVALIDARG);
    EXPECT_EQ(HTMLScriptUtilities::ExecuteCommand(control, nullptr), E_INVALIDARG);
    for (const auto run : {HTMLScriptUtilities::RefreshImageById, HTMLScriptUtilities::FocusByHref}) {
        EXPECT_EQ(run(control, nullptr), E_INVALIDARG);
        EXPECT_EQ(run(nullptr, u"x"), E_INVALIDARG);
        EXPECT_EQ(run(nullptr, nullptr), E_INVALIDARG);
    }
    EXPECT_TRUE(steps.empty());
    EXPECT_EQ(static_cast<std::uint32_t>(E_INVALIDARG), 0x80070057u);
}

TEST_F(HtmlScripts, WantADocument) {
    has_document = false;
    for (const auto run : {HTMLScriptUtilities::ExecuteCommand, HTMLScriptUtilities::RefreshImageById,
                           HTMLScriptUtilities::FocusByHref}) {
        EXPECT_EQ(run(control, u"x"), E_FAIL);
    }
    EXPECT_EQ(static_cast<std::uint32_t>(E_FAIL), 0x80004005u);
    EXPECT_EQ(steps, (Steps{"document", "document", "document"}));
    // A window that is no control, and a control that is no more.
    EXPECT_EQ(HTMLScriptUtilities::ExecuteCommand(GetDesktopWindow(), u"x"), E_FAIL);
    DestroyWindow(control);
    EXPECT_EQ(HTMLScriptUtilities::ExecuteCommand(control, u"x"), E_FAIL);
}

TEST_F(HtmlScripts, WantADocumentThatRunsThem) {
    document.hands_out = false;
    document.query_result = E_NOINTERFACE;
    EXPECT_EQ(HTMLScriptUtilities::ExecuteCommand(control, u"x"), E_NOINTERFACE);
    EXPECT_EQ(steps, (Steps{"document", "query", "release document"}));
    document.query_result = S_OK;
    EXPECT_EQ(HTMLScriptUtilities::ExecuteCommand(control, u"x"), E_UNEXPECTED);
    document.query_result = S_FALSE;
    EXPECT_EQ(HTMLScriptUtilities::ExecuteCommand(control, u"x"), E_UNEXPECTED);
    EXPECT_EQ(static_cast<std::uint32_t>(E_UNEXPECTED), 0x8000FFFFu);
}

TEST_F(HtmlScripts, MayFail) {
    document.runner.result = DISP_E_EXCEPTION;
    EXPECT_EQ(HTMLScriptUtilities::ExecuteCommand(control, u"x"), DISP_E_EXCEPTION);
    EXPECT_EQ(HTMLScriptUtilities::RefreshImageById(control, u"x"), DISP_E_EXCEPTION);
    EXPECT_EQ(HTMLScriptUtilities::FocusByHref(control, u"x"), DISP_E_EXCEPTION);
}

TEST_F(HtmlScripts, LeaveNoValueBehind) {
    Steps other_steps;
    ScriptedDocument other(other_steps);
    document.runner.returned = &other;
    EXPECT_EQ(HTMLScriptUtilities::ExecuteCommand(control, u"document"), S_OK);
    EXPECT_EQ(other_steps, Steps{"release document"});
    EXPECT_EQ(other.references, 0u);
}

TEST_F(HtmlScripts, RefreshAnImage) {
    EXPECT_EQ(HTMLScriptUtilities::RefreshImageById(control, u"photo"), S_OK);
    EXPECT_EQ(document.runner.text, u"var elem = document.all['photo'];elem.src = elem.src;");
    EXPECT_EQ(HTMLScriptUtilities::RefreshImageById(control, u""), S_OK);
    EXPECT_EQ(document.runner.text, u"var elem = document.all[''];elem.src = elem.src;");
}

TEST_F(HtmlScripts, FocusALink) {
    EXPECT_EQ(HTMLScriptUtilities::FocusByHref(control, u"http://example.org/?a=%20b"), S_OK);
    EXPECT_EQ(document.runner.text,
              u"for (var i = 0; i < document.anchors.length; i += 1){if (document.anchors[i].href == "
              u"'http://example.org/?a=%20b'){document.anchors[i].focus();}}");
}

TEST_F(HtmlScripts, TakeTextAsItIs) {
    EXPECT_EQ(HTMLScriptUtilities::RefreshImageById(control, u"a'];alert('x\\n%s\xD800"), S_OK);
    EXPECT_EQ(document.runner.text, u"var elem = document.all['a'];alert('x\\n%s\xD800'];elem.src = elem.src;");
}

// What wsprintfW stores.
TEST_F(HtmlScripts, EndAfter1023Characters) {
    const std::u16string head = u"var elem = document.all['";
    const std::u16string tail = u"'];elem.src = elem.src;";
    const std::size_t room = 1023 - head.size() - tail.size();
    const std::u16string fits(room, u'x');
    EXPECT_EQ(HTMLScriptUtilities::RefreshImageById(control, fits.c_str()), S_OK);
    EXPECT_EQ(document.runner.text, head + fits + tail);
    for (const std::size_t length : {room + 1, std::size_t{1023}, std::size_t{1'000'000}}) {
        const std::u16string id(length, u'x');
        EXPECT_EQ(HTMLScriptUtilities::RefreshImageById(control, id.c_str()), S_OK);
        EXPECT_EQ(document.runner.text, (head + id + tail).substr(0, 1023));
    }
}

TEST_F(HtmlScripts, WantMemoryForATemplateAlone) {
    for (const auto run : {HTMLScriptUtilities::RefreshImageById, HTMLScriptUtilities::FocusByHref}) {
        steps.clear();
        LONG result = S_OK;
        {
            const zr::test::FailingNew failing;
            result = run(control, u"x");
        }
        EXPECT_EQ(result, E_OUTOFMEMORY);
        EXPECT_TRUE(steps.empty());
    }
}

TEST_F(HtmlScripts, LeaveNoBufferBehind) {
    EXPECT_EQ(HTMLScriptUtilities::FocusByHref(control, u"x"), S_OK);
    document.runner.text.reserve(1000);
    steps.clear();
    steps.reserve(100);
    const long before = zr::test::live_news();
    EXPECT_EQ(HTMLScriptUtilities::RefreshImageById(control, u"x"), S_OK);
    document.runner.result = E_FAIL;
    EXPECT_EQ(HTMLScriptUtilities::FocusByHref(control, u"x"), E_FAIL);
    has_document = false;
    EXPECT_EQ(HTMLScriptUtilities::FocusByHref(control, u"x"), E_FAIL);
    steps.clear();
    EXPECT_EQ(zr::test::live_news(), before);
}

}  // namespace
