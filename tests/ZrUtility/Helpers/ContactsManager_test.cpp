#include "ZrUtility/Helpers/ContactsManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>

#include "ZrUtility/Helpers/OutlookManager.h"
#include "ZrUtility/Helpers/fake_outlook.h"
#include "support/log_capture.h"
#include "support/log_categories.h"

namespace {

using testing::ElementsAre;
using zr::test::FakeOutlook;
using zr::test::kContactsFailure;

class ContactsManagerTest : public testing::Test {
protected:
    ~ContactsManagerTest() override {
        EXPECT_EQ(world_.objects, 1);  // the factory
        EXPECT_EQ(world_.strings, 0);
    }

    ContactsManager::CM_QUANTIFIER find(const std::u16string& pattern, int exact, int substrings, int emailOnly,
                                        Contact*& contact) {
        std::u16string copy = pattern;
        return manager_.FindContact(copy.data(), 4, exact, substrings, emailOnly, contact);
    }
    std::vector<std::vector<std::uintptr_t>> failures() const {
        std::vector<std::vector<std::uintptr_t>> all;
        for (const auto& record : log_.records()) {
            if (record.category == kContactsFailure) all.push_back(record.arguments);
        }
        return all;
    }

    FakeOutlook world_;
    zr::test::LogCapture log_;
    ContactsManager manager_;
};

LONG contact_oid(Contact* contact) {
    LONG oid = 0;
    EXPECT_EQ(contact->get_Oid(oid), S_OK);
    return oid;
}

}  // namespace

TEST_F(ContactsManagerTest, CountsItsUsers) {
    EXPECT_FALSE(manager_.IsInitialized());
    EXPECT_EQ(manager_.Initialize(), S_OK);
    EXPECT_EQ(manager_.Initialize(), S_OK);
    EXPECT_TRUE(manager_.IsInitialized());
    EXPECT_EQ(world_.calls["Logon"], 1);
    EXPECT_EQ(manager_.Uninitialize(0), S_OK);
    EXPECT_TRUE(manager_.IsInitialized());
    EXPECT_EQ(world_.calls["Logoff"], 0);
    EXPECT_EQ(manager_.Uninitialize(0), S_OK);
    EXPECT_FALSE(manager_.IsInitialized());
    EXPECT_EQ(world_.calls["Logoff"], 1);
    EXPECT_EQ(world_.objects, 1);
    EXPECT_TRUE(failures().empty());
}

TEST_F(ContactsManagerTest, ForceEndsItWhateverTheCount) {
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(manager_.Initialize(), S_OK);
    }
    EXPECT_EQ(manager_.Uninitialize(1), S_OK);
    EXPECT_FALSE(manager_.IsInitialized());
    EXPECT_EQ(world_.objects, 1);
    EXPECT_EQ(manager_.Initialize(), S_OK);
    EXPECT_EQ(manager_.Uninitialize(0), S_OK);
    EXPECT_FALSE(manager_.IsInitialized());
}

TEST_F(ContactsManagerTest, TheDestructorEndsIt) {
    {
        ContactsManager manager;
        EXPECT_EQ(manager.Initialize(), S_OK);
        EXPECT_EQ(manager.Initialize(), S_OK);
    }
    EXPECT_EQ(world_.objects, 1);
    EXPECT_EQ(OutlookManager::m_pOutlookApp, nullptr);
}

TEST_F(ContactsManagerTest, CallsTooManyDoNoHarm) {
    EXPECT_EQ(manager_.Uninitialize(0), S_OK);
    EXPECT_EQ(manager_.Uninitialize(0), S_OK);
    EXPECT_FALSE(manager_.IsInitialized());
    world_.results["get_Items"] = E_FAIL;
    EXPECT_EQ(manager_.Initialize(), E_FAIL);
    EXPECT_EQ(world_.objects, 1);
    world_.results.clear();
    EXPECT_EQ(manager_.Initialize(), S_OK);
    EXPECT_TRUE(manager_.IsInitialized());
    EXPECT_EQ(manager_.Uninitialize(0), S_OK);
    EXPECT_FALSE(manager_.IsInitialized());
}

TEST_F(ContactsManagerTest, AFailingStepLeavesNothingHeld) {
    for (const char* step : {"GetDefaultFolder 10", "get_Items", "CreateInstance"}) {
        for (int round = 0; round < 3; ++round) {
            world_.results[step] = E_ABORT;
            EXPECT_EQ(manager_.Initialize(), E_ABORT) << step;
            EXPECT_FALSE(manager_.IsInitialized());
            EXPECT_EQ(world_.objects, 1) << step;
            EXPECT_EQ(OutlookManager::m_pOutlookApp, nullptr);
            world_.results.erase(step);
        }
        EXPECT_EQ(manager_.Initialize(), S_OK);
        EXPECT_EQ(manager_.Uninitialize(0), S_OK);
        EXPECT_FALSE(manager_.IsInitialized());
    }
    EXPECT_THAT(failures(), testing::Contains(ElementsAre(static_cast<ULONG>(E_ABORT))));
}

TEST_F(ContactsManagerTest, AFailingLogoffIsTheResultOfTheEnd) {
    EXPECT_EQ(manager_.Initialize(), S_OK);
    world_.results["Logoff"] = E_HANDLE;
    EXPECT_EQ(manager_.Uninitialize(0), E_HANDLE);
    EXPECT_EQ(world_.objects, 1);
    EXPECT_FALSE(manager_.IsInitialized());
    EXPECT_THAT(failures(), ElementsAre(ElementsAre(static_cast<ULONG>(E_HANDLE), 0)));
}

TEST_F(ContactsManagerTest, LogsItsUsersAndFailures) {
    const auto records = [this] {
        std::vector<std::pair<std::uint32_t, std::vector<std::uintptr_t>>> all;
        for (const auto& record : log_.records()) {
            if (record.category >> 16 == 0x73) all.emplace_back(record.category, record.arguments);
        }
        return all;
    };
    using Record = std::pair<std::uint32_t, std::vector<std::uintptr_t>>;
    EXPECT_EQ(manager_.Initialize(), S_OK);
    EXPECT_EQ(manager_.Initialize(), S_OK);
    EXPECT_EQ(manager_.Uninitialize(0), S_OK);
    EXPECT_EQ(manager_.Uninitialize(1), S_OK);
    // That it succeeded and the count; the count; the count and whether it was forced, twice.
    const std::vector<Record> expected = {
        {0x730010, {0}}, {0x730010, {1}}, {0x730010, {2}}, {0x730010, {1, 0}}, {0x730010, {0, 1}}};
    EXPECT_EQ(records(), expected);
    world_.results["get_Items"] = E_ABORT;
    EXPECT_EQ(manager_.Initialize(), E_ABORT);
    const auto all = records();
    ASSERT_EQ(all.size(), 8u);
    EXPECT_EQ(all[5], Record(0x730010, {1}));
    EXPECT_EQ(all[6], Record(kContactsFailure, {static_cast<ULONG>(E_ABORT)}));
    EXPECT_EQ(all[7], Record(0x730010, {0, 0}));
}

TEST_F(ContactsManagerTest, NothingWorksBeforeInitialize) {
    Contact* contact = reinterpret_cast<Contact*>(0x10);
    int count = 0;
    WCHAR pattern[] = u"x";
    EXPECT_EQ(manager_.GetContactsCount(count), E_FAIL);
    EXPECT_EQ(manager_.SortCollection(1), E_FAIL);
    EXPECT_EQ(manager_.AddContact(contact), E_FAIL);
    EXPECT_EQ(contact, nullptr);
    EXPECT_EQ(manager_.GetContact(1, contact), E_FAIL);
    EXPECT_EQ(manager_.GetContactFromOid(1, contact), E_FAIL);
    EXPECT_EQ(manager_.FindContact(pattern, 0, 0, 0, 0, contact), ContactsManager::CM_FAILED);
    EXPECT_EQ(contact, nullptr);
}

TEST_F(ContactsManagerTest, HandsOutContacts) {
    world_.add(5, {});
    world_.add(9, {});
    ASSERT_EQ(manager_.Initialize(), S_OK);
    int count = 0;
    EXPECT_EQ(manager_.GetContactsCount(count), S_OK);
    EXPECT_EQ(count, 2);
    Contact* contact = nullptr;
    EXPECT_EQ(manager_.GetContact(2, contact), S_OK);
    EXPECT_EQ(contact_oid(contact), 9);
    EXPECT_EQ(manager_.ReleaseContact(contact), S_OK);
    EXPECT_EQ(contact, nullptr);
    EXPECT_EQ(manager_.ReleaseContact(contact), S_OK);
    EXPECT_EQ(manager_.GetContactFromOid(5, contact), S_OK);
    EXPECT_EQ(contact_oid(contact), 5);
    manager_.ReleaseContact(contact);
    EXPECT_EQ(manager_.AddContact(contact), S_OK);
    ASSERT_NE(contact, nullptr);
    EXPECT_EQ(contact->Save(), S_OK);
    manager_.ReleaseContact(contact);
    EXPECT_EQ(manager_.GetContact(3, contact), E_INVALIDARG);
    EXPECT_EQ(contact, nullptr);
    EXPECT_EQ(manager_.GetContactFromOid(77, contact), E_INVALIDARG);
    EXPECT_EQ(failures().size(), 2u);
    EXPECT_EQ(manager_.Uninitialize(0), S_OK);
}

TEST_F(ContactsManagerTest, RecordsAreNeverHandedOutHalfBound) {
    world_.add(5, {});
    ASSERT_EQ(manager_.Initialize(), S_OK);
    const int before = world_.objects;
    world_.results["get_Application"] = E_ABORT;
    Contact* contact = reinterpret_cast<Contact*>(0x10);
    EXPECT_EQ(manager_.GetContact(1, contact), E_ABORT);
    EXPECT_EQ(contact, nullptr);
    EXPECT_EQ(manager_.GetContactFromOid(5, contact), E_ABORT);
    EXPECT_EQ(manager_.AddContact(contact), E_ABORT);
    WCHAR pattern[] = u"x";
    EXPECT_EQ(manager_.FindContact(pattern, 0, 0, 0, 0, contact), 3);
    EXPECT_EQ(contact, nullptr);
    EXPECT_EQ(world_.objects, before);
    EXPECT_EQ(failures().size(), 4u);
    world_.results.clear();
    for (const char* step : {"Add", "Item", "GetItemFromOid"}) {
        world_.results[step] = S_FALSE;  // succeeds without an item
    }
    EXPECT_EQ(manager_.AddContact(contact), S_FALSE);
    EXPECT_EQ(contact, nullptr);
    EXPECT_EQ(manager_.GetContact(1, contact), S_FALSE);
    EXPECT_EQ(manager_.GetContactFromOid(5, contact), S_FALSE);
    EXPECT_EQ(contact, nullptr);
    EXPECT_EQ(manager_.FindContact(pattern, 0, 0, 0, 0, contact), 3);
    world_.results.clear();
    manager_.Uninitialize(0);
}

TEST_F(ContactsManagerTest, SortsByEveryFieldButTheJobTitle) {
    ASSERT_EQ(manager_.Initialize(), S_OK);
    const std::pair<int, const char16_t*> tags[] = {
        {1, u"[FileAs]"},          {2, u"[Title]"},           {4, u"[FirstName]"},    {8, u"[MiddleName]"},
        {16, u"[LastName]"},       {32, u"[Suffix]"},         {64, u"[CompanyName]"}, {128, u"[Email1Address]"},
        {256, u"[Email2Address]"}, {512, u"[Email3Address]"},
    };
    for (const auto& [field, tag] : tags) {
        EXPECT_EQ(manager_.SortCollection(field), S_OK);
        EXPECT_EQ(world_.last_sort, tag);
    }
    for (const int field : {0, 3, 1024, 2048, -1}) {
        EXPECT_EQ(manager_.SortCollection(field), S_OK);
    }
    EXPECT_EQ(world_.calls["Sort"], 10);
    world_.results["Sort"] = E_INVALIDARG;
    EXPECT_EQ(manager_.SortCollection(1), E_INVALIDARG);
    EXPECT_THAT(failures(), ElementsAre(ElementsAre(static_cast<ULONG>(E_INVALIDARG))));
    manager_.Uninitialize(0);
}

TEST_F(ContactsManagerTest, FindsNoneOneOrSeveral) {
    world_.add(1, {{"FirstName", u"Ann"}, {"LastName", u"Lee"}, {"Email2Address", u"ann@x"}});
    world_.add(2, {{"FirstName", u"Anna"}, {"CompanyName", u"Lee & Co"}});
    world_.add(3, {{"JobTitle", u"baker"}, {"Email3Address", u"b@x"}});
    ASSERT_EQ(manager_.Initialize(), S_OK);
    Contact* contact = reinterpret_cast<Contact*>(0x10);
    EXPECT_EQ(find(u"zoe", 0, 0, 0, contact), 0);
    EXPECT_EQ(contact, nullptr);
    EXPECT_EQ(find(u"BAKER", 1, 0, 0, contact), 1);
    ASSERT_NE(contact, nullptr);
    EXPECT_EQ(contact_oid(contact), 3);
    manager_.ReleaseContact(contact);
    EXPECT_EQ(find(u"ann", 0, 0, 0, contact), 2);
    EXPECT_EQ(contact, nullptr);
    EXPECT_EQ(find(u"ann", 1, 0, 0, contact), 1);
    EXPECT_EQ(contact_oid(contact), 1);
    manager_.ReleaseContact(contact);
    EXPECT_EQ(find(u"co le", 0, 1, 0, contact), 1);
    EXPECT_EQ(contact_oid(contact), 2);
    manager_.ReleaseContact(contact);
    // Contacts without any address are passed over.
    EXPECT_EQ(find(u"ann", 0, 0, 1, contact), 1);
    EXPECT_EQ(contact_oid(contact), 1);
    manager_.ReleaseContact(contact);
    EXPECT_EQ(find(u"", 0, 0, 0, contact), 2);
    EXPECT_EQ(manager_.FindContact(nullptr, 0, 0, 0, 0, contact), 0);
    world_.records.clear();
    EXPECT_EQ(find(u"", 0, 0, 0, contact), 0);
    EXPECT_TRUE(failures().empty());
    manager_.Uninitialize(0);
}

TEST_F(ContactsManagerTest, TheSearchStopsAtTheSecondMatch) {
    for (LONG oid = 1; oid <= 10; ++oid) {
        world_.add(oid, {{"FirstName", oid % 2 ? u"x" : u"y"}});
    }
    ASSERT_EQ(manager_.Initialize(), S_OK);
    Contact* contact = nullptr;
    EXPECT_EQ(find(u"y", 1, 0, 0, contact), 2);
    EXPECT_EQ(world_.calls["Item"], 4);
    manager_.Uninitialize(0);
}

TEST_F(ContactsManagerTest, AFailingSearchGivesNothing) {
    world_.add(1, {{"FirstName", u"x"}});
    world_.add(2, {{"FirstName", u"y"}});
    ASSERT_EQ(manager_.Initialize(), S_OK);
    Contact* contact = nullptr;
    world_.result_of_call["Item"] = {2, E_ABORT};
    EXPECT_EQ(find(u"x", 1, 0, 0, contact), 3);
    EXPECT_EQ(contact, nullptr);
    world_.results["get_Count"] = E_HANDLE;
    EXPECT_EQ(find(u"x", 1, 0, 0, contact), 3);
    EXPECT_THAT(failures(),
                ElementsAre(ElementsAre(static_cast<ULONG>(E_ABORT)), ElementsAre(static_cast<ULONG>(E_HANDLE))));
    EXPECT_EQ(log_.records().back().source, ".\\Helpers\\ContactsManager.cppzrwindowsmobile");
    manager_.Uninitialize(0);
}

TEST_F(ContactsManagerTest, WhatIsNotOfferedSaysSo) {
    Contact** contacts = nullptr;
    WCHAR pattern[] = u"x";
    EXPECT_EQ(manager_.FindContacts(pattern, 1, 2, contacts), -1);
    EXPECT_EQ(manager_.FindContacts(nullptr, 0, 0, contacts), -1);
    EXPECT_EQ(manager_.ReleaseContacts(contacts, 3), E_FAIL);
    EXPECT_EQ(manager_.ProcessPIMCreated(nullptr, 0, 0, 0), 0);
    EXPECT_EQ(manager_.ProcessPIMDeleted(nullptr, 0, 0, 0), 0);
    EXPECT_EQ(manager_.ProcessPIMChanged(nullptr, 0, 0, 0), 0);
}

// ---- Layout ----

namespace {

// Calls the virtual operation at a place of the object's table. The destructor takes places 0 and 1.
template <class Result, class... Arguments>
Result call_slot(ContactsManager& manager, int slot, Arguments... arguments) {
    void** table = nullptr;
    std::memcpy(&table, static_cast<const void*>(&manager), sizeof table);
    auto* const operation = reinterpret_cast<Result (*)(ContactsManager*, Arguments...)>(table[slot]);
    return operation(&manager, arguments...);
}

class CountingManager : public ContactsManager {
public:
    LONG ProcessPIMCreated(HWND, UINT, WPARAM oid, LPARAM) override { return called("created", oid); }
    LONG ProcessPIMDeleted(HWND, UINT, WPARAM oid, LPARAM) override { return called("deleted", oid); }
    LONG ProcessPIMChanged(HWND, UINT, WPARAM oid, LPARAM) override { return called("changed", oid); }

    std::string last;

private:
    LONG called(const char* name, WPARAM oid) {
        last = name + std::to_string(oid);
        return 42;
    }
};

}  // namespace

TEST_F(ContactsManagerTest, VirtualOperationsStandInTheirPlaces) {
    world_.add(5, {{"FirstName", u"x"}});
    CountingManager manager;
    EXPECT_EQ(call_slot<int>(manager, 2), 0);
    EXPECT_EQ(call_slot<LONG>(manager, 3), S_OK);
    EXPECT_EQ(call_slot<int>(manager, 2), 1);
    EXPECT_EQ(call_slot<int>(manager, 5), 0);
    EXPECT_EQ(call_slot<LONG>(manager, 6, 2), S_OK);
    EXPECT_EQ(world_.last_sort, u"[Title]");
    int count = 0;
    EXPECT_EQ((call_slot<LONG, int&>(manager, 7, count)), S_OK);
    EXPECT_EQ(count, 1);
    Contact* contact = nullptr;
    EXPECT_EQ((call_slot<LONG, Contact*&>(manager, 8, contact)), S_OK);
    EXPECT_EQ((call_slot<LONG, Contact*&>(manager, 12, contact)), S_OK);
    EXPECT_EQ((call_slot<LONG, int, Contact*&>(manager, 9, 1, contact)), S_OK);
    EXPECT_EQ(contact_oid(contact), 5);
    manager.ReleaseContact(contact);
    EXPECT_EQ((call_slot<LONG, ULONG, Contact*&>(manager, 10, 5u, contact)), S_OK);
    manager.ReleaseContact(contact);
    WCHAR pattern[] = u"x";
    EXPECT_EQ((call_slot<int, WCHAR*, int, int, int, int, Contact*&>(manager, 11, pattern, 0, 1, 0, 0, contact)), 1);
    manager.ReleaseContact(contact);
    Contact** contacts = nullptr;
    EXPECT_EQ((call_slot<int, WCHAR*, int, int, Contact**&>(manager, 13, pattern, 0, 0, contacts)), -1);
    EXPECT_EQ((call_slot<LONG, Contact**&, int>(manager, 14, contacts, 0)), E_FAIL);
    const HWND window = nullptr;
    EXPECT_EQ((call_slot<LONG, HWND, UINT, WPARAM, LPARAM>(manager, 15, window, 1, 7, 0)), 42);
    EXPECT_EQ(manager.last, "created7");
    EXPECT_EQ((call_slot<LONG, HWND, UINT, WPARAM, LPARAM>(manager, 16, window, 1, 8, 0)), 42);
    EXPECT_EQ(manager.last, "deleted8");
    EXPECT_EQ((call_slot<LONG, HWND, UINT, WPARAM, LPARAM>(manager, 17, window, 1, 9, 0)), 42);
    EXPECT_EQ(manager.last, "changed9");
    EXPECT_EQ(call_slot<LONG>(manager, 4, 0), S_OK);
    EXPECT_EQ(call_slot<int>(manager, 2), 0);
}

TEST_F(ContactsManagerTest, FieldsStandInTheStatedOrderAndCopiesShareThem) {
    ASSERT_EQ(manager_.Initialize(), S_OK);
    struct Fields {
        void* table;
        void* application;
        void* folder;
        void* items;
        void* window;
        int count;
    } fields;
    static_assert(sizeof(ContactsManager) == sizeof fields);
    std::memcpy(&fields, static_cast<const void*>(&manager_), sizeof fields);
    EXPECT_EQ(fields.application, world_.application);
    EXPECT_NE(fields.folder, nullptr);
    EXPECT_NE(fields.items, nullptr);
    EXPECT_EQ(fields.window, nullptr);
    EXPECT_EQ(fields.count, 1);
    const int before = world_.objects;
    // Never destroyed: it shares what manager_ holds.
    alignas(ContactsManager) std::array<unsigned char, sizeof(ContactsManager)> room;
    const auto* copy = new (room.data()) ContactsManager(manager_);
    EXPECT_EQ(std::memcmp(static_cast<const void*>(copy), static_cast<const void*>(&manager_), sizeof fields - 4), 0);
    EXPECT_EQ(world_.objects, before);
    EXPECT_EQ(manager_.Uninitialize(0), S_OK);
}

TEST_F(ContactsManagerTest, NamesItsWindowClass) {
    EXPECT_EQ(std::u16string(ContactsManager::S_pwzListenerClassName), u"kel.net.Contacts.Listener");
}
