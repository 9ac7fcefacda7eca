#include "ZrUtility/Helpers/ContactsManagerEmail.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "ZrUtility/Helpers/OutlookManager.h"
#include "ZrUtility/Helpers/fake_outlook.h"
#include "platform/diagnostics.h"
#include "platform/kernel.h"
#include "platform/windowing/windowing_support.h"
#include "support/log_capture.h"
#include "support/log_categories.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using windowing_test::drain;
using zr::test::FakeOutlook;
using zr::test::kContactsFailure;

constexpr std::uint32_t kTrace = 0x730020;
constexpr const char* kEmailSource = ".\\Helpers\\ContactsManagerEmail.cppzrwindowsmobile";

class ContactsManagerEmailTest : public testing::Test {
protected:
    ~ContactsManagerEmailTest() override {
        if (manager_.IsInitialized()) {
            EXPECT_EQ(manager_.Uninitialize(1), S_OK);
        }
        EXPECT_EQ(world_.objects, 1);  // the factory
        EXPECT_EQ(world_.strings, 0);
        EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Windows), windows_);
    }

    ContactsManager::CM_QUANTIFIER lookup(const std::u16string& address, LONG* oid = nullptr) {
        std::u16string copy = address;
        Contact* contact = reinterpret_cast<Contact*>(0x10);
        const auto result = manager_.FindContact(copy.data(), 896, 1, 0, 0, contact);
        EXPECT_EQ(contact != nullptr, result == ContactsManager::CM_ONE);
        if (contact != nullptr && oid != nullptr) {
            EXPECT_EQ(contact->get_Oid(*oid), S_OK);
        }
        manager_.ReleaseContact(contact);
        return result;
    }
    // How often the index was rebuilt, and at which ratios in ten-thousandths.
    std::vector<std::uintptr_t> rebuilds() const {
        std::vector<std::uintptr_t> ratios;
        for (const auto& record : log_.records()) {
            if (record.category == kTrace && record.arguments.size() == 1) ratios.push_back(record.arguments[0]);
        }
        return ratios;
    }

    const LONGLONG windows_ = ZrLiveObjects(ZrLiveKind::Windows);
    FakeOutlook world_;
    zr::test::LogCapture log_;
    ContactsManagerEmail manager_;
};

}  // namespace

TEST_F(ContactsManagerEmailTest, ItsConstantsAreExported) {
    EXPECT_EQ(ContactsManagerEmail::m_cfRehashThreshHold, 0.85f);
    EXPECT_EQ(ContactsManagerEmail::m_ciAssumedEmailsPerContact, 3);
    EXPECT_EQ(manager_.GetClassType(), ContactsManager::CM_TYPE_EMAIL);
    EXPECT_EQ(manager_.GetClassType(), 1);
}

TEST_F(ContactsManagerEmailTest, ListensWhileItIsInitialized) {
    EXPECT_FALSE(manager_.IsInitialized());
    EXPECT_EQ(manager_.Initialize(), S_OK);
    EXPECT_EQ(manager_.Initialize(), S_OK);
    EXPECT_TRUE(manager_.IsInitialized());
    EXPECT_EQ(OutlookManager::m_pOutlookApp, nullptr);  // a session of its own
    ASSERT_TRUE(IsWindow(world_.window));
    EXPECT_EQ(world_.notifications, 3u);
    EXPECT_EQ(world_.calls["Save"], 0);
    EXPECT_EQ(FindWindowW(ContactsManager::S_pwzListenerClassName, nullptr), world_.window);
    EXPECT_EQ(GetWindowLongW(world_.window, GWL_USERDATA), reinterpret_cast<LONG_PTR>(&manager_));
    WNDCLASSW info = {};
    EXPECT_TRUE(GetClassInfoW(GetModuleHandleW(nullptr), ContactsManager::S_pwzListenerClassName, &info));
    EXPECT_EQ(manager_.Uninitialize(0), S_OK);
    EXPECT_TRUE(manager_.IsInitialized());
    EXPECT_EQ(manager_.Uninitialize(0), S_OK);
    EXPECT_FALSE(manager_.IsInitialized());
    EXPECT_FALSE(IsWindow(world_.window));
    EXPECT_EQ(world_.objects, 1);
    EXPECT_EQ(log_.count(kContactsFailure), 0);
    EXPECT_EQ(log_.count(0x840004), 0);
}

TEST_F(ContactsManagerEmailTest, AFailingStepLeavesNothingHeld) {
    world_.add(1, {{"Email1Address", u"a@x"}});
    for (const char* step : {"Logon", "GetDefaultFolder 10", "get_Items", "folder.QueryInterface", "SetProps",
                             "get_Count", "Item", "contact.get_Oid", "get_Email1Address", "get_Email3Address"}) {
        for (int round = 0; round < 3; ++round) {
            world_.results[step] = E_ABORT;
            EXPECT_EQ(manager_.Initialize(), E_ABORT) << step;
            EXPECT_FALSE(manager_.IsInitialized());
            EXPECT_EQ(world_.objects, 1) << step;
            EXPECT_EQ(world_.strings, 0) << step;
            EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Windows), windows_) << step;
            world_.results.erase(step);
        }
        EXPECT_EQ(manager_.Initialize(), S_OK) << step;
        EXPECT_EQ(lookup(u"a@x"), 1);
        EXPECT_EQ(manager_.Uninitialize(0), S_OK);
        EXPECT_FALSE(manager_.IsInitialized());
    }
    EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
    CoUninitialize();
}

TEST_F(ContactsManagerEmailTest, ForceAndTheDestructorEndIt) {
    {
        ContactsManagerEmail other;
        EXPECT_EQ(other.Initialize(), S_OK);
        EXPECT_EQ(other.Initialize(), S_OK);
        EXPECT_EQ(other.Uninitialize(1), S_OK);
        EXPECT_FALSE(other.IsInitialized());
        EXPECT_EQ(world_.objects, 1);
        EXPECT_EQ(other.Initialize(), S_OK);
        EXPECT_EQ(other.Initialize(), S_OK);
    }
    EXPECT_EQ(world_.objects, 1);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Windows), windows_);
}

TEST_F(ContactsManagerEmailTest, AnOldWindowClassIsReplacedOrUsed) {
    WNDCLASSW old = {};
    old.lpfnWndProc = DefWindowProcW;
    old.hInstance = GetModuleHandleW(nullptr);
    old.lpszClassName = ContactsManager::S_pwzListenerClassName;
    UnregisterClassW(old.lpszClassName, old.hInstance);
    ASSERT_NE(RegisterClassW(&old), 0);
    ASSERT_EQ(manager_.Initialize(), S_OK);
    WNDCLASSW info = {};
    ASSERT_TRUE(GetClassInfoW(old.hInstance, old.lpszClassName, &info));
    EXPECT_NE(info.lpfnWndProc, &DefWindowProcW);
    // A second manager finds the class in use.
    ContactsManagerEmail second;
    EXPECT_EQ(second.Initialize(), S_OK);
    EXPECT_EQ(GetWindowLongW(world_.window, GWL_USERDATA), reinterpret_cast<LONG_PTR>(&second));
    EXPECT_EQ(second.Uninitialize(0), S_OK);
}

TEST_F(ContactsManagerEmailTest, AFailingLogoffStillTakesTheWindowAway) {
    ASSERT_EQ(manager_.Initialize(), S_OK);
    world_.results["Logoff"] = E_HANDLE;
    EXPECT_EQ(manager_.Uninitialize(0), E_HANDLE);
    EXPECT_FALSE(IsWindow(world_.window));
    EXPECT_FALSE(manager_.IsInitialized());
    EXPECT_EQ(world_.objects, 1);
    EXPECT_EQ(log_.count(kContactsFailure), 2);  // one of each class
    EXPECT_EQ(log_.count(0x840004), 1);
}

TEST_F(ContactsManagerEmailTest, TheWindowsProcedureLetsGoOfTheManager) {
    ASSERT_EQ(manager_.Initialize(), S_OK);
    const HWND window = world_.window;
    const auto logged = log_.records().size();
    EXPECT_EQ(SendMessageW(window, WM_DESTROY, 0, 0), 0);
    ASSERT_EQ(log_.records().size(), logged + 1);
    EXPECT_EQ(log_.records().back().category, 0x730010u);
    EXPECT_EQ(GetWindowLongW(window, GWL_USERDATA), 0);
    // Nobody hears of this one, and nothing is called.
    const int before = world_.calls["GetItemFromOid"];
    EXPECT_EQ(SendMessageW(window, 0x8100, 1, 10), 0);
    EXPECT_EQ(world_.calls["GetItemFromOid"], before);
    // A window of the class without a manager.
    const HWND other = CreateWindowExW(0, ContactsManager::S_pwzListenerClassName, nullptr, 0, 0, 0, 0, 0, nullptr,
                                       nullptr, GetModuleHandleW(nullptr), nullptr);
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(GetWindowLongW(other, GWL_USERDATA), 0);
    EXPECT_EQ(SendMessageW(other, 0x8102, 1, 10), 0);
    EXPECT_EQ(world_.calls["GetItemFromOid"], before);
    EXPECT_TRUE(DestroyWindow(other));
}

TEST_F(ContactsManagerEmailTest, AWindowOfAnotherThreadNoLongerCallsIn) {
    ContactsManagerEmail other;
    std::thread([&other] { EXPECT_EQ(other.Initialize(), S_OK); }).join();
    // That thread has ended and its window with it; ending the manager here still gives everything else back.
    EXPECT_EQ(other.Uninitialize(0), S_OK);
    EXPECT_FALSE(other.IsInitialized());
    EXPECT_EQ(world_.objects, 1);
}

TEST_F(ContactsManagerEmailTest, LooksUpAddresses) {
    world_.add(1, {{"Email1Address", u"Ann@Example.org"}, {"Email3Address", u"ann@home"}});
    world_.add(2, {{"Email2Address", u"bob@example.org"}});
    world_.add(3, {{"Email1Address", u"both@x"}});
    world_.add(4, {{"Email2Address", u"BOTH@x"}});
    world_.add(5, {{"Email1Address", u"same@x"}, {"Email2Address", u"same@x"}, {"Email3Address", u"SAME@x"}});
    world_.add(6, {{"FirstName", u"ann@example.org"}});
    ASSERT_EQ(manager_.Initialize(), S_OK);
    LONG oid = 0;
    EXPECT_EQ(lookup(u"ann@example.ORG", &oid), 1);
    EXPECT_EQ(oid, 1);
    EXPECT_EQ(lookup(u"ann@home", &oid), 1);
    EXPECT_EQ(oid, 1);
    EXPECT_EQ(lookup(u"bob@example.org", &oid), 1);
    EXPECT_EQ(oid, 2);
    EXPECT_EQ(lookup(u"both@x"), 2);
    EXPECT_EQ(lookup(u"same@x", &oid), 1);
    EXPECT_EQ(oid, 5);
    EXPECT_EQ(lookup(u"nobody@x"), 0);
    EXPECT_EQ(lookup(u"ann"), 0);
    EXPECT_EQ(lookup(u""), 0);
    Contact* contact = nullptr;
    EXPECT_EQ(manager_.FindContact(nullptr, 896, 1, 0, 0, contact), 0);
    // Only the contacts of an entry are fetched.
    const int before = world_.calls["GetItemFromOid"];
    EXPECT_EQ(lookup(u"bob@example.org"), 1);
    EXPECT_EQ(world_.calls["GetItemFromOid"], before + 1);
    EXPECT_EQ(log_.count(kContactsFailure), 0);
}

TEST_F(ContactsManagerEmailTest, AddressesOfEveryLengthHashAlike) {
    LONG oid = 0;
    for (const std::size_t length : {1, 2, 127, 128, 129, 255, 256, 257, 1000}) {
        world_.add(++oid, {{"Email1Address", std::u16string(length, u'A') + u"\u00C4"}});
    }
    ASSERT_EQ(manager_.Initialize(), S_OK);
    LONG expected = 0;
    for (const std::size_t length : {1, 2, 127, 128, 129, 255, 256, 257, 1000}) {
        LONG found = 0;
        EXPECT_EQ(lookup(std::u16string(length, u'a') + u"\u00E4", &found), 1) << length;
        EXPECT_EQ(found, ++expected);
    }
}

// What compares equal is in one bucket under one hash, whatever the letter: every capital by its small letter and the
// other way round, and every letter that is alone only by itself.
TEST_F(ContactsManagerEmailTest, EveryLetterIsFoundByItsOtherCase) {
    std::vector<WCHAR> added;
    for (unsigned code = 0x80; code < 0x10000; ++code) {
        const auto unit = static_cast<WCHAR>(code);
        const bool alone = towlower(unit) == unit && towupper(unit) == unit;
        const bool is_letter = iswupper(unit) || iswlower(unit);
        if (towlower(unit) == unit && !(alone && is_letter)) continue;
        added.push_back(unit);
        world_.add(static_cast<LONG>(added.size()), {{"Email1Address", std::u16string(u"a@") + unit}});
    }
    ASSERT_GT(added.size(), 1163u);
    ASSERT_EQ(manager_.Initialize(), S_OK);
    for (std::size_t i = 0; i < added.size(); ++i) {
        for (const WCHAR other : {added[i], towlower(added[i]), towupper(added[i])}) {
            LONG oid = 0;
            EXPECT_EQ(lookup(std::u16string(u"A@") + other, &oid), 1) << std::hex << unsigned{added[i]};
            EXPECT_EQ(oid, static_cast<LONG>(i + 1));
        }
    }
}

TEST_F(ContactsManagerEmailTest, EqualHashesAreToldApart) {
    ASSERT_EQ(37 * u'x' + u'@', 37 * u'w' + u'e');  // different texts, one hash, in lower case too
    world_.add(1, {{"Email1Address", u"ax@h"}});
    world_.add(2, {{"Email1Address", u"aweh"}});
    ASSERT_EQ(manager_.Initialize(), S_OK);
    LONG oid = 0;
    const int before = world_.calls["GetItemFromOid"];
    EXPECT_EQ(lookup(u"AX@h", &oid), 1);
    EXPECT_EQ(oid, 1);
    EXPECT_EQ(world_.calls["GetItemFromOid"], before + 2);  // both were looked at
    EXPECT_EQ(lookup(u"AWEH", &oid), 1);
    EXPECT_EQ(oid, 2);
    EXPECT_EQ(world_.calls["GetItemFromOid"], before + 4);
}

TEST_F(ContactsManagerEmailTest, OtherSearchesLookAtEveryContact) {
    world_.add(1, {{"Email1Address", u"a@x"}, {"FirstName", u"find me"}});
    world_.add(2, {{"Email1Address", u"b@x"}, {"JobTitle", u"a@x"}});
    ASSERT_EQ(manager_.Initialize(), S_OK);
    WCHAR pattern[] = u"a@x";
    Contact* contact = nullptr;
    // {mask, exact, substrings}
    const int searches[][3] = {{896, 1, 1}, {896, 0, 0}, {128, 1, 0}, {0, 1, 0}, {2047, 1, 0}, {-1, 1, 0}};
    for (const auto& search : searches) {
        const int before = world_.calls["get_Count"];
        EXPECT_EQ(manager_.FindContact(pattern, search[0], search[1], search[2], 0, contact), 2);
        EXPECT_EQ(contact, nullptr);
        EXPECT_EQ(world_.calls["get_Count"], before + 1);
    }
    world_.results["get_Count"] = E_FAIL;
    EXPECT_EQ(manager_.FindContact(pattern, 0, 1, 0, 0, contact), 3);
    EXPECT_EQ(lookup(u"a@x"), 1);
}

TEST_F(ContactsManagerEmailTest, StaleEntriesGoWhenTheyAreMet) {
    world_.add(1, {{"Email1Address", u"a@x"}});
    world_.add(2, {{"Email1Address", u"a@x"}});
    ASSERT_EQ(manager_.Initialize(), S_OK);
    EXPECT_EQ(lookup(u"a@x"), 2);
    world_.records.erase(world_.records.begin());
    LONG oid = 0;
    EXPECT_EQ(lookup(u"a@x", &oid), 1);
    EXPECT_EQ(oid, 2);
    world_.records.clear();
    EXPECT_EQ(lookup(u"a@x"), 0);
    const int before = world_.calls["GetItemFromOid"];
    EXPECT_EQ(lookup(u"a@x"), 0);
    EXPECT_EQ(world_.calls["GetItemFromOid"], before);
}

TEST_F(ContactsManagerEmailTest, ChangedContactsAreConfirmedAsTheyAre) {
    const auto record = world_.add(1, {{"Email1Address", u"old@x"}});
    ASSERT_EQ(manager_.Initialize(), S_OK);
    record->fields["Email1Address"] = u"new@x";
    EXPECT_EQ(lookup(u"old@x"), 0);
    EXPECT_EQ(lookup(u"new@x"), 0);  // not heard of yet
    EXPECT_EQ(manager_.ProcessPIMChanged(nullptr, 0x8102, 1, 0), 0);
    EXPECT_EQ(lookup(u"new@x"), 1);
    EXPECT_EQ(lookup(u"old@x"), 0);
    record->fields["Email1Address"] = u"old@x";
    EXPECT_EQ(lookup(u"old@x"), 1);  // the old entry is still there
}

TEST_F(ContactsManagerEmailTest, TheWindowHearsOfChanges) {
    const auto record = world_.add(1, {{"Email1Address", u"a@x"}});
    ASSERT_EQ(manager_.Initialize(), S_OK);
    WPARAM next = 2;
    for (const UINT created : {0x8100u, 0x8105u}) {
        world_.add(static_cast<LONG>(next),
                   {{"Email1Address", u"n" + std::u16string(1, static_cast<char16_t>(u'0' + next))}});
        EXPECT_TRUE(PostMessageW(world_.window, created, next, 10));
        ++next;
    }
    drain();
    EXPECT_EQ(lookup(u"n2"), 1);
    EXPECT_EQ(lookup(u"n3"), 1);
    for (const UINT changed : {0x8102u, 0x8107u}) {
        record->fields["Email1Address"] = u"c" + std::u16string(1, static_cast<char16_t>(changed));
        EXPECT_EQ(SendMessageW(world_.window, changed, 1, 10), 0);
        EXPECT_EQ(lookup(record->fields["Email1Address"]), 1);
    }
    // What it does not know changes nothing.
    const int before = world_.calls["GetItemFromOid"];
    for (const UINT other : {0x8101u, 0x8103u, 0x8104u, 0x8106u, 0x8108u}) {
        EXPECT_EQ(SendMessageW(world_.window, other, 1, 10), 0);
    }
    EXPECT_EQ(world_.calls["GetItemFromOid"], before);
}

TEST_F(ContactsManagerEmailTest, HandlersNeverFailTowardsTheWindow) {
    const auto record = world_.add(1, {{"Email1Address", u"a@x"}});
    ASSERT_EQ(manager_.Initialize(), S_OK);
    EXPECT_EQ(manager_.ProcessPIMCreated(nullptr, 0, 77, 0), 0);
    EXPECT_EQ(manager_.ProcessPIMChanged(nullptr, 0, 77, 0), 0);
    EXPECT_EQ(log_.count(kContactsFailure), 2);
    EXPECT_EQ(log_.records().back().source, kEmailSource);
    record->fields["Email1Address"] = u"b@x";
    record->fields["Email3Address"] = u"c@x";
    world_.results["get_Email2Address"] = E_FAIL;
    EXPECT_EQ(manager_.ProcessPIMChanged(nullptr, 0, 1, 0), 0);
    EXPECT_EQ(log_.count(kContactsFailure), 3);
    world_.results.clear();
    EXPECT_EQ(lookup(u"b@x"), 1);  // read before the failure
    EXPECT_EQ(lookup(u"c@x"), 0);
    world_.results["contact.get_Oid"] = E_FAIL;
    EXPECT_EQ(manager_.ProcessPIMCreated(nullptr, 0, 1, 0), 0);
    EXPECT_EQ(log_.count(kContactsFailure), 4);
    world_.results.clear();
    manager_.Uninitialize(0);
    EXPECT_EQ(manager_.ProcessPIMCreated(nullptr, 0, 1, 0), 0);
    EXPECT_EQ(manager_.ProcessPIMChanged(nullptr, 0, 1, 0), 0);
    EXPECT_EQ(manager_.ProcessPIMDeleted(nullptr, 0, 1, 0), 0);
    EXPECT_EQ(lookup(u"b@x"), 0);
}

namespace {

// 100 contacts without addresses, `changes` new addresses heard of one by one.
class RebuildTest : public ContactsManagerEmailTest {
protected:
    RebuildTest() {
        for (LONG oid = 1; oid <= 100; ++oid) {
            world_.add(oid, {});
        }
        EXPECT_EQ(manager_.Initialize(), S_OK);
    }
    void change(int changes) {
        for (int i = 0; i < changes; ++i) {
            world_.records[0]->fields["Email1Address"] = std::u16string(u"a") + number_++;
            manager_.ProcessPIMChanged(nullptr, 0x8102, 1, 0);
        }
    }
    char16_t number_ = 0x4E00;  // letters without case
};

}  // namespace

TEST_F(RebuildTest, HappensAtExactlyTheThreshold) {
    change(254);
    EXPECT_EQ(manager_.ProcessPIMCreated(nullptr, 0x8100, 2, 0), 0);
    EXPECT_THAT(rebuilds(), IsEmpty());
    change(1);
    EXPECT_EQ(manager_.ProcessPIMCreated(nullptr, 0x8100, 2, 0), 0);
    EXPECT_THAT(rebuilds(), ElementsAre(8500));
    // The completion is a record too, and the counter starts anew.
    EXPECT_EQ(log_.count(kTrace), 2);
    EXPECT_EQ(manager_.ProcessPIMCreated(nullptr, 0x8100, 2, 0), 0);
    EXPECT_THAT(rebuilds(), ElementsAre(8500));
}

TEST_F(RebuildTest, TheSameAddressCountsOnce) {
    world_.records[0]->fields["Email1Address"] = u"same";
    for (int i = 0; i < 300; ++i) {
        manager_.ProcessPIMChanged(nullptr, 0x8102, 1, 0);
    }
    EXPECT_EQ(manager_.ProcessPIMCreated(nullptr, 0x8100, 2, 0), 0);
    EXPECT_THAT(rebuilds(), IsEmpty());
}

TEST_F(RebuildTest, CreatedContactsCountOnceAnIdentifierWasReused) {
    for (int i = 0; i < 200; ++i) {
        manager_.ProcessPIMCreated(nullptr, 0x8100, 2, 0);
    }
    EXPECT_THAT(rebuilds(), IsEmpty());
    manager_.ProcessPIMDeleted(nullptr, 0x8101, 50, 0);
    manager_.ProcessPIMDeleted(nullptr, 0x8101, 60, 0);  // only the first counts
    manager_.ProcessPIMCreated(nullptr, 0x8100, 60, 0);
    manager_.ProcessPIMCreated(nullptr, 0x8100, 60, 0);
    EXPECT_THAT(rebuilds(), IsEmpty());
    manager_.ProcessPIMCreated(nullptr, 0x8100, 50, 0);  // 3
    for (int i = 0; i < 83; ++i) {
        manager_.ProcessPIMCreated(nullptr, 0x8100, 2, 0);  // up to 252
    }
    EXPECT_THAT(rebuilds(), IsEmpty());
    manager_.ProcessPIMCreated(nullptr, 0x8100, 2, 0);
    EXPECT_THAT(rebuilds(), ElementsAre(8500));
    // The flag stays, for every manager of the process.
    ContactsManagerEmail other;
    ASSERT_EQ(other.Initialize(), S_OK);
    for (int i = 0; i < 85; ++i) {
        other.ProcessPIMCreated(nullptr, 0x8100, 2, 0);
    }
    EXPECT_EQ(rebuilds().size(), 2u);
}

TEST_F(RebuildTest, AFolderWithoutContactsIsRebuilt) {
    change(1);
    world_.records.clear();
    manager_.ProcessPIMCreated(nullptr, 0x8100, 2, 0);
    EXPECT_EQ(rebuilds().size(), 1u);
}

TEST_F(RebuildTest, ACountThatCannotBeReadChangesNothing) {
    change(300);
    world_.results["get_Count"] = E_FAIL;
    EXPECT_EQ(manager_.ProcessPIMCreated(nullptr, 0x8100, 2, 0), 0);
    EXPECT_THAT(rebuilds(), IsEmpty());
    world_.results.clear();
    EXPECT_EQ(manager_.ProcessPIMCreated(nullptr, 0x8100, 2, 0), 0);
    EXPECT_EQ(rebuilds().size(), 1u);
}

TEST_F(RebuildTest, DropsWhatIsStale) {
    change(255);
    world_.records[0]->fields["Email1Address"] = u"now";
    manager_.ProcessPIMCreated(nullptr, 0x8100, 2, 0);
    EXPECT_EQ(lookup(u"now"), 1);
    world_.calls["GetItemFromOid"] = 0;
    EXPECT_EQ(lookup(u"a" + std::u16string(1, char16_t{0x4E00})), 0);
    EXPECT_EQ(world_.calls["GetItemFromOid"], 0);
}

TEST_F(ContactsManagerEmailTest, FieldsFollowThoseOfTheBase) {
    struct Fields {
        void* table;
        void* application;
        void* folder;
        void* items;
        void* window;
        int count;
    };
    struct EmailFields {
        void* buckets;
        LONG first_deleted;
        int added;
        int count;
    } fields;
    ASSERT_EQ(manager_.Initialize(), S_OK);
    manager_.ProcessPIMDeleted(nullptr, 0, 44, 0);
    const auto* bytes = reinterpret_cast<const unsigned char*>(&manager_);
    std::memcpy(&fields, bytes + sizeof(Fields), sizeof fields);
    EXPECT_NE(fields.buckets, nullptr);
    EXPECT_EQ(fields.first_deleted, 44);
    EXPECT_EQ(fields.added, 0);
    EXPECT_EQ(fields.count, 1);
    const auto* candidate = reinterpret_cast<const ContactsManagerEmail::Candidate*>(bytes);
    EXPECT_EQ(reinterpret_cast<const char*>(&candidate->oid) - reinterpret_cast<const char*>(&candidate->hash), 4);
}
