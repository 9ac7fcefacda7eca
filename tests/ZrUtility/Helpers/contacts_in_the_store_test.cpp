// The contacts classes over the platform's own contact store.

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <array>
#include <map>
#include <random>

#include "ZrUtility/Helpers/OutlookManager.h"
#include "platform/base.h"
#include "platform/diagnostics.h"
#include "platform/kernel.h"
#include "platform/windowing/windowing_support.h"
#include "support/child.h"
#include "support/log_capture.h"
#include "support/sandbox.h"

namespace {

using windowing_test::drain;
using zr::test::Child;

// Serves messages until `done` says so.
template <class Done>
bool pump_until(Done done) {
    for (const DWORD start = GetTickCount(); !done();) {
        if (GetTickCount() - start > 30000) return false;
        MsgWaitForMultipleObjectsEx(0, nullptr, 100, QS_ALLINPUT, MWMO_INPUTAVAILABLE);
        drain();
    }
    return true;
}

using Put = LONG (Contact::*)(WCHAR*&);
constexpr std::array<Put, 3> kPutEmail = {&Contact::put_Email1Address, &Contact::put_Email2Address,
                                          &Contact::put_Email3Address};

void put(Contact* contact, Put field, const std::u16string& value) {
    std::u16string copy = value;
    WCHAR* text = copy.data();
    ASSERT_EQ((contact->*field)(text), S_OK);
}

LONG add(ContactsManager& manager, const std::u16string& first_name, const std::array<std::u16string, 3>& emails) {
    Contact* contact = nullptr;
    EXPECT_EQ(manager.AddContact(contact), S_OK);
    put(contact, &Contact::put_FirstName, first_name);
    for (std::size_t i = 0; i < 3; ++i) {
        if (!emails[i].empty()) put(contact, kPutEmail[i], emails[i]);
    }
    EXPECT_EQ(contact->Save(), S_OK);
    LONG oid = 0;
    EXPECT_EQ(contact->get_Oid(oid), S_OK);
    manager.ReleaseContact(contact);
    return oid;
}

ContactsManager::CM_QUANTIFIER lookup(ContactsManager& manager, std::u16string address, LONG& oid) {
    Contact* contact = nullptr;
    const auto result = manager.FindContact(address.data(), 896, 1, 0, 0, contact);
    oid = 0;
    if (contact != nullptr) {
        EXPECT_EQ(contact->get_Oid(oid), S_OK);
    }
    manager.ReleaseContact(contact);
    return result;
}

// Everything that is alive in the process.
struct Alive {
    LONGLONG interfaces = ZrLiveObjects(ZrLiveKind::Interfaces);
    LONGLONG strings = ZrLiveObjects(ZrLiveKind::Strings);
    LONGLONG windows = ZrLiveObjects(ZrLiveKind::Windows);
    LONGLONG blocks = ZrLiveObjects(ZrLiveKind::HeapBlocks);
    friend bool operator==(const Alive&, const Alive&) = default;
};

class ContactsInTheStore : public testing::Test {
protected:
    ContactsInTheStore() : manager_(*OutlookManager::GetContactsManagerInstance(ContactsManager::CM_TYPE_EMAIL)) {
        EXPECT_GE(manager_.Initialize(), 0);
        EXPECT_GE(OutlookManager::WipeFolders(1, -1, nullptr), 0);
        drain();
    }
    ~ContactsInTheStore() override {
        EXPECT_EQ(manager_.Uninitialize(0), S_OK);
        EXPECT_EQ(Alive(), before_);
    }

    const Alive before_;
    ContactsManager& manager_;
};

}  // namespace

TEST_F(ContactsInTheStore, FindsWhoSentAMessage) {
    const LONG ann = add(manager_, u"Ann", {u"Ann@Example.org", u"", u"ann@home"});
    const LONG bob = add(manager_, u"Bob", {u"", u"bob@example.org", u"shared@x"});
    add(manager_, u"Cid", {u"cid@x", u"cid@x", u"SHARED@x"});
    LONG oid = 0;
    EXPECT_EQ(lookup(manager_, u"ann@example.org", oid), 0);  // not heard of yet
    drain();
    EXPECT_EQ(lookup(manager_, u"ann@example.org", oid), 1);
    EXPECT_EQ(oid, ann);
    EXPECT_EQ(lookup(manager_, u"BOB@EXAMPLE.ORG", oid), 1);
    EXPECT_EQ(oid, bob);
    EXPECT_EQ(lookup(manager_, u"shared@x", oid), 2);
    EXPECT_EQ(lookup(manager_, u"cid@x", oid), 1);
    EXPECT_EQ(lookup(manager_, u"nobody@x", oid), 0);
}

TEST_F(ContactsInTheStore, AnIndexIsBuiltFromWhatIsThere) {
    const LONG ann = add(manager_, u"Ann", {u"ann@x", u"", u""});
    ASSERT_EQ(manager_.Uninitialize(0), S_OK);
    ASSERT_EQ(manager_.Initialize(), S_OK);
    LONG oid = 0;
    EXPECT_EQ(lookup(manager_, u"ann@x", oid), 1);
    EXPECT_EQ(oid, ann);
}

TEST_F(ContactsInTheStore, ReadsAndKeepsEveryField) {
    const LONG oid = add(manager_, u"Ann", {u"a@x", u"b@x", u"c@x"});
    Contact* contact = nullptr;
    ASSERT_EQ(manager_.GetContactFromOid(static_cast<ULONG>(oid), contact), S_OK);
    put(contact, &Contact::put_Title, u"Dr");
    put(contact, &Contact::put_MiddleName, u"Eve");
    put(contact, &Contact::put_LastName, u"Lee");
    put(contact, &Contact::put_Suffix, u"Jr");
    put(contact, &Contact::put_JobTitle, u"baker");
    put(contact, &Contact::put_FileAs, u"the baker \xD83D");  // half a surrogate pair is text like any other
    ASSERT_EQ(contact->Save(), S_OK);
    ASSERT_EQ(manager_.ReleaseContact(contact), S_OK);
    ASSERT_EQ(manager_.GetContactFromOid(static_cast<ULONG>(oid), contact), S_OK);
    const std::pair<LONG (Contact::*)(WCHAR*&), std::u16string> fields[] = {
        {&Contact::get_FileAs, u"the baker \xD83D"},
        {&Contact::get_Title, u"Dr"},
        {&Contact::get_FirstName, u"Ann"},
        {&Contact::get_MiddleName, u"Eve"},
        {&Contact::get_LastName, u"Lee"},
        {&Contact::get_Suffix, u"Jr"},
        {&Contact::get_CompanyName, u""},
        {&Contact::get_Email1Address, u"a@x"},
        {&Contact::get_Email2Address, u"b@x"},
        {&Contact::get_Email3Address, u"c@x"},
        {&Contact::get_JobTitle, u"baker"},
    };
    for (const auto& [get, expected] : fields) {
        WCHAR* value = nullptr;
        ASSERT_EQ((contact->*get)(value), S_OK);
        EXPECT_EQ(std::u16string(value), expected);
    }
    EXPECT_EQ(contact->HasEmail(1), 3);
    EXPECT_EQ(contact->Delete(), S_OK);
    EXPECT_EQ(manager_.ReleaseContact(contact), S_OK);
    EXPECT_LT(manager_.GetContactFromOid(static_cast<ULONG>(oid), contact), 0);
    EXPECT_EQ(contact, nullptr);
}

TEST_F(ContactsInTheStore, SortsAndWalks) {
    for (const char16_t* name : {u"cid", u"Bob", u"ann"}) {
        add(manager_, name, {});
    }
    const auto names = [this] {
        std::vector<std::u16string> all;
        int count = 0;
        EXPECT_EQ(manager_.GetContactsCount(count), S_OK);
        for (int i = 1; i <= count; ++i) {
            Contact* contact = nullptr;
            WCHAR* name = nullptr;
            EXPECT_EQ(manager_.GetContact(i, contact), S_OK);
            EXPECT_EQ(contact->get_FirstName(name), S_OK);
            all.push_back(name);
            manager_.ReleaseContact(contact);
        }
        return all;
    };
    EXPECT_EQ(manager_.SortCollection(Contact::CONTACT_FIELD_FIRST_NAME), S_OK);
    EXPECT_THAT(names(), testing::ElementsAre(u"ann", u"Bob", u"cid"));
    EXPECT_EQ(manager_.SortCollection(Contact::CONTACT_FIELD_JOB_TITLE), S_OK);
    EXPECT_THAT(names(), testing::ElementsAre(u"ann", u"Bob", u"cid"));
}

TEST_F(ContactsInTheStore, ADeletedContactsEntryGoesWhenItIsMet) {
    const LONG ann = add(manager_, u"Ann", {u"ann@x", u"", u""});
    drain();
    Contact* contact = nullptr;
    ASSERT_EQ(manager_.GetContactFromOid(static_cast<ULONG>(ann), contact), S_OK);
    ASSERT_EQ(contact->Delete(), S_OK);
    manager_.ReleaseContact(contact);
    LONG oid = 0;
    EXPECT_EQ(lookup(manager_, u"ann@x", oid), 0);
    drain();
    // Its identifier is handed out again, to somebody else.
    EXPECT_EQ(add(manager_, u"Bob", {u"bob@x", u"", u""}), ann);
    drain();
    EXPECT_EQ(lookup(manager_, u"ann@x", oid), 0);
    EXPECT_EQ(lookup(manager_, u"bob@x", oid), 1);
    EXPECT_EQ(oid, ann);
}

TEST_F(ContactsInTheStore, AnAppointmentIsNoContact) {
    IPOutlookApp* app = nullptr;
    ASSERT_GE(OutlookManager::Login(app), 0);
    IDispatch* item = nullptr;
    ASSERT_EQ(app->CreateItem(olAppointmentItem, &item), S_OK);
    auto* appointment = static_cast<IAppointment*>(item);
    WCHAR subject[] = u"lunch";
    LONG oid = 0;
    ASSERT_EQ(appointment->put_Subject(subject), S_OK);
    ASSERT_EQ(appointment->Save(), S_OK);
    ASSERT_EQ(appointment->get_Oid(&oid), S_OK);
    appointment->Release();
    Contact* contact = nullptr;
    EXPECT_EQ(manager_.GetContactFromOid(static_cast<ULONG>(oid), contact), E_NOINTERFACE);
    EXPECT_EQ(contact, nullptr);
    EXPECT_EQ(manager_.ProcessPIMCreated(nullptr, 0x8100, static_cast<WPARAM>(oid), 0), 0);
    EXPECT_EQ(OutlookManager::WipeFolders(2, 0, app), S_OK);
    EXPECT_EQ(OutlookManager::Logout(app), S_OK);
}

TEST_F(ContactsInTheStore, WipesBySource) {
    IPOutlookApp* app = nullptr;
    ASSERT_GE(OutlookManager::Login(app), 0);
    for (ULONG source = 0; source < 3; ++source) {
        const LONG oid = add(manager_, u"x", {});
        IDispatch* dispatch = nullptr;
        ASSERT_EQ(app->GetItemFromOid(oid, &dispatch), S_OK);
        void* object = nullptr;
        ASSERT_EQ(dispatch->QueryInterface(IID_IItem, &object), S_OK);
        auto* item = static_cast<IItem*>(object);
        CEPROPVAL value = {};
        value.propid = PIMPR_SOURCE_ID;
        value.val.ulVal = source;
        if (source != 0) {
            EXPECT_EQ(item->SetProps(0, 1, &value), S_OK);
        }
        EXPECT_EQ(item->Save(), S_OK);
        item->Release();
        dispatch->Release();
    }
    EXPECT_GE(OutlookManager::WipeFolders(1, 2, app), 0);
    int count = 0;
    EXPECT_EQ(manager_.GetContactsCount(count), S_OK);
    EXPECT_EQ(count, 2);
    EXPECT_GE(OutlookManager::WipeFolders(1, 0, nullptr), 0);  // the one that never had a source
    EXPECT_EQ(manager_.GetContactsCount(count), S_OK);
    EXPECT_EQ(count, 1);
    LONG folder = 0;
    EXPECT_EQ(OutlookManager::SetFolderNotification(app, olFolderContacts, 3, &folder), 0);
    EXPECT_EQ(OutlookManager::Logout(app), S_OK);
}

// Adds, changes and deletes at random against a plain map; after the messages are served, every lookup is exact.
TEST_F(ContactsInTheStore, AgreesWithASimpleModel) {
    std::mt19937 random(7);
    std::map<LONG, std::array<std::u16string, 3>> model;
    const auto address = [&random](bool empty) {
        const auto number = static_cast<unsigned>(random() % 40);
        if (empty && number < 10) return std::u16string();
        std::u16string text = random() % 2 ? u"User" : u"uSER";
        text += static_cast<char16_t>(u'A' + number);
        return text + u"@example.org";
    };
    const auto same = [](const std::u16string& a, const std::u16string& b) {
        return _wcsicmp(a.c_str(), b.c_str()) == 0;
    };
    for (int step = 0; step < 600; ++step) {
        const auto chosen =
            model.empty() ? model.end() : std::next(model.begin(), static_cast<long>(random() % model.size()));
        const auto kind = static_cast<unsigned>(random() % 8);
        if (kind < 3 || chosen == model.end()) {
            const std::array<std::u16string, 3> emails = {address(true), address(true), address(true)};
            const LONG oid = add(manager_, u"x", emails);
            ASSERT_FALSE(model.contains(oid));
            model[oid] = emails;
        } else if (kind < 5) {
            Contact* contact = nullptr;
            ASSERT_EQ(manager_.GetContactFromOid(static_cast<ULONG>(chosen->first), contact), S_OK);
            const std::size_t field = random() % 3;
            chosen->second[field] = address(true);
            put(contact, kPutEmail[field], chosen->second[field]);
            ASSERT_EQ(contact->Save(), S_OK);
            manager_.ReleaseContact(contact);
        } else if (kind < 7) {
            Contact* contact = nullptr;
            ASSERT_EQ(manager_.GetContactFromOid(static_cast<ULONG>(chosen->first), contact), S_OK);
            ASSERT_EQ(contact->Delete(), S_OK);
            manager_.ReleaseContact(contact);
            model.erase(chosen);
        } else {
            LONG oid = 0;  // before the messages: never a contact without the address
            const std::u16string wanted = address(false);
            if (lookup(manager_, wanted, oid) == 1) {
                ASSERT_TRUE(model.contains(oid));
                ASSERT_TRUE(std::any_of(model[oid].begin(), model[oid].end(),
                                        [&](const auto& email) { return same(email, wanted); }));
            }
        }
        if (random() % 3 != 0) continue;
        drain();
        const std::u16string wanted = address(false);
        std::vector<LONG> expected;
        for (const auto& [oid, emails] : model) {
            if (std::any_of(emails.begin(), emails.end(), [&](const auto& email) { return same(email, wanted); })) {
                expected.push_back(oid);
            }
        }
        LONG oid = 0;
        ASSERT_EQ(lookup(manager_, wanted, oid), static_cast<int>(std::min<std::size_t>(expected.size(), 2))) << step;
        if (expected.size() == 1) {
            ASSERT_EQ(oid, expected[0]);
        }
    }
}

namespace {

// Another program: adds a contact, changes it and deletes it, a step per line it hears.
ZR_CHILD(other_program) {
    ContactsManager manager;
    if (manager.Initialize() < 0) return 1;
    const LONG oid = add(manager, u"Zoe", {u"zoe@x", u"", u""});
    zr::test::say(std::to_string(oid));
    zr::test::hear();
    Contact* contact = nullptr;
    if (manager.GetContactFromOid(static_cast<ULONG>(oid), contact) < 0) return 2;
    put(contact, &Contact::put_Email1Address, u"zoe@new");
    if (contact->Save() < 0) return 3;
    zr::test::say("changed");
    zr::test::hear();
    if (contact->Delete() < 0) return 4;
    manager.ReleaseContact(contact);
    zr::test::say("deleted");
    zr::test::hear();
    return manager.Uninitialize(0) < 0 ? 5 : 0;
}

}  // namespace

TEST_F(ContactsInTheStore, HearsOfAnotherProgramsChanges) {
    Child child("other_program");
    const LONG zoe = std::stoi(child.hear());
    LONG oid = 0;
    EXPECT_TRUE(pump_until([&] { return lookup(manager_, u"zoe@x", oid) == 1; }));
    EXPECT_EQ(oid, zoe);
    child.say("change");
    EXPECT_EQ(child.hear(), "changed");
    EXPECT_TRUE(pump_until([&] { return lookup(manager_, u"zoe@new", oid) == 1; }));
    EXPECT_EQ(oid, zoe);
    EXPECT_EQ(lookup(manager_, u"zoe@x", oid), 0);
    child.say("delete");
    EXPECT_EQ(child.hear(), "deleted");
    EXPECT_EQ(lookup(manager_, u"zoe@new", oid), 0);  // at once: a hit is checked against the store
    child.say("end");
    EXPECT_EQ(child.wait(), 0);
}

namespace {

// Another program: deletes the contacts whose identifiers it is given and adds others, until it is killed.
ZR_CHILD(restless_program) {
    ContactsManager manager;
    if (manager.Initialize() < 0) return 1;
    std::mt19937 random(3);
    zr::test::say("ready");
    for (;;) {
        std::string& own = args[static_cast<std::size_t>(random()) % args.size()];
        Contact* contact = nullptr;
        if (manager.GetContactFromOid(static_cast<ULONG>(std::stoul(own)), contact) < 0) return 2;
        if (contact->Delete() < 0) return 3;
        manager.ReleaseContact(contact);
        own = std::to_string(add(manager, u"goes", {u"goes@x", u"", u""}));
    }
}

}  // namespace

TEST_F(ContactsInTheStore, MissesNobodyWhoStaysWhileOthersComeAndGo) {
    std::vector<std::string> going;
    std::map<LONG, std::u16string> staying;
    for (unsigned i = 0; i < 150; ++i) {
        going.push_back(std::to_string(add(manager_, u"goes", {u"goes@x", u"", u""})));
        const std::string number = std::to_string(i);
        const std::u16string name = u"stays" + std::u16string(number.begin(), number.end());
        staying[add(manager_, name, {u"", u"", name + u"@x"})] = name;
    }
    Child child("restless_program", going);
    ASSERT_EQ(child.hear(), "ready");
    for (int round = 0; round < 60; ++round) {
        ASSERT_EQ(manager_.Uninitialize(0), S_OK);
        ASSERT_EQ(manager_.Initialize(), S_OK) << round;
        for (const auto& [oid, name] : staying) {
            LONG found = 0;
            ASSERT_EQ(lookup(manager_, name + u"@x", found), 1) << round;
            ASSERT_EQ(found, oid);
        }
        // The search through all contacts as well, by name.
        const auto& [oid, name] = *std::next(staying.begin(), round);
        std::u16string pattern = name;
        Contact* contact = nullptr;
        ASSERT_EQ(manager_.FindContact(pattern.data(), 0, 1, 0, 0, contact), 1) << round;
        manager_.ReleaseContact(contact);
    }
    child.kill(SIGKILL);
    EXPECT_EQ(child.wait(), -SIGKILL);
}
