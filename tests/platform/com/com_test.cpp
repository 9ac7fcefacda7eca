#include "platform/com.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "platform/diagnostics.h"
#include "support/forked.h"
#include "support/instrumented.h"

namespace {

constexpr CLSID kClass = {0x12345678, 0x9ABC, 0xDEF0, {1, 2, 3, 4, 5, 6, 7, 8}};

struct Factory final : IClassFactory {
    std::atomic<ULONG> references{1};
    std::atomic<int> made{0};

    HRESULT QueryInterface(REFIID riid, void** object) override {
        *object = nullptr;
        if (riid != IID_IUnknown && riid != IID_IClassFactory) return E_NOINTERFACE;
        *object = static_cast<IClassFactory*>(this);
        AddRef();
        return S_OK;
    }
    ULONG AddRef() override { return ++references; }
    ULONG Release() override { return --references; }
    HRESULT CreateInstance(IUnknown* outer, REFIID riid, void** object) override {
        ++made;
        *object = nullptr;
        if (outer != nullptr) return CLASS_E_NOAGGREGATION;
        return QueryInterface(riid, object);
    }
    HRESULT LockServer(BOOL) override { return S_OK; }
};

std::u16string text_of(BSTR string) {
    return {string, SysStringLen(string)};
}

TEST(Initialise, CountsPerThread) {
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_FALSE);
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), RPC_E_CHANGED_MODE);
    std::thread([] {
        EXPECT_EQ(CoInitialize(nullptr), S_OK);
        CoUninitialize();
    }).join();
    CoUninitialize();
    EXPECT_EQ(CoInitialize(nullptr), RPC_E_CHANGED_MODE) << "still initialised once";
    CoUninitialize();
    EXPECT_EQ(CoInitialize(nullptr), S_OK) << "a new mode once nothing is left";
    CoUninitialize();
    CoUninitialize();  // one too many does nothing
    EXPECT_EQ(CoInitializeEx(nullptr, 0), S_OK);
    CoUninitialize();
    int something = 0;
    EXPECT_EQ(CoInitializeEx(&something, 0), E_INVALIDARG);
    EXPECT_EQ(CoInitializeEx(nullptr, 0x100), E_INVALIDARG);
}

TEST(Classes, NeedInitialisation) {
    void* object = &object;
    EXPECT_EQ(CoCreateInstance(kClass, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, &object), CO_E_NOTINITIALIZED);
    EXPECT_EQ(object, nullptr);
    Factory factory;
    DWORD cookie = 1;
    EXPECT_EQ(CoRegisterClassObject(kClass, &factory, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE, &cookie),
              CO_E_NOTINITIALIZED);
    EXPECT_EQ(factory.references, 1u);
    EXPECT_EQ(CoCreateInstance(kClass, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, nullptr), E_POINTER);
}

TEST(Classes, RegisterCreateRevoke) {
    ASSERT_EQ(CoInitializeEx(nullptr, 0), S_OK);
    Factory factory;
    DWORD cookie = 0;
    ASSERT_EQ(CoRegisterClassObject(kClass, &factory, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE, &cookie), S_OK);
    EXPECT_EQ(factory.references, 2u);
    void* object = nullptr;
    EXPECT_EQ(CoCreateInstance(kClass, nullptr, CLSCTX_LOCAL_SERVER, IID_IUnknown, &object), REGDB_E_CLASSNOTREG);
    EXPECT_EQ(CoCreateInstance(kClass, nullptr, CLSCTX_INPROC_SERVER, IID_IStream, &object), E_NOINTERFACE);
    EXPECT_EQ(CoCreateInstance(kClass, &factory, CLSCTX_ALL, IID_IUnknown, &object), CLASS_E_NOAGGREGATION);
    EXPECT_EQ(CoCreateInstance(kClass, nullptr, CLSCTX_ALL, IID_IUnknown, &object), S_OK);
    EXPECT_NE(object, nullptr);
    EXPECT_EQ(factory.made.load(), 3);
    static_cast<IUnknown*>(object)->Release();
    EXPECT_EQ(CoRevokeClassObject(cookie), S_OK);
    EXPECT_EQ(CoRevokeClassObject(cookie), E_INVALIDARG);
    EXPECT_EQ(factory.references, 1u);
    EXPECT_EQ(CoCreateInstance(kClass, nullptr, CLSCTX_ALL, IID_IUnknown, &object), REGDB_E_CLASSNOTREG);
    CoUninitialize();
}

TEST(Classes, SingleUseServesOnce) {
    ASSERT_EQ(CoInitializeEx(nullptr, 0), S_OK);
    Factory factory;
    DWORD cookie = 0;
    ASSERT_EQ(CoRegisterClassObject(kClass, &factory, CLSCTX_INPROC_SERVER, REGCLS_SINGLEUSE, &cookie), S_OK);
    IClassFactory* object = nullptr;
    void** out = reinterpret_cast<void**>(&object);
    ASSERT_EQ(CoGetClassObject(kClass, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory, out), S_OK);
    EXPECT_EQ(object, &factory);
    object->Release();
    EXPECT_EQ(CoGetClassObject(kClass, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory, out), REGDB_E_CLASSNOTREG);
    EXPECT_EQ(factory.references, 1u);
    CoUninitialize();
}

TEST(Strings, KeepLengthTerminatorAndEmbeddedNuls) {
    const LONGLONG before = ZrLiveObjects(ZrLiveKind::Strings);
    const BSTR text = SysAllocString(u"abc");
    EXPECT_EQ(text_of(text), u"abc");
    EXPECT_EQ(text[3], 0);
    EXPECT_EQ(SysStringByteLen(text), 6u);
    std::uint32_t prefix = 0;
    std::memcpy(&prefix, reinterpret_cast<const char*>(text) - 4, 4);
    EXPECT_EQ(prefix, 6u);
    const BSTR nuls = SysAllocStringLen(u"a\0b", 3);
    EXPECT_EQ(text_of(nuls), std::u16string(u"a\0b", 3));
    const BSTR odd = SysAllocStringByteLen("xyz", 3);
    EXPECT_EQ(SysStringByteLen(odd), 3u);
    EXPECT_EQ(SysStringLen(odd), 1u);
    EXPECT_EQ(std::memcmp(odd, "xyz\0\0", 5), 0);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Strings), before + 3);
    SysFreeString(text);
    SysFreeString(nuls);
    SysFreeString(odd);
    SysFreeString(nullptr);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Strings), before);
    EXPECT_EQ(SysAllocString(nullptr), nullptr);
    EXPECT_EQ(SysStringLen(nullptr), 0u);
    EXPECT_EQ(SysAllocStringLen(nullptr, 0xFFFFFFFF), nullptr);
}

TEST(Strings, Reallocate) {
    BSTR text = SysAllocString(u"hello");
    ASSERT_TRUE(SysReAllocString(&text, text + 1));
    EXPECT_EQ(text_of(text), u"ello");
    ASSERT_TRUE(SysReAllocStringLen(&text, nullptr, 6));
    EXPECT_EQ(std::u16string(text, 4), u"ello");
    EXPECT_EQ(SysStringLen(text), 6u);
    ASSERT_TRUE(SysReAllocStringLen(&text, u"hello", 5));
    ASSERT_TRUE(SysReAllocStringLen(&text, text, 1000));  // from itself there is no more than it holds
    EXPECT_EQ(SysStringLen(text), 1000u);
    EXPECT_EQ(std::u16string(text, 1000), u"hello" + std::u16string(995, u'\0'));
    ASSERT_TRUE(SysReAllocStringLen(&text, text + 998, 6));
    EXPECT_EQ(std::u16string(text, 7), std::u16string(7, u'\0'));
    ASSERT_TRUE(SysReAllocStringLen(&text, u"hello", 5));
    ASSERT_TRUE(SysReAllocStringLen(&text, text + 2, 6));
    EXPECT_EQ(std::u16string(text, 6), std::u16string(u"llo\0\0\0", 6));
    ASSERT_TRUE(SysReAllocStringLen(&text, text + 1, 2));
    EXPECT_EQ(text_of(text), u"lo");
    ASSERT_TRUE(SysReAllocStringLen(&text, nullptr, 6));
    EXPECT_EQ(std::u16string(text, 6), std::u16string(u"lo\0\0\0\0", 6));
    EXPECT_FALSE(SysReAllocStringLen(&text, u"", 0xFFFFFFFF));
    EXPECT_EQ(SysStringLen(text), 6u);
    SysFreeString(text);
}

TEST(Strings, RandomLifesAcrossThreads) {
    const LONGLONG before = ZrLiveObjects(ZrLiveKind::Strings);
    std::vector<BSTR> handed[4];
    std::vector<std::thread> makers;
    for (unsigned id = 0; id < 4; ++id) {
        makers.emplace_back([&handed, id] {
            std::mt19937 random(id);
            std::vector<BSTR> mine;
            for (int i = 0; i < 2000; ++i) {
                const std::u16string text(random() % 400, static_cast<WCHAR>(u'a' + random() % 26));
                mine.push_back(SysAllocStringLen(text.data(), static_cast<UINT>(text.size())));
                if (mine.size() > 50) {
                    std::swap(mine[random() % mine.size()], mine.back());
                    const BSTR victim = mine.back();
                    mine.pop_back();
                    for (UINT k = 1; k < SysStringLen(victim); ++k) {
                        ASSERT_EQ(victim[k], victim[0]);
                    }
                    SysFreeString(victim);
                }
            }
            handed[id] = mine;
        });
    }
    for (std::thread& maker : makers) {
        maker.join();
    }
    for (auto& strings : handed) {
        for (const BSTR string : strings) {
            SysFreeString(string);
        }
    }
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Strings), before);
}

TEST(Variants, ClearFreesWhatTheyOwn) {
    const LONGLONG before = ZrLiveObjects(ZrLiveKind::Strings);
    VARIANT value;
    VariantInit(&value);
    EXPECT_EQ(value.vt, VT_EMPTY);
    value.vt = VT_BSTR;
    value.bstrVal = SysAllocString(u"x");
    EXPECT_EQ(VariantClear(&value), S_OK);
    EXPECT_EQ(value.vt, VT_EMPTY);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Strings), before);
    Factory factory;
    factory.AddRef();
    value.vt = VT_UNKNOWN;
    value.punkVal = &factory;
    EXPECT_EQ(VariantClear(&value), S_OK);
    EXPECT_EQ(factory.references, 1u);
    for (const VARTYPE scalar : {VT_NULL, VT_I1, VT_I2, VT_I4, VT_I8, VT_UI1, VT_UI2, VT_UI4, VT_UI8, VT_INT, VT_UINT,
                                 VT_R4, VT_R8, VT_CY, VT_DATE, VT_DECIMAL, VT_ERROR, VT_BOOL}) {
        value.vt = scalar;
        value.llVal = -1;
        EXPECT_EQ(VariantClear(&value), S_OK) << scalar;
        EXPECT_EQ(value.vt, VT_EMPTY);
    }
    for (const int wrong : {99, 0x7FFF, VT_VARIANT | 0, VT_BYREF | VT_EMPTY, VT_BYREF | VT_NULL, VT_BYREF | 99}) {
        value.vt = static_cast<VARTYPE>(wrong);
        EXPECT_EQ(VariantClear(&value), DISP_E_BADVARTYPE) << wrong;
        EXPECT_EQ(value.vt, wrong);
    }
}

TEST(Variants, OwnNothingThatTheyReferTo) {
    BSTR text = SysAllocString(u"x");
    VARIANT value;
    for (const int type : {VT_BSTR, VT_VARIANT, VT_I4, VT_UNKNOWN}) {
        value.vt = static_cast<VARTYPE>(VT_BYREF | type);
        value.byref = &text;
        EXPECT_EQ(VariantClear(&value), S_OK) << type;
        EXPECT_EQ(value.vt, VT_EMPTY);
    }
    EXPECT_EQ(SysStringLen(text), 1u);
    SysFreeString(text);
}

TEST(GuidText, WritesAndReads) {
    WCHAR text[39];
    EXPECT_EQ(StringFromGUID2(kClass, text, 39), 39);
    EXPECT_EQ(std::u16string(text), u"{12345678-9ABC-DEF0-0102-030405060708}");
    EXPECT_EQ(StringFromGUID2(kClass, text, 38), 0);
    GUID guid = {};
    EXPECT_EQ(CLSIDFromString(u"{12345678-9abc-def0-0102-030405060708}", &guid), S_OK);
    EXPECT_EQ(guid, kClass);
    EXPECT_EQ(CLSIDFromString(nullptr, &guid), S_OK);
    EXPECT_EQ(guid, GUID_NULL);
    for (const auto* bad :
         {u"", u"{", u"12345678-9ABC-DEF0-0102-030405060708", u"{12345678-9ABC-DEF0-0102-03040506070}",
          u"{12345678-9ABC-DEF0-0102-030405060708}x", u"{1234567g-9ABC-DEF0-0102-030405060708}"}) {
        guid = kClass;
        EXPECT_EQ(CLSIDFromString(bad, &guid), CO_E_CLASSSTRING);
        EXPECT_EQ(guid, GUID_NULL);
        EXPECT_EQ(IIDFromString(bad, &guid), std::u16string(bad).size() == 38 ? CO_E_IIDSTRING : E_INVALIDARG);
    }
}

TEST(GuidText, RandomRoundTrip) {
    std::mt19937 random(7);
    for (int i = 0; i < 1000; ++i) {
        GUID guid;
        for (size_t k = 0; k < sizeof guid; ++k) {
            reinterpret_cast<BYTE*>(&guid)[k] = static_cast<BYTE>(random());
        }
        WCHAR text[39];
        ASSERT_EQ(StringFromGUID2(guid, text, 39), 39);
        GUID back = {};
        ASSERT_EQ(IIDFromString(text, &back), S_OK);
        ASSERT_EQ(back, guid);
    }
}

// Slots are positions in the table of an interface's object; a caller's binary depends on them.
TEST(Slots, StreamOrder) {
    const auto index = [](auto member) {
        std::ptrdiff_t words[2];
        static_assert(sizeof member == sizeof words);
        std::memcpy(words, &member, sizeof words);
        // The place in bytes; some targets add one, to tell it from an address.
        return (words[0] & ~std::ptrdiff_t{1}) / static_cast<std::ptrdiff_t>(sizeof(void*));
    };
    EXPECT_EQ(index(&IUnknown::QueryInterface), 0);
    EXPECT_EQ(index(&IUnknown::AddRef), 1);
    EXPECT_EQ(index(&IUnknown::Release), 2);
    EXPECT_EQ(index(&ISequentialStream::Read), 3);
    EXPECT_EQ(index(&ISequentialStream::Write), 4);
    EXPECT_EQ(index(&IStream::Seek), 5);
    EXPECT_EQ(index(&IStream::SetSize), 6);
    EXPECT_EQ(index(&IStream::CopyTo), 7);
    EXPECT_EQ(index(&IStream::Commit), 8);
    EXPECT_EQ(index(&IStream::Revert), 9);
    EXPECT_EQ(index(&IStream::LockRegion), 10);
    EXPECT_EQ(index(&IStream::UnlockRegion), 11);
    EXPECT_EQ(index(&IStream::Stat), 12);
    EXPECT_EQ(index(&IStream::Clone), 13);
    EXPECT_EQ(index(&IDispatch::Invoke), 6);
    EXPECT_EQ(index(&IClassFactory::CreateInstance), 3);
}

TEST(ComFork, BothProcessesGoOnAfterThreeHundredForksUnderLoad) {
    using namespace zr::test;
    Factory factory;
    const auto use = [&factory] {
        if (FAILED(CoInitializeEx(nullptr, COINIT_MULTITHREADED))) return 1;
        DWORD cookie = 0;
        if (CoRegisterClassObject(kClass, &factory, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE, &cookie) != S_OK)
            return 2;
        IUnknown* object = nullptr;
        const HRESULT made =
            CoCreateInstance(kClass, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown, reinterpret_cast<void**>(&object));
        if (object) object->Release();
        const BSTR text = SysAllocString(u"text");
        SysFreeString(text);
        if (CoRevokeClassObject(cookie) != S_OK) return 3;
        CoUninitialize();
        return made == S_OK && text ? 0 : 4;
    };
    const Load load({[&] { EXPECT_EQ(use(), 0); }, [&] { EXPECT_EQ(use(), 0); }});
    for (int i = 0; i < 300 / kStride; ++i) {
        ASSERT_EQ(in_fork(use), 0) << "fork " << i;
    }
    EXPECT_EQ(use(), 0);
}

}  // namespace
