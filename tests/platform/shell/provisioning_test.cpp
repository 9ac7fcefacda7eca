#include "platform/provisioning.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/base.h"
#include "platform/kernel.h"
#include "platform/registry_readers.h"
#include "support/child.h"
#include "support/failing_new.h"
#include "support/forked.h"
#include "support/instrumented.h"
#include "support/sandbox.h"

namespace {

using zr::test::Child;
using zr::test::FailingNew;
using zr::test::in_fork;
using zr::test::kStride;
using zr::test::Load;

constexpr LPCWSTR kProxies = u"Comm\\ConnMgr\\Providers\\{EF097F4C-DC4B-4c98-8FF6-AEF805DC0E8E}";
constexpr LPCWSTR kNetworks = u"Comm\\ConnMgr\\Destinations";

std::string shown(const std::u16string& text) {
    return std::filesystem::path(text).string();
}

struct Outcome {
    HRESULT result = 0;
    std::u16string document;
    bool has_document = false;
};

Outcome process(const std::u16string& document, DWORD flags = CFGFLAG_PROCESS) {
    LPWSTR given = nullptr;
    Outcome outcome;
    outcome.result = DMProcessConfigXML(document.c_str(), flags, &given);
    const std::unique_ptr<WCHAR[]> owner(given);
    outcome.has_document = given != nullptr;
    if (given != nullptr) outcome.document = given;
    return outcome;
}

std::u16string doc(const std::u16string& inner) {
    return u"<wap-provisioningdoc>" + inner + u"</wap-provisioningdoc>";
}
std::u16string in(const std::u16string& type, const std::u16string& inner) {
    return u"<characteristic type=\"" + type + u"\">" + inner + u"</characteristic>";
}
std::u16string parm(const std::u16string& name, const std::u16string& value, const std::u16string& datatype = u"") {
    return u"<parm name=\"" + name + u"\" value=\"" + value + u"\"" +
           (datatype.empty() ? u"" : u" datatype=\"" + datatype + u"\"") + u" />";
}
std::u16string in_key(const std::u16string& inner) {
    return doc(in(u"Registry", in(u"HKCU\\Prov", inner)));
}

// The document without what stands between elements.
std::u16string packed(const std::u16string& text) {
    std::u16string result;
    bool between = true;
    for (const WCHAR c : text) {
        if (c == u'<') between = false;
        if (!between || (c != u' ' && c != u'\r' && c != u'\n')) result += c;
        if (c == u'>') between = true;
    }
    return result;
}

class Provisioning : public testing::Test {
protected:
    ~Provisioning() override {
        RegDeleteKeyW(HKEY_LOCAL_MACHINE, u"Comm\\ConnMgr");
        RegDeleteKeyW(HKEY_CURRENT_USER, u"Prov");
    }

    static std::u16string text_of(HKEY root, const std::u16string& key, LPCWSTR name) {
        WCHAR text[2048];
        return RegistryGetString(root, key.c_str(), name, text, 2048) == S_OK ? text : u"(none)";
    }
    static std::u16string proxy(const std::u16string& entry, LPCWSTR name) {
        return text_of(HKEY_LOCAL_MACHINE, kProxies + (u"\\" + entry), name);
    }
    static long number(HKEY root, const std::u16string& key, LPCWSTR name) {
        DWORD value = 0;
        return RegistryGetDWORD(root, key.c_str(), name, &value) == S_OK ? static_cast<long>(value) : -1;
    }
    static bool has_key(HKEY root, LPCWSTR path) {
        HKEY key = nullptr;
        if (RegOpenKeyExW(root, path, 0, 0, &key) != 0) return false;
        RegCloseKey(key);
        return true;
    }
    static std::vector<BYTE> bytes(LPCWSTR name, DWORD& type) {
        HKEY key = nullptr;
        RegOpenKeyExW(HKEY_CURRENT_USER, u"Prov", 0, 0, &key);
        std::vector<BYTE> data(300);
        auto size = static_cast<DWORD>(data.size());
        data.resize(RegQueryValueExW(key, name, nullptr, &type, data.data(), &size) == 0 ? size : 0);
        RegCloseKey(key);
        return data;
    }
    // Whether nothing of what a document says is there.
    static bool nothing_done() {
        return !has_key(HKEY_LOCAL_MACHINE, u"Comm\\ConnMgr") && !has_key(HKEY_CURRENT_USER, u"Prov");
    }
    static std::u16string sentence() { return ZrProvisioningLastErrorText(); }
};

}  // namespace

TEST_F(Provisioning, SetsTheValuesOfAProxyEntry) {
    const Outcome done = process(
        u"<wap-provisioningdoc>\r\n <characteristic type=\"CM_ProxyEntries\">\r\n"
        u" <characteristic type=\"HTTP-Office\">\r\n <parm name=\"Type\" value=\"1\" />\r\n"
        u" <parm name=\"Enable\" value=\"1\" />\r\n <parm name=\"Proxy\" value=\"a&amp;b:8080\" />\r\n"
        u" <parm name=\"UserName\" value=\"\" />\r\n </characteristic>\r\n "
        u"</characteristic>\r\n</wap-provisioningdoc>\r\n");
    EXPECT_EQ(done.result, S_OK);
    EXPECT_EQ(proxy(u"HTTP-Office", u"Proxy"), u"a&b:8080");
    EXPECT_EQ(proxy(u"HTTP-Office", u"UserName"), u"");
    EXPECT_EQ(number(HKEY_LOCAL_MACHINE, kProxies + std::u16string(u"\\HTTP-Office"), u"Type"), 1);
    EXPECT_EQ(number(HKEY_LOCAL_MACHINE, kProxies + std::u16string(u"\\HTTP-Office"), u"Enable"), 1);
    EXPECT_EQ(packed(done.document), doc(in(u"CM_ProxyEntries", in(u"HTTP-Office", u""))));
    EXPECT_EQ(sentence(), u"");
}

TEST_F(Provisioning, MakesANetwork) {
    EXPECT_EQ(process(doc(in(u"CM_Networks", in(u"My Net", parm(u"DestId", u"{1}"))))).result, S_OK);
    EXPECT_EQ(text_of(HKEY_LOCAL_MACHINE, kNetworks + std::u16string(u"\\My Net"), u"DestId"), u"{1}");
}

TEST_F(Provisioning, SetsRegistryValuesOfEachDatatype) {
    const Outcome done =
        process(in_key(parm(u"Plain", u"text") + parm(u"Text", u"t\u00E4xt \U0001F600", u"string") +
                       parm(u"Number", u"0xfFffFFFF", u"integer") + parm(u"Less", u"-1", u"integer") +
                       parm(u"Yes", u"True", u"boolean") + parm(u"No", u"0", u"boolean") +
                       parm(u"Bytes", u"AQID/w==", u"binary") + parm(u"Texts", u"one\uF000two", u"multiplestring") +
                       parm(u"None", u"", u"multiplestring") + parm(u"", u"default")));
    ASSERT_EQ(done.result, S_OK) << shown(sentence());
    EXPECT_EQ(text_of(HKEY_CURRENT_USER, u"Prov", u"Plain"), u"text");
    EXPECT_EQ(text_of(HKEY_CURRENT_USER, u"Prov", u"Text"), u"t\u00E4xt \U0001F600");
    EXPECT_EQ(text_of(HKEY_CURRENT_USER, u"Prov", u""), u"default");
    EXPECT_EQ(number(HKEY_CURRENT_USER, u"Prov", u"Number"), 0xFFFFFFFFl);
    EXPECT_EQ(number(HKEY_CURRENT_USER, u"Prov", u"Less"), 0xFFFFFFFFl);
    EXPECT_EQ(number(HKEY_CURRENT_USER, u"Prov", u"Yes"), 1);
    EXPECT_EQ(number(HKEY_CURRENT_USER, u"Prov", u"No"), 0);
    DWORD type = 0;
    EXPECT_EQ(bytes(u"Bytes", type), (std::vector<BYTE>{1, 2, 3, 255}));
    EXPECT_EQ(type, REG_BINARY);
    EXPECT_EQ(bytes(u"Texts", type),
              (std::vector<BYTE>{'o', 0, 'n', 0, 'e', 0, 0, 0, 't', 0, 'w', 0, 'o', 0, 0, 0, 0, 0}));
    EXPECT_EQ(type, REG_MULTI_SZ);
    EXPECT_EQ(bytes(u"None", type), (std::vector<BYTE>{0, 0}));
}

// Whatever order they are written in: of a name the last value holds, under the first one's letters.
TEST_F(Provisioning, SetsTheValuesOfAKeyOneAfterTheOther) {
    std::u16string inner;
    std::map<std::u16string, std::u16string> last;
    for (unsigned i = 0; i < 3000; ++i) {
        std::u16string name(1 + i % 3, static_cast<WCHAR>((i < 26 ? u'A' : u'a') + i * 7 % 26));
        const std::string number = std::to_string(i);
        const std::u16string value(number.begin(), number.end());
        inner += parm(name, value);
        if (i % 500 == 499) inner += u"<noparm name=\"" + name + u"\" />" + parm(u"large", std::u16string(5000, u'l'));
        for (WCHAR& letter : name) {
            letter |= 0x20;
        }
        last[name] = value;
        if (i % 500 == 499) last.erase(name);
    }
    ASSERT_EQ(process(in_key(inner)).result, S_OK) << shown(sentence());
    for (const auto& [name, value] : last) {
        EXPECT_EQ(text_of(HKEY_CURRENT_USER, u"Prov", name.c_str()), value) << shown(name);
    }
    EXPECT_EQ(process(in_key(parm(u"Twice", u"1") + parm(u"other", u"o") + parm(u"TWICE", u"2"))).result, S_OK);
    const Outcome asked = process(doc(in(u"Registry", u"<characteristic-query type=\"HKCU\\Prov\" />")));
    EXPECT_NE(asked.document.find(u"<parm name=\"Twice\" value=\"2\""), std::u16string::npos);
    EXPECT_EQ(asked.document.find(u"TWICE"), std::u16string::npos);
}

TEST_F(Provisioning, WritesSignsAsReferencesWhereverTheyStand) {
    constexpr std::size_t kLength = 150;
    const std::pair<std::u16string, std::u16string> signs[] = {
        {u"&amp;", u"&amp;"},   {u"&lt;", u"&lt;"},   {u">", u"&gt;"},
        {u"&quot;", u"&quot;"}, {u"&#10;", u"&#10;"}, {u"\U0001F600", u"\U0001F600"},
        {u"\uE000", u"\uE000"}, {u"'", u"'"},
    };
    for (const auto& [given, written] : signs) {
        for (std::size_t at = 0; at <= kLength; ++at) {
            const std::u16string front(at, u'x');
            const std::u16string back(kLength - at, u'y');
            const Outcome done = process(in_key(parm(u"V", front + given + back)), CFGFLAG_METADATA);
            const std::u16string wanted = u"value=\"" + front + written + back + u"\"";
            EXPECT_NE(done.document.find(wanted), std::u16string::npos) << shown(given) << " " << at;
        }
    }
}

TEST_F(Provisioning, TakesKeysOneWithinTheOther) {
    EXPECT_EQ(process(doc(in(u"Registry", in(u"HKEY_CURRENT_USER", in(u"Prov", parm(u"A", u"1") + in(u"B\\C", u""))))))
                  .result,
              S_OK);
    EXPECT_EQ(text_of(HKEY_CURRENT_USER, u"Prov", u"A"), u"1");
    EXPECT_TRUE(has_key(HKEY_CURRENT_USER, u"Prov\\B\\C"));
}

TEST_F(Provisioning, RemovesAndIsContentWithNothingToRemove) {
    process(in_key(parm(u"A", u"1") + parm(u"B", u"2") + in(u"C", parm(u"D", u"3"))));
    const std::u16string removing = in_key(u"<noparm name=\"A\" /><nocharacteristic type=\"C\" />");
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(process(removing).result, S_OK);
        EXPECT_EQ(text_of(HKEY_CURRENT_USER, u"Prov", u"A"), u"(none)");
        EXPECT_EQ(text_of(HKEY_CURRENT_USER, u"Prov", u"B"), u"2");
        EXPECT_FALSE(has_key(HKEY_CURRENT_USER, u"Prov\\C"));
    }
    process(doc(in(u"CM_ProxyEntries", in(u"E", parm(u"Proxy", u"p:1")))));
    EXPECT_EQ(process(doc(in(u"CM_ProxyEntries", u"<nocharacteristic type=\"E\" />"))).result, S_OK);
    EXPECT_EQ(proxy(u"E", u"Proxy"), u"(none)");
}

TEST_F(Provisioning, AnswersWithWhatStandsInTheEnd) {
    const Outcome done =
        process(in_key(u"<parm-query name=\"A\" /><parm-query name=\"None\" />" + parm(u"A", u"&lt;1&gt;") +
                       parm(u"N", u"7", u"integer") + parm(u"B", u"AQI=", u"binary")));
    EXPECT_EQ(done.result, S_OK);
    EXPECT_EQ(packed(done.document), in_key(parm(u"A", u"&lt;1&gt;", u"string") + u"<noparm name=\"None\" />"));
    const Outcome all = process(doc(in(u"Registry", u"<characteristic-query type=\"HKCU\\Prov\" />")));
    EXPECT_EQ(packed(all.document), in_key(parm(u"A", u"&lt;1&gt;", u"string") + parm(u"B", u"AQI=", u"binary") +
                                           parm(u"N", u"7", u"integer")));
}

TEST_F(Provisioning, AsksForAServiceOrItsNamesOnly) {
    process(doc(in(u"CM_Networks", in(u"One", parm(u"DestId", u"{1}")) + in(u"Two", parm(u"DestId", u"{2}")))));
    EXPECT_EQ(packed(process(doc(u"<characteristic-query type=\"CM_Networks\" />")).document),
              doc(in(u"CM_Networks",
                     in(u"One", parm(u"DestId", u"{1}", u"string")) + in(u"Two", parm(u"DestId", u"{2}", u"string")))));
    EXPECT_EQ(packed(process(doc(u"<characteristic-query type=\"CM_Networks\" recursive=\"false\" />")).document),
              doc(in(u"CM_Networks", u"<characteristic type=\"One\" /><characteristic type=\"Two\" />")));
    EXPECT_EQ(packed(process(doc(in(u"CM_Networks", u"<characteristic-query type=\"Three\" />"))).document),
              doc(in(u"CM_Networks", u"<nocharacteristic type=\"Three\" />")));
}

TEST_F(Provisioning, ExaminesWithoutChanging) {
    const Outcome done = process(in_key(parm(u"A", u"1", u"integer") + u"<noparm name=\"B\" />"), CFGFLAG_METADATA);
    EXPECT_EQ(done.result, S_OK);
    EXPECT_EQ(packed(done.document), in_key(parm(u"A", u"1", u"integer") + u"<noparm name=\"B\" />"));
    EXPECT_TRUE(nothing_done());
    EXPECT_EQ(process(in_key(parm(u"A", u"1", u"integer")), CFGFLAG_METADATA | CFGFLAG_PROCESS).result, S_OK);
    EXPECT_EQ(number(HKEY_CURRENT_USER, u"Prov", u"A"), 1);
}

TEST_F(Provisioning, TellsWhatItWouldChange) {
    std::vector<std::u16string> told;
    LPWSTR given = nullptr;
    const auto visit = [](const ZrRegistryChange* change, LPVOID context) {
        static_cast<std::vector<std::u16string>*>(context)->push_back(change->Path + std::u16string(u"|") +
                                                                      (change->Name ? change->Name : u""));
        return 0;
    };
    EXPECT_EQ(ZrProvisioningChanges(in_key(parm(u"A", u"1") + u"<noparm name=\"B\" />").c_str(), visit, &told, &given),
              S_OK);
    delete[] given;
    EXPECT_EQ(told, (std::vector<std::u16string>{u"Prov|A", u"Prov|B"}));
    EXPECT_TRUE(nothing_done());
    EXPECT_EQ(ZrProvisioningChanges(u"<x/>", nullptr, nullptr, &given), E_INVALIDARG);
}

TEST_F(Provisioning, RefusesWhatIsNoDocument) {
    const std::u16string deep = [] {
        std::u16string text;
        for (int i = 0; i < 1000000; ++i)
            text += u"<characteristic type=\"a\">";
        return u"<wap-provisioningdoc>" + text;
    }();
    const std::u16string fine = in(u"Registry", in(u"HKCU\\Prov", parm(u"A", u"1")));
    const std::vector<std::u16string> bad = {
        u"",
        u"no XML",
        u"<other/>",
        u"<wap-provisioningdoc>" + fine,
        u"<wap-provisioningdoc>" + fine + u"</wap-provisioning",
        doc(fine) + doc(fine),
        doc(fine + u"text"),
        doc(fine + u"<unknown/>"),
        doc(fine + u"<wap-provisioningdoc/>"),
        doc(fine + u"<characteristic/>"),
        doc(fine + in(u"Registry", in(u"HKCU\\Prov", u"<parm value=\"1\"/>"))),
        doc(fine + in(u"Registry", in(u"HKCU\\Prov", u"<parm name=\"1\"/>"))),
        doc(fine +
            in(u"Registry", in(u"HKCU\\Prov", u"<parm name=\"1\" value=\"1\"><parm name=\"1\" value=\"1\"/></parm>"))),
        doc(fine + in(u"Registry", in(u"HKCU\\Prov", u"<parm name=\"1\" name=\"1\" value=\"1\"/>"))),
        doc(fine + in(u"Registry", in(u"HKCU\\Prov", parm(u"A", u"&unknown;")))),
        doc(fine + in(u"Registry", in(u"HKCU\\Prov", parm(u"A", u"\u0001")))),
        doc(fine + in(u"Registry", in(u"HKCU\\Prov", parm(u"A", std::u16string(1, WCHAR{0xD800}))))),
        u"<!DOCTYPE wap-provisioningdoc [<!ENTITY a \"b\">]>" + doc(fine),
        u"<!DOCTYPE wap-provisioningdoc SYSTEM \"file:///etc/passwd\">" + doc(fine),
        deep,
    };
    for (const std::u16string& text : bad) {
        const Outcome done = process(text);
        EXPECT_EQ(done.result, CONFIG_E_BAD_XML) << shown(text.substr(0, 200));
        EXPECT_FALSE(done.has_document);
        EXPECT_FALSE(sentence().empty());
    }
    EXPECT_TRUE(nothing_done());
}

TEST_F(Provisioning, RefusesAnEntityBombAtOnce) {
    std::u16string bomb = u"<?xml version=\"1.0\"?><!DOCTYPE lolz [<!ENTITY l0 \"lol\">";
    for (WCHAR i = u'1'; i <= u'9'; ++i) {
        const WCHAR before = static_cast<WCHAR>(i - 1);
        bomb += std::u16string(u"<!ENTITY l") + i + u" \"";
        for (int k = 0; k < 10; ++k)
            bomb += std::u16string(u"&l") + before + u";";
        bomb += u"\">";
    }
    bomb += u"]>" + in_key(parm(u"A", u"&l9;"));
    const DWORD start = GetTickCount();
    EXPECT_EQ(process(bomb).result, CONFIG_E_BAD_XML);
    EXPECT_LT(GetTickCount() - start, 20000u);  // a thousand million times three letters take longer
    EXPECT_NE(sentence().find(u"document type"), std::u16string::npos) << shown(sentence());
}

TEST_F(Provisioning, SaysTheLine) {
    process(u"<wap-provisioningdoc>\n\n<nothing/>\n</wap-provisioningdoc>");
    EXPECT_TRUE(sentence().starts_with(u"line 3, column ")) << shown(sentence());
    process(u"<wap-provisioningdoc>\n<characteristic type=\"Wrong\"/>\n</wap-provisioningdoc>");
    EXPECT_TRUE(sentence().starts_with(u"line 2: ")) << shown(sentence());
    EXPECT_NE(sentence().find(u"\"Wrong\""), std::u16string::npos);
    process(in_key(u""));
    EXPECT_EQ(sentence(), u"");
}

TEST_F(Provisioning, ChangesNothingWhenOneThingIsRefused) {
    const std::u16string fine = in(u"Registry", in(u"HKCU\\Prov", parm(u"A", u"1")));
    const auto proxy_parm = [](const std::u16string& inner) { return in(u"CM_ProxyEntries", in(u"E", inner)); };
    const std::u16string long_text(1024, u'x');
    // What is refused, and what of it is marked.
    const std::vector<std::pair<std::u16string, std::u16string>> cases = {
        {in(u"Unknown", in(u"E", parm(u"A", u"1"))), u"<characteristic-error type=\"Unknown\">"},
        {u"<nocharacteristic type=\"CM_Networks\" />", u"<nocharacteristic-error type=\"CM_Networks\" />"},
        {u"<characteristic-query type=\"Registry\" />", u"<characteristic-query-error type=\"Registry\" />"},
        {in(u"CM_ProxyEntries", parm(u"Enable", u"1")), u"<parm-error name=\"Enable\" value=\"1\" />"},
        {proxy_parm(parm(u"Unknown", u"1")), u"<parm-error name=\"Unknown\" value=\"1\" />"},
        {proxy_parm(parm(u"Enable", u"yes")), u"<parm-error name=\"Enable\" value=\"yes\" />"},
        {proxy_parm(parm(u"Enable", u"")), u"<parm-error name=\"Enable\" value=\"\" />"},
        {proxy_parm(parm(u"Enable", u"4294967296")), u"<parm-error name=\"Enable\" value=\"4294967296\" />"},
        {proxy_parm(parm(u"Enable", u"1", u"string")),
         u"<parm-error name=\"Enable\" value=\"1\" datatype=\"string\" />"},
        {proxy_parm(parm(u"Proxy", long_text)), u"<parm-error name=\"Proxy\" value=\"" + long_text + u"\" />"},
        {proxy_parm(in(u"Deeper", u"")), u"<characteristic-error type=\"Deeper\" />"},
        {proxy_parm(u"<noparm name=\"Unknown\" />"), u"<noparm-error name=\"Unknown\" />"},
        {proxy_parm(u"<parm-query name=\"Unknown\" />"), u"<parm-query-error name=\"Unknown\" />"},
        {in(u"CM_Networks", in(u"a\\b", u"")), u"<characteristic-error type=\"a\\b\" />"},
        {in(u"CM_Networks", in(u"", u"")), u"<characteristic-error type=\"\" />"},
        {in(u"CM_Networks", in(std::u16string(256, u'n'), u"")),
         u"<characteristic-error type=\"" + std::u16string(256, u'n')},
        {in(u"Registry", in(u"HKXX\\A", u"")), u"<characteristic-error type=\"HKXX\\A\" />"},
        {in(u"Registry", u"<nocharacteristic type=\"HKLM\" />"), u"<nocharacteristic-error type=\"HKLM\" />"},
        {in(u"Registry", in(u"HKCU\\" + std::u16string(256, u'n'), u"")), u"<characteristic-error type=\"HKCU\\nn"},
        {in(u"Registry", in(u"HKCU\\Prov", parm(u"A", u"1", u"float"))),
         u"<parm-error name=\"A\" value=\"1\" datatype=\"float\" />"},
        {in(u"Registry", in(u"HKCU\\Prov", parm(u"A", u"AQ=", u"binary"))), u"<parm-error name=\"A\""},
        {in(u"Registry", in(u"HKCU\\Prov", parm(u"A", u"A===", u"binary"))), u"<parm-error name=\"A\""},
        {in(u"Registry", in(u"HKCU\\Prov", parm(u"A", u"A!==", u"binary"))), u"<parm-error name=\"A\""},
        {in(u"Registry", in(u"HKCU\\Prov", parm(u"A", u"maybe", u"boolean"))), u"<parm-error name=\"A\""},
        {in(u"Registry", in(u"HKCU\\Prov", parm(std::u16string(256, u'n'), u"1"))), u"<parm-error name=\"nn"},
    };
    for (const auto& [wrong, marked] : cases) {
        const Outcome done = process(doc(fine + wrong));
        EXPECT_EQ(done.result, CONFIG_E_CSPEXCEPTION) << shown(wrong.substr(0, 200));
        EXPECT_NE(done.document.find(marked), std::u16string::npos) << shown(done.document.substr(0, 600));
        EXPECT_NE(packed(done.document).find(parm(u"A", u"1")), std::u16string::npos);
        EXPECT_TRUE(nothing_done());
        EXPECT_FALSE(sentence().empty());
    }
}

TEST_F(Provisioning, TakesBackWhatWasWrittenBeforeTheRegistryRefuses) {
    // 17 MiB are more than the registry takes.
    const std::u16string large(std::size_t{9} << 20, u'x');
    const Outcome done = process(in_key(parm(u"A", u"1") + parm(u"Large", large)));
    EXPECT_EQ(done.result, CONFIG_E_TRANSACTIONINGFAILURE);
    EXPECT_NE(done.document.find(u"<parm-error name=\"Large\""), std::u16string::npos);
    EXPECT_NE(done.document.find(u"<parm name=\"A\""), std::u16string::npos);
    EXPECT_TRUE(nothing_done());
    EXPECT_FALSE(sentence().empty());
}

TEST_F(Provisioning, TakesValuesOf100Kilobytes) {
    const std::u16string large(100 * 1024, u'x');
    const Outcome done = process(in_key(parm(u"Large", large) + u"<parm-query name=\"Large\" />"));
    EXPECT_EQ(done.result, S_OK);
    EXPECT_NE(done.document.find(large), std::u16string::npos);
}

// The text is UTF-16 when it comes, whatever it calls itself.
TEST_F(Provisioning, TakesNoNoticeOfTheEncodingThatADocumentNames) {
    const std::u16string value = u"J\u00F6 \u65E5\u672C \U0001F600";
    for (const std::u16string encoding : {u"utf-8", u"utf-16", u"ISO-8859-1", u"no-such-set"}) {
        const Outcome done = process(u"<?xml version=\"1.0\" encoding=\"" + encoding + u"\"?>" +
                                     in_key(parm(u"Named", value) + u"<parm-query name=\"Named\" />"));
        EXPECT_EQ(done.result, S_OK);
        EXPECT_NE(done.document.find(value), std::u16string::npos);
    }
}

TEST_F(Provisioning, RefusesWrongArguments) {
    LPWSTR given = reinterpret_cast<LPWSTR>(this);
    EXPECT_EQ(DMProcessConfigXML(nullptr, CFGFLAG_PROCESS, &given), E_INVALIDARG);
    EXPECT_EQ(DMProcessConfigXML(in_key(u"").c_str(), CFGFLAG_PROCESS, nullptr), E_INVALIDARG);
    EXPECT_EQ(DMProcessConfigXML(in_key(u"").c_str(), 0, &given), E_INVALIDARG);
    EXPECT_EQ(DMProcessConfigXML(in_key(u"").c_str(), 4, &given), E_INVALIDARG);
    EXPECT_TRUE(nothing_done());
}

TEST_F(Provisioning, IsWholeOrNothingWhenMemoryIsShort) {
    const std::u16string document = in_key(parm(u"A", u"1") + parm(u"B", u"2") + u"<parm-query name=\"A\" />");
    process(document);  // what is kept from the first time on is there
    RegDeleteKeyW(HKEY_CURRENT_USER, u"Prov");
    int failures = 0;
    for (int successes = 0;; ++successes) {
        ASSERT_LT(successes, 500);
        Outcome done;
        LPWSTR given = nullptr;
        {
            const FailingNew failing(successes);
            done.result = DMProcessConfigXML(document.c_str(), CFGFLAG_PROCESS, &given);
        }
        const bool complete = given != nullptr;
        delete[] given;
        // Done but for the disk, as the sentence says, counts as done.
        if (done.result == S_OK || done.result == CONFIG_E_TRANSACTIONINGFAILURE) {
            EXPECT_EQ(done.result == S_OK, sentence().empty());
            EXPECT_EQ(text_of(HKEY_CURRENT_USER, u"Prov", u"B"), u"2");
            RegDeleteKeyW(HKEY_CURRENT_USER, u"Prov");
            if (done.result == S_OK && complete) break;
            continue;
        }
        EXPECT_EQ(done.result, E_OUTOFMEMORY);
        EXPECT_FALSE(complete);
        EXPECT_TRUE(nothing_done());
        ++failures;
    }
    EXPECT_GT(failures, 5);
}

// ---- Other processes ----

namespace {

// A hundred values that all say which round it is.
std::u16string round_document(int round) {
    std::u16string inner;
    const std::string text = std::to_string(round);
    for (int i = 0; i < 100; ++i) {
        const std::string name = std::to_string(i);
        inner += parm(std::u16string(name.begin(), name.end()), std::u16string(text.begin(), text.end()), u"integer");
    }
    return in_key(inner);
}

}  // namespace

ZR_CHILD(provisioning_rounds) {
    zr::test::say("ready");
    for (int round = 1;; ++round) {
        if (FAILED(process(round_document(round)).result)) {
            zr::test::say(shown(ZrProvisioningLastErrorText()));
            return 1;
        }
        if (round == 1) zr::test::say("begun");
    }
    return static_cast<int>(args.size());
}

ZR_CHILD(provisioning_without_module) {
    const HRESULT result = process(in_key(u"")).result;
    const std::u16string said = ZrProvisioningLastErrorText();
    zr::test::say(std::string(said.begin(), said.end()));
    return result == HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND) ? static_cast<int>(args.size()) : 1;
}

TEST_F(Provisioning, KilledAtAnyMomentItIsDoneOrNot) {
    for (int kill = 0; kill < 20; ++kill) {
        Child child("provisioning_rounds");
        ASSERT_EQ(child.hear(), "ready");
        if (kill % 2 != 0) {
            ASSERT_EQ(child.hear(), "begun");
        }
        for (int look = 0; look < kill % 7; ++look) {
            process(in_key(u"<parm-query name=\"0\" />"));
        }
        child.kill(SIGKILL);
        EXPECT_EQ(child.wait(), -SIGKILL);
        const long first = number(HKEY_CURRENT_USER, u"Prov", u"0");
        EXPECT_EQ(number(HKEY_CURRENT_USER, u"Prov", u"99"), first);
        EXPECT_EQ(number(HKEY_CURRENT_USER, u"Prov", u"50"), first);
    }
}

TEST_F(Provisioning, IsWholeForOthersWhileTwoProcessesProvision) {
    Child one("provisioning_rounds");
    Child two("provisioning_rounds");
    ASSERT_EQ(one.hear(), "ready");
    ASSERT_EQ(two.hear(), "ready");
    ASSERT_EQ(one.hear(), "begun");
    ASSERT_EQ(two.hear(), "begun");
    for (int look = 0; look < 50; ++look) {
        const Outcome seen = process(doc(in(u"Registry", u"<characteristic-query type=\"HKCU\\Prov\" />")));
        ASSERT_EQ(seen.result, S_OK);
        ASSERT_EQ(process(round_document(1000000 + look)).result, S_OK);
    }
    one.kill(SIGKILL);
    two.kill(SIGKILL);
    one.wait();
    two.wait();
    const long first = number(HKEY_CURRENT_USER, u"Prov", u"0");
    for (const LPCWSTR name : {u"1", u"33", u"66", u"99"}) {
        EXPECT_EQ(number(HKEY_CURRENT_USER, u"Prov", name), first);
    }
}

TEST_F(Provisioning, ThreeHundredForksUnderLoad) {
    const auto provision = [](const std::u16string& name, int value) {
        const std::u16string text(1, static_cast<WCHAR>(u'0' + value % 10));
        return process(in_key(parm(name, text, u"integer"))).result == S_OK &&
               number(HKEY_CURRENT_USER, u"Prov", name.c_str()) == value % 10;
    };
    int beside = 0;
    const Load load({[&] { EXPECT_TRUE(provision(u"load", ++beside)); }});
    for (int i = 0; i < 300 / kStride; ++i) {
        ASSERT_EQ(in_fork([&] { return provision(u"child", i) ? 0 : 1; }), 0) << "fork " << i;
        ASSERT_TRUE(provision(u"parent", i)) << "fork " << i;
        ASSERT_EQ(number(HKEY_CURRENT_USER, u"Prov", u"child"), i % 10);
    }
}

TEST_F(Provisioning, SaysWhatIsMissingWithoutItsModule) {
    namespace fs = std::filesystem;
    Dl_info info{};
    ASSERT_NE(dladdr(reinterpret_cast<void*>(&DMProcessConfigXML), &info), 0);
    const fs::path library = info.dli_fname;
    const fs::path folder = zr::test::sandbox() / "without_module";
    fs::create_directories(folder);
    fs::create_symlink(fs::absolute(library), folder / library.filename());
    const char* const before = getenv("LD_LIBRARY_PATH");
    const std::string kept = before ? before : "";
    setenv("LD_LIBRARY_PATH", folder.c_str(), 1);
    Child child("provisioning_without_module");
    if (before) {
        setenv("LD_LIBRARY_PATH", kept.c_str(), 1);
    } else {
        unsetenv("LD_LIBRARY_PATH");
    }
    const std::string said = child.hear();
    EXPECT_EQ(child.wait(), 0) << said;
    EXPECT_NE(said.find("libxml2"), std::string::npos) << said;
    fs::remove_all(folder);
}
