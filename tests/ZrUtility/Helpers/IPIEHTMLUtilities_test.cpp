#include "ZrUtility/Helpers/IPIEHTMLUtilities.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "platform/com.h"

namespace {

// What a test's object was asked last.
struct AskedProperty {
    int times = 0;
    DISPID id = 0;
    LCID locale = 99;
    WORD flags = 0;
    UINT arguments = 99;
    UINT named = 99;
    DISPID name = 0;
    VARTYPE argument_type = VT_EMPTY;
    const WCHAR* argument = nullptr;
    bool wants_result = false;
    VARTYPE result_type = VT_EMPTY;
    IUnknown* result_object = nullptr;
    bool wants_exception = true;
    bool has_caller = true;
};

// A scripted object, written by hand. Counts its references; lives on the test's stack.
class ScriptedObject final : public IDispatchEx {
public:
    ScriptedObject() = default;
    ~ScriptedObject() { EXPECT_EQ(references, 1u); }
    ScriptedObject(const ScriptedObject&) = delete;
    ScriptedObject& operator=(const ScriptedObject&) = delete;

    HRESULT QueryInterface(REFIID iid, void** object) override {
        ++queries;
        queried = iid;
        if (!object) return E_POINTER;
        *object = nullptr;
        if (refuses) return E_NOINTERFACE;
        *object = static_cast<IDispatchEx*>(this);
        AddRef();
        return query_result;
    }
    ULONG AddRef() override { return ++references; }
    ULONG Release() override { return --references; }

    HRESULT GetTypeInfoCount(UINT*) override { return E_NOTIMPL; }
    HRESULT GetTypeInfo(UINT, LCID, ITypeInfo**) override { return E_NOTIMPL; }
    HRESULT GetIDsOfNames(REFIID, LPOLESTR*, UINT, LCID, DISPID*) override { return E_NOTIMPL; }
    HRESULT Invoke(DISPID, REFIID, LCID, WORD, DISPPARAMS*, VARIANT*, EXCEPINFO*, UINT*) override { return E_NOTIMPL; }

    HRESULT GetDispID(BSTR, DWORD, DISPID*) override { return E_NOTIMPL; }
    HRESULT InvokeEx(DISPID id, LCID locale, WORD flags, DISPPARAMS* params, VARIANT* result, EXCEPINFO* exception,
                     IServiceProvider* caller) override {
        ++asked.times;
        asked.id = id;
        asked.locale = locale;
        asked.flags = flags;
        asked.arguments = params->cArgs;
        asked.named = params->cNamedArgs;
        if (params->cNamedArgs == 1) asked.name = params->rgdispidNamedArgs[0];
        if (params->cArgs == 1) {
            asked.argument_type = params->rgvarg[0].vt;
            asked.argument = params->rgvarg[0].bstrVal;
        }
        asked.wants_result = result != nullptr;
        if (result) {
            asked.result_type = result->vt;
            asked.result_object = result->punkVal;
        }
        asked.wants_exception = exception != nullptr;
        asked.has_caller = caller != nullptr;
        return answer(result);
    }
    HRESULT DeleteMemberByName(BSTR, DWORD) override { return E_NOTIMPL; }
    HRESULT DeleteMemberByDispID(DISPID) override { return E_NOTIMPL; }
    HRESULT GetMemberProperties(DISPID, DWORD, DWORD*) override { return E_NOTIMPL; }
    HRESULT GetMemberName(DISPID, BSTR*) override { return E_NOTIMPL; }
    HRESULT GetNextDispID(DWORD, DISPID, DISPID*) override { return E_NOTIMPL; }
    HRESULT GetNameSpaceParent(IUnknown**) override { return E_NOTIMPL; }

    // What a call answers; the result is NULL for a put.
    std::function<HRESULT(VARIANT*)> answer = [](VARIANT*) { return S_OK; };
    AskedProperty asked;
    ULONG references = 1;
    int queries = 0;
    IID queried{};
    bool refuses = false;
    HRESULT query_result = S_OK;
};

std::function<HRESULT(VARIANT*)> string_answer(const WCHAR* text, HRESULT result = S_OK) {
    return [=](VARIANT* value) {
        value->vt = VT_BSTR;
        value->bstrVal = SysAllocString(text);
        return result;
    };
}

std::function<HRESULT(VARIANT*)> object_answer(ScriptedObject& object, VARTYPE type, HRESULT result = S_OK) {
    return [=, &object](VARIANT* value) {
        object.AddRef();
        value->vt = type;
        value->punkVal = &object;
        return result;
    };
}

const WCHAR* const kUntouched = u"untouched";

// Frees what a get handed out.
std::u16string taken(const WCHAR* string) {
    if (!string) return u"(null)";
    std::u16string text(string, SysStringLen(const_cast<BSTR>(string)));
    IPIEHTMLUtilities::FreeString(string);
    return text;
}

// ---- Strings ----

TEST(HtmlStringGet, AsksForTheProperty) {
    ScriptedObject object;
    object.answer = string_answer(u"value");
    const WCHAR* value = kUntouched;
    EXPECT_EQ(IPIEHTMLUtilities::IDispatchEx__PROPERTYGET(&object, 4711, &value), S_OK);
    EXPECT_EQ(taken(value), u"value");
    EXPECT_EQ(object.asked.times, 1);
    EXPECT_EQ(object.asked.id, 4711);
    EXPECT_EQ(object.asked.locale, 0u);
    EXPECT_EQ(object.asked.flags, DISPATCH_PROPERTYGET);
    EXPECT_EQ(object.asked.arguments, 0u);
    EXPECT_EQ(object.asked.named, 0u);
    EXPECT_TRUE(object.asked.wants_result);
    EXPECT_EQ(object.asked.result_type, VT_EMPTY);
    EXPECT_FALSE(object.asked.wants_exception);
    EXPECT_FALSE(object.asked.has_caller);
}

TEST(HtmlStringGet, WantsAnObjectAndAPlace) {
    ScriptedObject object;
    const WCHAR* value = kUntouched;
    EXPECT_EQ(IPIEHTMLUtilities::IDispatchEx__PROPERTYGET(nullptr, 1, &value), E_POINTER);
    EXPECT_EQ(value, kUntouched);
    EXPECT_EQ(IPIEHTMLUtilities::IDispatchEx__PROPERTYGET(&object, 1, static_cast<const WCHAR**>(nullptr)), E_POINTER);
    EXPECT_EQ(object.asked.times, 0);
    EXPECT_EQ(static_cast<std::uint32_t>(E_POINTER), 0x80004003u);
}

TEST(HtmlStringGet, HandsResultsOn) {
    ScriptedObject object;
    const WCHAR* value = kUntouched;
    object.answer = [](VARIANT*) { return DISP_E_MEMBERNOTFOUND; };
    EXPECT_EQ(IPIEHTMLUtilities::IDispatchEx__PROPERTYGET(&object, 1, &value), DISP_E_MEMBERNOTFOUND);
    EXPECT_EQ(value, nullptr);
    object.answer = string_answer(u"", S_FALSE);
    EXPECT_EQ(IPIEHTMLUtilities::IDispatchEx__PROPERTYGET(&object, 1, &value), S_FALSE);
    EXPECT_EQ(taken(value), u"");
}

TEST(HtmlStringGet, OfWhatIsNoStringIsNull) {
    ScriptedObject object;
    const WCHAR* value = kUntouched;
    for (const VARTYPE type : {VT_EMPTY, VT_NULL, VT_I4, VT_R8, VT_BOOL, VT_DATE}) {
        value = kUntouched;
        object.answer = [=](VARIANT* result) {
            result->vt = type;
            result->llVal = 0x1234567812345678;
            return S_OK;
        };
        EXPECT_EQ(IPIEHTMLUtilities::IDispatchEx__PROPERTYGET(&object, 1, &value), S_OK);
        EXPECT_EQ(value, nullptr);
    }
    // A string of somebody else's, which must not be freed.
    WCHAR foreign[] = u"foreign";
    BSTR pointer = foreign;
    object.answer = [&](VARIANT* result) {
        result->vt = VT_BSTR | VT_BYREF;
        result->byref = &pointer;
        return S_OK;
    };
    value = kUntouched;
    EXPECT_EQ(IPIEHTMLUtilities::IDispatchEx__PROPERTYGET(&object, 1, &value), S_OK);
    EXPECT_EQ(value, nullptr);
    // A null string.
    object.answer = [](VARIANT* result) {
        result->vt = VT_BSTR;
        result->bstrVal = nullptr;
        return S_OK;
    };
    value = kUntouched;
    EXPECT_EQ(IPIEHTMLUtilities::IDispatchEx__PROPERTYGET(&object, 1, &value), S_OK);
    EXPECT_EQ(value, nullptr);
}

TEST(HtmlStringGet, ReleasesAnObjectThatItDoesNotWant) {
    ScriptedObject object;
    ScriptedObject other;
    for (const VARTYPE type : {VT_DISPATCH, VT_UNKNOWN}) {
        const WCHAR* value = kUntouched;
        object.answer = object_answer(other, type);
        EXPECT_EQ(IPIEHTMLUtilities::IDispatchEx__PROPERTYGET(&object, 1, &value), S_OK);
        EXPECT_EQ(value, nullptr);
        EXPECT_EQ(other.references, 1u);
    }
}

TEST(HtmlStringGet, TakesStringsWithAnything) {
    ScriptedObject object;
    const std::u16string text(u"a\0b\xD800", 4);
    object.answer = [&](VARIANT* result) {
        result->vt = VT_BSTR;
        result->bstrVal = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
        return S_OK;
    };
    const WCHAR* value = nullptr;
    EXPECT_EQ(IPIEHTMLUtilities::IDispatchEx__PROPERTYGET(&object, 1, &value), S_OK);
    EXPECT_EQ(taken(value), text);
}

TEST(HtmlStringPut, HandsTheCallersStringOn) {
    ScriptedObject object;
    object.answer = [](VARIANT*) { return S_FALSE; };
    const WCHAR text[] = u"none";
    EXPECT_EQ(IPIEHTMLUtilities::IDispatchEx__PROPERTYPUT(&object, 12, text), S_FALSE);
    EXPECT_EQ(object.asked.times, 1);
    EXPECT_EQ(object.asked.id, 12);
    EXPECT_EQ(object.asked.locale, 0u);
    EXPECT_EQ(object.asked.flags, DISPATCH_PROPERTYPUT);
    EXPECT_EQ(object.asked.arguments, 1u);
    EXPECT_EQ(object.asked.argument_type, VT_BSTR);
    EXPECT_EQ(object.asked.argument, text);
    EXPECT_EQ(object.asked.named, 1u);
    EXPECT_EQ(object.asked.name, -3);
    EXPECT_FALSE(object.asked.wants_result);
    EXPECT_FALSE(object.asked.wants_exception);
    EXPECT_FALSE(object.asked.has_caller);
}

TEST(HtmlStringPut, WantsAnObjectThenAString) {
    ScriptedObject object;
    EXPECT_EQ(IPIEHTMLUtilities::IDispatchEx__PROPERTYPUT(nullptr, 1, u"x"), E_POINTER);
    EXPECT_EQ(IPIEHTMLUtilities::IDispatchEx__PROPERTYPUT(nullptr, 1, nullptr), E_POINTER);
    EXPECT_EQ(IPIEHTMLUtilities::IDispatchEx__PROPERTYPUT(&object, 1, nullptr), E_INVALIDARG);
    EXPECT_EQ(object.asked.times, 0);
    object.answer = [](VARIANT*) { return E_ACCESSDENIED; };
    EXPECT_EQ(IPIEHTMLUtilities::IDispatchEx__PROPERTYPUT(&object, 1, u""), E_ACCESSDENIED);
}

TEST(HtmlString, NoneCanBeFreed) {
    IPIEHTMLUtilities::FreeString(nullptr);
}

// ---- Objects ----

TEST(HtmlObjectGet, AsksForTheProperty) {
    ScriptedObject object;
    ScriptedObject other;
    object.answer = object_answer(other, VT_UNKNOWN);
    IUnknown* value = &object;
    EXPECT_EQ(IPIEHTMLUtilities::IDispatchEx__PROPERTYGET(&object, 17, &value), S_OK);
    EXPECT_EQ(value, &other);
    value->Release();
    EXPECT_EQ(object.asked.times, 1);
    EXPECT_EQ(object.asked.id, 17);
    EXPECT_EQ(object.asked.locale, 0u);
    EXPECT_EQ(object.asked.flags, DISPATCH_PROPERTYGET);
    EXPECT_EQ(object.asked.arguments, 0u);
    EXPECT_EQ(object.asked.named, 0u);
    EXPECT_TRUE(object.asked.wants_result);
    EXPECT_EQ(object.asked.result_type, VT_UNKNOWN);
    EXPECT_EQ(object.asked.result_object, nullptr);
    EXPECT_FALSE(object.asked.wants_exception);
    EXPECT_FALSE(object.asked.has_caller);
}

TEST(HtmlObjectGet, TakesThePointerWhateverItsType) {
    ScriptedObject object;
    ScriptedObject other;
    for (const VARTYPE type : {VT_DISPATCH, VT_UNKNOWN, VT_EMPTY, VT_I4}) {
        IUnknown* value = nullptr;
        object.answer = object_answer(other, type, S_FALSE);
        EXPECT_EQ(IPIEHTMLUtilities::IDispatchEx__PROPERTYGET(&object, 1, &value), S_FALSE);
        ASSERT_EQ(value, &other);
        EXPECT_EQ(other.references, 2u);
        value->Release();
    }
}

TEST(HtmlObjectGet, MayFindNothing) {
    ScriptedObject object;
    IUnknown* value = &object;
    EXPECT_EQ(IPIEHTMLUtilities::IDispatchEx__PROPERTYGET(&object, 1, &value), S_OK);
    EXPECT_EQ(value, nullptr);
    value = &object;
    object.answer = [](VARIANT*) { return E_OUTOFMEMORY; };
    EXPECT_EQ(IPIEHTMLUtilities::IDispatchEx__PROPERTYGET(&object, 1, &value), E_OUTOFMEMORY);
    EXPECT_EQ(value, nullptr);
}

TEST(HtmlObjectGet, WantsAnObjectAndAPlace) {
    ScriptedObject object;
    IUnknown* value = &object;
    EXPECT_EQ(IPIEHTMLUtilities::IDispatchEx__PROPERTYGET(nullptr, 1, &value), E_POINTER);
    EXPECT_EQ(value, &object);
    EXPECT_EQ(IPIEHTMLUtilities::IDispatchEx__PROPERTYGET(&object, 1, static_cast<IUnknown**>(nullptr)), E_POINTER);
    EXPECT_EQ(object.asked.times, 0);
}

// ---- Elements and styles ----

struct StringProperty {
    LONG (*get)(IDispatchEx*, const WCHAR**);
    DISPID id;
};

TEST(HtmlElement, HasStrings) {
    for (const StringProperty& property :
         {StringProperty{IPIEHTMLUtilities::IPIEHTMLElement__get_id, 0x60030001},
          StringProperty{IPIEHTMLUtilities::IPIEHTMLAnchorElement__get_href, 0x60040000},
          StringProperty{IPIEHTMLUtilities::IPIEHTMLControlElement__get_value, 0x60040001},
          StringProperty{IPIEHTMLUtilities::IPIEHTMLStyle__get_display, 1021}}) {
        ScriptedObject object;
        object.answer = string_answer(u"text", S_FALSE);
        const WCHAR* value = kUntouched;
        EXPECT_EQ(property.get(&object, &value), S_FALSE);
        EXPECT_EQ(taken(value), u"text");
        EXPECT_EQ(object.asked.id, property.id);
        EXPECT_EQ(object.asked.flags, DISPATCH_PROPERTYGET);
        value = kUntouched;
        EXPECT_EQ(property.get(nullptr, &value), E_POINTER);
        EXPECT_EQ(value, kUntouched);
        EXPECT_EQ(property.get(&object, nullptr), E_POINTER);
        EXPECT_EQ(object.asked.times, 1);
    }
}

TEST(HtmlStyle, DisplayCanBePut) {
    ScriptedObject style;
    const WCHAR text[] = u"none";
    EXPECT_EQ(IPIEHTMLUtilities::IPIEHTMLStyle__put_display(&style, text), S_OK);
    EXPECT_EQ(style.asked.id, 1021);
    EXPECT_EQ(style.asked.flags, DISPATCH_PROPERTYPUT);
    EXPECT_EQ(style.asked.argument, text);
    EXPECT_EQ(IPIEHTMLUtilities::IPIEHTMLStyle__put_display(&style, nullptr), E_INVALIDARG);
    EXPECT_EQ(IPIEHTMLUtilities::IPIEHTMLStyle__put_display(nullptr, nullptr), E_POINTER);
    EXPECT_EQ(style.asked.times, 1);
}

TEST(HtmlElement, HasAStyle) {
    ScriptedObject element;
    ScriptedObject style;
    element.answer = object_answer(style, VT_DISPATCH);
    style.query_result = S_FALSE;
    IDispatchEx* value = nullptr;
    EXPECT_EQ(IPIEHTMLUtilities::IPIEHTMLElement__get_style(&element, &value), S_FALSE);
    EXPECT_EQ(element.asked.id, 0x60030009);
    EXPECT_EQ(style.queries, 1);
    EXPECT_EQ(style.queried, (IID{0xA6EF9860, 0xC720, 0x11D0, {0x93, 0x37, 0x00, 0xA0, 0xC9, 0x0D, 0xCA, 0xA9}}));
    ASSERT_EQ(value, &style);
    EXPECT_EQ(style.references, 2u);  // the get's has been given back
    value->Release();
}

TEST(HtmlElement, MayHaveNoStyle) {
    ScriptedObject element;
    ScriptedObject style;
    IDispatchEx* value = &element;
    EXPECT_EQ(IPIEHTMLUtilities::IPIEHTMLElement__get_style(nullptr, &value), E_POINTER);
    EXPECT_EQ(value, &element);
    element.answer = [](VARIANT*) { return DISP_E_MEMBERNOTFOUND; };
    EXPECT_EQ(IPIEHTMLUtilities::IPIEHTMLElement__get_style(&element, &value), DISP_E_MEMBERNOTFOUND);
    EXPECT_EQ(value, &element);
    element.answer = [](VARIANT*) { return S_FALSE; };
    EXPECT_EQ(IPIEHTMLUtilities::IPIEHTMLElement__get_style(&element, &value), S_FALSE);
    EXPECT_EQ(value, &element);
    // An object that is no style.
    element.answer = object_answer(style, VT_UNKNOWN);
    style.refuses = true;
    EXPECT_EQ(IPIEHTMLUtilities::IPIEHTMLElement__get_style(&element, &value), E_NOINTERFACE);
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(style.references, 1u);
    EXPECT_EQ(IPIEHTMLUtilities::IPIEHTMLElement__get_style(&element, nullptr), E_POINTER);
}

}  // namespace
