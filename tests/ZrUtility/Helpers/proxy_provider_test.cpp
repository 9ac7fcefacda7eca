// Proxy entries: items and their enumerator.

#include <gtest/gtest.h>

#include "proxy_support.h"
#include "support/failing_new.h"

namespace {

using namespace zr::test;

class ProxyProviders : public ProxyEntries {
protected:
    static std::u16string xml(Item& entry) {
        const std::unique_ptr<WCHAR[]> text(entry.GenerateXMLEntry());
        return text ? text.get() : u"(none)";
    }
    static std::u16string document(Item& entry) {
        const std::unique_ptr<WCHAR[]> text(entry.GenerateConfigXML());
        return text ? text.get() : u"(none)";
    }
    static std::u16string proxy(Item& entry) {
        WCHAR text[300] = u"";
        return entry.GetProxy(text, 300) ? text : u"(none)";
    }
};

}  // namespace

TEST_F(ProxyProviders, ANewItemMakesItsEntry) {
    { const auto made = item(u"HTTP-New"); }
    EXPECT_TRUE(stored(key_of(u"HTTP-New")));
    { const Item made(nullptr, Text(u"null-"), Text(u"corp")); }
    EXPECT_TRUE(stored(key_of(u"null-corp")));
    { const Item none(nullptr, nullptr); }
    EXPECT_EQ(all().size(), 2u);
}

TEST_F(ProxyProviders, AnItemWithoutKeyDoesNothing) {
    Item none(nullptr, nullptr);
    WCHAR text[10];
    ULONG number = 0;
    int enable = 0;
    EXPECT_EQ(none.GetProxy(text, 10), 0);
    EXPECT_EQ(none.GetType(&number), 0);
    EXPECT_EQ(none.GetEnable(&enable), 0);
    EXPECT_EQ(none.SetProxy(Text(u"p"), 1), 0);
    EXPECT_EQ(none.SetEnable(1, 1), 0);
    EXPECT_EQ(none.RevertChanges(), 0);
    EXPECT_EQ(none.IsHalcyonProvider(), 0);
    EXPECT_EQ(xml(none), u"(none)");
    EXPECT_EQ(document(none), u"(none)");
}

TEST_F(ProxyProviders, GetAndSetEachValue) {
    const auto made = item(u"E");
    const std::vector<std::pair<int (Item::*)(WCHAR*, int), int (Item::*)(WCHAR*, ULONG)>> texts = {
        {&Item::SetConnectionGUID, &Item::GetConnectionGUID},
        {&Item::SetDestId, &Item::GetDestId},
        {&Item::SetSrcId, &Item::GetSrcId},
        {&Item::SetProxy, &Item::GetProxy},
        {&Item::SetUserName, &Item::GetUserName},
        {&Item::SetPassword, &Item::GetPassword},
    };
    std::u16string value = u"a";
    WCHAR read[20];
    for (const auto& [set, get] : texts) {
        EXPECT_EQ((*made.*get)(read, 20), 0);
        EXPECT_EQ((*made.*set)(Text(value), 0), 1);
        EXPECT_EQ((*made.*get)(read, 20), 1);
        EXPECT_EQ(read, value);
        EXPECT_EQ((*made.*get)(read, static_cast<ULONG>(value.size())), 0);  // no room for the terminator
        EXPECT_EQ((*made.*get)(nullptr, 20), 0);
        EXPECT_EQ((*made.*get)(read, 0), 0);
        EXPECT_EQ((*made.*set)(nullptr, 0), 0);
        value += u"b";
    }
    ULONG type = 0;
    int enable = 0;
    EXPECT_EQ(made->GetType(&type), 0);
    EXPECT_EQ(made->SetType(0xFFFFFFFF, 0), 1);
    EXPECT_EQ(made->GetType(&type), 1);
    EXPECT_EQ(type, 0xFFFFFFFF);
    EXPECT_EQ(made->SetEnable(-1, 0), 1);
    EXPECT_EQ(made->GetEnable(&enable), 1);
    EXPECT_EQ(enable, -1);
    EXPECT_EQ(made->GetType(nullptr), 0);
    EXPECT_EQ(made->GetEnable(nullptr), 0);
    EXPECT_EQ(entry(u"E"), (StoredKey{{u"ConnectionGUID", text_value(u"a")},
                                      {u"DestId", text_value(u"ab")},
                                      {u"SrcId", text_value(u"abb")},
                                      {u"Proxy", text_value(u"abbb")},
                                      {u"UserName", text_value(u"abbbb")},
                                      {u"Password", text_value(u"abbbbb")},
                                      {u"Type", number_value(0xFFFFFFFF)},
                                      {u"Enable", number_value(0xFFFFFFFF)}}));
}

TEST_F(ProxyProviders, SettingWhatIsStoredIsNoChange) {
    store(key_of(u"E"), {{u"Proxy", text_value(u"Host:80")}, {u"Enable", number_value(1)}});
    const auto made = item(u"E");
    EXPECT_EQ(made->SetProxy(Text(u"hOST:80"), 1), 1);
    EXPECT_EQ(made->SetEnable(1, 1), 1);
    EXPECT_EQ(xml(*made), u"(none)");
    EXPECT_EQ(proxy(*made), u"Host:80");
    EXPECT_FALSE(backup(u"E"));
}

TEST_F(ProxyProviders, ABackupIsOfTheValueBeforeTheFirstChange) {
    store(key_of(u"E"), {{u"Proxy", text_value(u"first")}});
    {
        const auto made = item(u"E");
        EXPECT_EQ(made->SetProxy(Text(u"second"), 1), 1);
        EXPECT_EQ(made->SetProxy(Text(u"third"), 1), 1);
    }
    EXPECT_EQ(backup(u"E"), (StoredKey{{u"Proxy", text_value(u"first")}}));
    const auto again = item(u"E");
    EXPECT_EQ(again->RevertChanges(), 1);
    EXPECT_EQ(entry(u"E"), (StoredKey{{u"Proxy", text_value(u"first")}}));
    EXPECT_FALSE(backup(u"E"));
    EXPECT_NE(xml(*again).find(u"\"first\""), std::u16string::npos);
}

TEST_F(ProxyProviders, WithoutBackupNothingIsKept) {
    store(key_of(u"E"), {{u"Proxy", text_value(u"first")}});
    const auto made = item(u"E");
    EXPECT_EQ(made->SetProxy(Text(u"second"), 0), 1);
    EXPECT_FALSE(backup(u"E"));
    EXPECT_EQ(made->RevertChanges(), 1);
    EXPECT_EQ(proxy(*made), u"second");
}

TEST_F(ProxyProviders, AValueThatWasMissingStaysAfterARevert) {
    const auto made = item(u"E");
    EXPECT_EQ(made->SetProxy(Text(u"new"), 1), 1);
    EXPECT_EQ(backup(u"E"), StoredKey());
    EXPECT_EQ(made->RevertChanges(), 1);
    EXPECT_EQ(proxy(*made), u"new");
    EXPECT_FALSE(backup(u"E"));
}

TEST_F(ProxyProviders, KeepsBackupsOfWhateverType) {
    const StoredKey odd = {{u"Proxy", {REG_BINARY, {1, 2, 3}}}, {u"Enable", text_value(u"yes")}, {u"Type", {77, {}}}};
    store(key_of(u"E"), odd);
    const auto made = item(u"E");
    EXPECT_EQ(proxy(*made), u"(none)");
    EXPECT_EQ(made->SetProxy(Text(u"new"), 1), 1);
    EXPECT_EQ(made->SetEnable(1, 1), 1);
    EXPECT_EQ(made->SetType(1, 1), 1);
    EXPECT_EQ(made->RevertChanges(), 1);
    EXPECT_EQ(entry(u"E"), odd);
}

TEST_F(ProxyProviders, AValueTooLargeToKeepIsWrittenAllTheSame) {
    store(key_of(u"E"), {{u"Proxy", text_value(std::u16string(128, u'x'))}});
    const auto made = item(u"E");
    EXPECT_EQ(made->SetProxy(Text(u"new"), 1), 1);
    EXPECT_EQ(backup(u"E"), StoredKey());
    EXPECT_EQ(made->RevertChanges(), 1);
    EXPECT_EQ(proxy(*made), u"new");
}

TEST_F(ProxyProviders, AnItemWithoutNameTouchesNobodysBackup) {
    store(kBackups + u"\\Other", {{u"Proxy", text_value(u"kept")}});
    HKEY key = nullptr;
    store(key_of(u"E"), {});
    RegOpenKeyExW(HKEY_LOCAL_MACHINE, key_of(u"E").c_str(), 0, 0, &key);
    Item unnamed(key, nullptr);
    EXPECT_EQ(unnamed.RevertChanges(), 1);
    EXPECT_EQ(unnamed.IsHalcyonProvider(), 0);
    EXPECT_TRUE(backup(u"Other"));
}

TEST_F(ProxyProviders, ARevertMarksAllValuesAndKeepsThemMarked) {
    store(key_of(u"E"), {{u"Proxy", text_value(u"p:1")}, {u"Enable", number_value(0)}, {u"DestId", text_value(u"d")}});
    const auto made = item(u"E");
    made->SetEnable(1, 1);
    EXPECT_EQ(xml(*made),
              u" <characteristic type=\"E\">\r\n <parm name=\"Enable\" value=\"1\" />\r\n </characteristic>\r\n");
    made->RevertChanges();
    EXPECT_EQ(
        xml(*made),
        u" <characteristic type=\"E\">\r\n <parm name=\"DestId\" value=\"d\" />\r\n <parm name=\"Enable\" value=\"0\" "
        u"/>\r\n <parm name=\"Proxy\" value=\"p:1\" />\r\n </characteristic>\r\n");
    const auto none = item(u"F");
    EXPECT_EQ(none->RevertChanges(), 1);  // nothing was kept
    EXPECT_EQ(xml(*none), u"(none)");
}

TEST_F(ProxyProviders, OnlyNamesWithTheClientsNetworkAreTheClients) {
    EXPECT_EQ(item(u"HTTP-" + kOwn)->IsHalcyonProvider(), 1);
    EXPECT_EQ(item(u"null-corp-{3584769f-41fc-4035-be97-320da11e0f02}")->IsHalcyonProvider(), 1);
    EXPECT_EQ(item(u"HTTP-" + kInternet)->IsHalcyonProvider(), 0);
    EXPECT_EQ(item(u"HTTP-3584769F-41FC-4035-BE97-320DA11E0F02")->IsHalcyonProvider(), 0);
    EXPECT_EQ(item(u"HTTP-{3584769F")->IsHalcyonProvider(), 0);
    EXPECT_EQ(item(u"{x}" + kOwn)->IsHalcyonProvider(), 0);
}

TEST_F(ProxyProviders, WritesTheDocumentInTheOrderOfTheValues) {
    const auto made = item(u"N");
    made->SetProxy(Text(u"host:port"), 0);
    made->SetEnable(1, 0);
    EXPECT_EQ(document(*made),
              u"<wap-provisioningdoc>\r\n"
              u" <characteristic type=\"CM_ProxyEntries\">\r\n"
              u" <characteristic type=\"N\">\r\n"
              u" <parm name=\"Enable\" value=\"1\" />\r\n"
              u" <parm name=\"Proxy\" value=\"host:port\" />\r\n"
              u" </characteristic>\r\n"
              u" </characteristic>\r\n"
              u"</wap-provisioningdoc>\r\n");
}

TEST_F(ProxyProviders, LeavesOutWhatCannotBeRead) {
    const auto made = item(u"N");
    made->SetProxy(Text(std::u16string(256, u'x')), 0);
    made->SetUserName(Text(u"u"), 0);
    made->SetType(1, 0);
    store(key_of(u"N"), {{u"Type", text_value(u"1")}});
    EXPECT_EQ(xml(*made),
              u" <characteristic type=\"N\">\r\n <parm name=\"UserName\" value=\"u\" />\r\n </characteristic>\r\n");
}

TEST_F(ProxyProviders, AnEntryOf808CharactersIsTheLongest) {
    const auto made = item(u"N");
    made->SetConnectionGUID(Text(std::u16string(250, u'a')), 0);
    made->SetDestId(Text(std::u16string(250, u'b')), 0);
    // What is left for the last value.
    const std::size_t used = xml(*made).size() + std::u16string(u" <parm name=\"SrcId\" value=\"\" />\r\n").size();
    made->SetSrcId(Text(std::u16string(808 - used, u'c')), 0);
    EXPECT_EQ(xml(*made).size(), 808u);
    made->SetSrcId(Text(std::u16string(809 - used, u'c')), 0);
    EXPECT_EQ(xml(*made), u"(none)");
    EXPECT_EQ(document(*made), u"(none)");
}

TEST_F(ProxyProviders, GivesNoTextWithoutMemory) {
    const auto made = item(u"N");
    made->SetEnable(1, 0);
    const long before = live_news();
    for (int successes = 0; successes < 2; ++successes) {
        const FailingNew failing(successes);
        EXPECT_EQ(made->GenerateConfigXML(), nullptr);
    }
    EXPECT_EQ(live_news(), before);
}

TEST_F(ProxyProviders, IsFlushedWhenItGoes) {
    // What the flush brings to the disk is the registry's business; that the key is closed is seen by its handles.
    const LONGLONG handles = ZrLiveObjects(ZrLiveKind::Handles);
    item(u"N")->SetEnable(1, 1);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), handles);
}

// ---- The enumerator ----

TEST_F(ProxyProviders, TheEnumeratorOpensWhatIsThere) {
    Enumerator entries;
    Item* found = nullptr;
    EXPECT_EQ(entries.Initialize(), 0);
    EXPECT_EQ(entries.Cleanup(), 0);
    EXPECT_EQ(entries.GetNextItem(0, &found), 0);
    EXPECT_EQ(entries.GetItem(Text(u"A"), &found), 0);
    store(key_of(u"A"), {});
    EXPECT_EQ(entries.Initialize(), 1);
    EXPECT_EQ(entries.Initialize(), 1);
    EXPECT_EQ(entries.Cleanup(), 1);
    EXPECT_EQ(entries.Cleanup(), 0);
}

TEST_F(ProxyProviders, TheEnumeratorHandsOutEachByPositionAndByName) {
    for (const char16_t* const name : {u"A", u"B", u"C"}) {
        store(key_of(name), {{u"Proxy", text_value(name)}});
    }
    Enumerator entries;
    ASSERT_EQ(entries.Initialize(), 1);
    std::u16string seen;
    Item* found = nullptr;
    for (ULONG i = 0; entries.GetNextItem(i, &found); ++i) {
        seen += proxy(*found);
        delete found;
    }
    EXPECT_EQ(seen, u"ABC");
    ASSERT_EQ(entries.GetItem(Text(u"b"), &found), 1);
    EXPECT_EQ(proxy(*found), u"B");
    delete found;
    EXPECT_EQ(entries.GetItem(Text(u"D"), &found), 0);
    EXPECT_EQ(entries.GetItem(Text(u""), &found), 0);
    EXPECT_EQ(entries.GetItem(nullptr, &found), 0);
    EXPECT_EQ(entries.GetItem(Text(u"A"), nullptr), 0);
    EXPECT_EQ(entries.GetNextItem(0, nullptr), 0);
    EXPECT_EQ(all().size(), 3u);
}

TEST_F(ProxyProviders, TheEnumeratorJoinsAPrefixAndANetwork) {
    store(key_of(u"HTTP-" + kSource), {{u"Proxy", text_value(u"found")}});
    Enumerator entries;
    ASSERT_EQ(entries.Initialize(), 1);
    Item* found = nullptr;
    ASSERT_EQ(entries.GetItem(Text(u"HTTP-"), kSourceId, &found), 1);
    EXPECT_EQ(proxy(*found), u"found");
    delete found;
    EXPECT_EQ(entries.GetItem(Text(u"null-"), kSourceId, &found), 0);
    EXPECT_EQ(entries.GetItem(Text(std::u16string(250, u'p')), kSourceId, &found), 0);
}

TEST_F(ProxyProviders, TheEnumeratorGivesNothingWithoutMemory) {
    store(key_of(u"A"), {});
    Enumerator entries;
    ASSERT_EQ(entries.Initialize(), 1);
    Item* found = nullptr;
    ASSERT_EQ(entries.GetItem(Text(u"A"), &found), 1);
    delete found;
    const LONGLONG handles = ZrLiveObjects(ZrLiveKind::Handles);
    for (int successes = 0;; ++successes) {
        ASSERT_LT(successes, 50);
        int result = 0;
        Text name(u"A");
        {
            const FailingNew failing(successes);
            result = entries.GetItem(name, &found);
        }
        if (result == 1) break;
        EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), handles);
    }
    delete found;
}
