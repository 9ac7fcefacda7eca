#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <map>
#include <random>
#include <vector>

#include "platform/base.h"
#include "session_support.h"
#include "store_query.h"

namespace {

using namespace zr::test;

Ptr<IItem> as_item(IUnknown& object) {
    Ptr<IItem> item;
    EXPECT_EQ(object.QueryInterface(IID_IItem, item.any()), S_OK);
    return item;
}

CEPROPVAL number(CEPROPID id, ULONG value) {
    CEPROPVAL made = {};
    made.propid = id;
    made.val.ulVal = value;
    return made;
}

void put_uid(IUnknown& object, CEPROPID id, const WCHAR* uid) {
    CEPROPVAL value = {};
    value.propid = id;
    value.val.lpwstr = in(uid);
    const auto item = as_item(object);
    ASSERT_EQ(item->SetProps(0, 1, &value), S_OK);
    ASSERT_EQ(item->Save(), S_OK);
}

LONG with_uid(const TestSession& session, INT folder, const WCHAR* uid, LONG after = 0) {
    LONG oid = -1;
    EXPECT_EQ(session.store()->FindByUid(folder, uid, after, &oid), S_OK);
    return oid;
}

LONGLONG born(IUnknown& object) {
    Ptr<IZrItem> face;
    LONGLONG number = -1;
    EXPECT_EQ(object.QueryInterface(IID_IZrItem, face.any()), S_OK);
    EXPECT_EQ(face->get_Born(&number), S_OK);
    return number;
}

TEST(Properties, ItemsAreFoundByTheirLastingIdentifier) {
    TestSession session;
    const LONG first = session.add(u"a", u"b");
    const LONG second = session.add(u"c", u"d");
    const LONG third = session.add(u"e", u"f");
    put_uid(*session.contact(first).get(), ZR_PROPID_CARD_UID, u"one");
    put_uid(*session.contact(third).get(), ZR_PROPID_CARD_UID, u"one");
    Ptr<IAppointment> appointment;
    ASSERT_EQ(session.app->CreateItem(olAppointmentItem, appointment.dispatch()), S_OK);
    put_uid(*appointment.get(), ZR_PROPID_EVENT_UID, u"one");
    LONG entry = 0;
    ASSERT_EQ(appointment->get_Oid(&entry), S_OK);

    EXPECT_EQ(with_uid(session, olFolderContacts, u"one"), first);
    EXPECT_EQ(with_uid(session, olFolderContacts, u"one", first), third);
    EXPECT_EQ(with_uid(session, olFolderContacts, u"one", third), 0);
    EXPECT_EQ(with_uid(session, olFolderContacts, u"One"), 0);
    EXPECT_EQ(with_uid(session, olFolderContacts, u""), second);
    EXPECT_EQ(with_uid(session, olFolderContacts, nullptr, second), 0);
    EXPECT_EQ(with_uid(session, olFolderCalendar, u"one"), entry);
    EXPECT_EQ(with_uid(session, olFolderTasks, u"one"), 0);
    put_uid(*session.contact(first).get(), ZR_PROPID_CARD_UID, u"two");
    EXPECT_EQ(with_uid(session, olFolderContacts, u"one"), third);
    ASSERT_EQ(as_item(*session.contact(third).get())->Delete(), S_OK);
    EXPECT_EQ(with_uid(session, olFolderContacts, u"one"), 0);
    EXPECT_EQ(session.store()->FindByUid(olFolderContacts, u"one", 0, nullptr), E_POINTER);
    LONG none = 0;
    EXPECT_EQ(session.store()->FindByUid(olFolderCities, u"one", 0, &none), E_INVALIDARG);
}

std::vector<LONG> with_email(const TestSession& session, const WCHAR* address) {
    const Ptr<IZrStore> store = session.store();
    std::vector<LONG> found;
    LONG oid = 0;
    while (store->FindByEmail(address, oid, &oid) == S_OK && oid != 0) {
        found.push_back(oid);
    }
    return found;
}

TEST(Properties, ContactsAreFoundByAnAddress) {
    TestSession session;
    const LONG first = session.add(u"a", u"b", u"Jo.Doe@Example.com");
    const LONG second = session.add(u"c", u"d", u"j\u00D6@x.y");
    const LONG third = session.add(u"e", u"f");
    const auto contact = session.contact(third);
    ASSERT_EQ(contact->put_Email2Address(in(u"jo.doe@example.com")), S_OK);
    ASSERT_EQ(contact->put_Email3Address(in(u"JO.DOE@EXAMPLE.COM")), S_OK);
    ASSERT_EQ(contact->Save(), S_OK);

    using Oids = std::vector<LONG>;
    EXPECT_EQ(with_email(session, u"jo.doe@EXAMPLE.com"), (Oids{first, third}));
    EXPECT_EQ(with_email(session, u"J\u00F6@x.Y"), Oids{second});
    EXPECT_EQ(with_email(session, u"jo@x.y"), Oids());
    EXPECT_EQ(with_email(session, u"jo.doe@example.com "), Oids()) << "the whole address";
    EXPECT_EQ(with_email(session, u"jo.doe@example.co\u212A"), Oids()) << "the sign Kelvin is no letter k";
    EXPECT_EQ(with_email(session, u""), Oids());
    EXPECT_EQ(with_email(session, nullptr), Oids());
    ASSERT_EQ(session.contact(first)->Delete(), S_OK);
    EXPECT_EQ(with_email(session, u"jo.doe@example.com"), Oids{third});
    EXPECT_EQ(session.store()->FindByEmail(u"a@b.c", 0, nullptr), E_POINTER);
    ASSERT_EQ(session.app->Logoff(), S_OK);
    LONG none = 1;
    EXPECT_EQ(session.store()->FindByEmail(u"a@b.c", 0, &none), HRESULT_FROM_WIN32(ERROR_NOT_LOGGED_ON));
    EXPECT_EQ(none, 0);
    ASSERT_EQ(session.app->Logon(nullptr), S_OK);
}

// Contacts that come, change and go, beside a look at the three addresses of each.
TEST(Properties, AddressesAreThoseOfTheContacts) {
    using Put = HRESULT (IContact::*)(BSTR);
    constexpr Put puts[] = {&IContact::put_Email1Address, &IContact::put_Email2Address, &IContact::put_Email3Address};
    TestSession session;
    std::mt19937 random(22);
    const auto some_address = [&random] {
        std::u16string made(random() % 4, u' ');
        for (WCHAR& unit : made) {
            unit = u"aAk\u212A\u00E4\u00C4\x7F"[random() % 7];
        }
        return made;
    };
    std::map<LONG, std::array<std::u16string, 3>> contacts;
    std::size_t several = 0;
    for (int step = 0; step < 400; ++step) {
        if (contacts.size() > 20 && random() % 3 == 0) {
            const auto gone = std::next(contacts.begin(), static_cast<int>(random() % contacts.size()));
            ASSERT_EQ(session.contact(gone->first)->Delete(), S_OK);
            contacts.erase(gone);
        } else {
            const LONG oid = contacts.empty() || random() % 2 == 0
                                 ? session.add(u"a", u"b")
                                 : std::next(contacts.begin(), static_cast<int>(random() % contacts.size()))->first;
            const auto contact = session.contact(oid);
            const std::size_t place = random() % 3;
            std::u16string address = some_address();
            ASSERT_EQ((contact.get()->*puts[place])(address.data()), S_OK);
            ASSERT_EQ(contact->Save(), S_OK);
            contacts[oid][place] = std::move(address);
        }
        const std::u16string wanted = some_address();
        std::vector<LONG> expected;
        for (const auto& [oid, addresses] : contacts) {
            const auto is_wanted = [&](const std::u16string& each) {
                return !each.empty() && _wcsicmp(each.c_str(), wanted.c_str()) == 0;
            };
            if (std::ranges::any_of(addresses, is_wanted)) expected.push_back(oid);
        }
        several += expected.size() > 1 ? 1 : 0;
        ASSERT_EQ(with_email(session, wanted.c_str()), expected) << step;
    }
    EXPECT_GT(several, 10u);
}

TEST(Properties, ItemsAreBornOnce) {
    TestSession session;
    const LONG oid = session.add(u"a", u"b");
    const LONGLONG before = born(*session.contact(oid).get());
    EXPECT_GT(before, 0);
    const auto contact = session.contact(oid);
    ASSERT_EQ(contact->put_LastName(in(u"other")), S_OK);
    ASSERT_EQ(contact->Save(), S_OK);
    EXPECT_EQ(born(*session.contact(oid).get()), before);
    ASSERT_EQ(as_item(*contact.get())->Delete(), S_OK);
    ASSERT_EQ(session.add(u"a", u"b"), oid);
    EXPECT_GT(born(*session.contact(oid).get()), before);

    Ptr<IZrItem> face;
    LONGLONG number = -1;
    ASSERT_EQ(session.fresh()->QueryInterface(IID_IZrItem, face.any()), S_OK);
    EXPECT_NE(face->get_Born(&number), S_OK);
    EXPECT_EQ(face->get_Born(nullptr), E_POINTER);
}

// As a program of before that number makes items, which still has the store open.
TEST(Properties, ItemsOfEarlierProgramsAreBornToo) {
    const TestSession session;
    const auto made = [](const std::string& item, const std::string& table) {
        return query(store_path(), "INSERT INTO " + item +
                                       "; INSERT INTO change SELECT max(seq) + 1, 1, 900, 7 FROM change;"
                                       "SELECT born = (SELECT max(seq) FROM change) FROM " +
                                       table + " ORDER BY oid DESC LIMIT 1; DELETE FROM " + table +
                                       " WHERE oid & 65535 = 900");
    };
    EXPECT_EQ(made("contact(oid, own_file_as) VALUES(900, 0)", "contact"), "1");
    EXPECT_EQ(made("entry(oid) VALUES((13 << 24) + 900)", "entry"), "1");
}

TEST(Properties, SourceIdentifierAsWipingReadsIt) {
    TestSession session;
    const auto item = as_item(*session.contact(session.add(u"a", u"b")).get());
    const CEPROPID id = PIMPR_SOURCE_ID;
    CEPROPVAL* values = nullptr;
    ULONG size = 0;
    ASSERT_EQ(item->GetProps(&id, CEDB_ALLOWREALLOC, 1, &values, &size, GetProcessHeap()), S_OK);
    ASSERT_NE(values, nullptr);
    EXPECT_EQ(values->wFlags, CEDB_PROPNOTFOUND);
    EXPECT_EQ(values->propid, id);
    EXPECT_EQ(size, sizeof(CEPROPVAL));
    CEPROPVAL set = number(id, 0x89ABCDEF);
    ASSERT_EQ(item->SetProps(0, 1, &set), S_OK);
    ASSERT_EQ(item->GetProps(&id, CEDB_ALLOWREALLOC, 1, &values, &size, GetProcessHeap()), S_OK);
    EXPECT_EQ(values->wFlags, 0);
    EXPECT_EQ(values->val.ulVal, 0x89ABCDEFu);
    CEPROPVAL* stored = nullptr;
    ULONG stored_size = 0;
    const auto other = as_item(*session.contact(1).get());
    ASSERT_EQ(other->GetProps(&id, CEDB_ALLOWREALLOC, 1, &stored, &stored_size, nullptr), S_OK);
    EXPECT_EQ(stored->wFlags, CEDB_PROPNOTFOUND) << "not saved yet";
    ASSERT_EQ(item->Save(), S_OK);
    ASSERT_EQ(other->GetProps(&id, CEDB_ALLOWREALLOC, 1, &stored, &stored_size, nullptr), S_OK);
    EXPECT_EQ(stored->val.ulVal, 0x89ABCDEFu);
    HeapFree(GetProcessHeap(), 0, values);
    HeapFree(GetProcessHeap(), 0, stored);
}

TEST(Properties, EveryTypeSurvives) {
    TestSession session;
    const LONG oid = session.add(u"a", u"b");
    BYTE bytes[] = {1, 0, 255};
    WCHAR odd[] = {0xD800, u'x', 0};
    WCHAR empty[] = {0};
    CEPROPVAL set[11] = {};
    const WORD types[] = {CEVT_I2,     CEVT_UI2,      CEVT_I4,     CEVT_UI4,  CEVT_BOOL, CEVT_R8,
                          CEVT_LPWSTR, CEVT_FILETIME, CEVT_LPWSTR, CEVT_BLOB, CEVT_BLOB};
    CEPROPID ids[11];
    for (DWORD i = 0; i < 11; ++i) {
        ids[i] = set[i].propid = (0x0100 + i) << 16 | types[i];
    }
    set[0].val.iVal = -5;
    set[1].val.uiVal = 65535;
    set[2].val.lVal = -70000;
    set[3].val.ulVal = 0xFFFFFFFF;
    set[4].val.boolVal = TRUE;
    set[5].val.dblVal = -1.5;
    set[6].val.lpwstr = odd;
    set[7].val.filetime = {0xDEADBEEF, 0xFEDCBA98};
    set[8].val.lpwstr = empty;
    set[9].val.blob = {3, bytes};
    set[10].val.blob = {0, nullptr};
    {
        const auto item = as_item(*session.contact(oid).get());
        ASSERT_EQ(item->SetProps(0, 11, set), S_OK);
        ASSERT_EQ(item->Save(), S_OK);
    }
    const auto item = as_item(*session.contact(oid).get());
    for (const bool all : {false, true}) {
        CEPROPVAL* got = nullptr;
        ULONG size = 0;
        ASSERT_EQ(item->GetProps(all ? nullptr : ids, CEDB_ALLOWREALLOC, all ? 0 : 11, &got, &size, GetProcessHeap()),
                  S_OK);
        for (int i = 0; i < 11; ++i) {
            EXPECT_EQ(got[i].propid, ids[i]);
            EXPECT_EQ(got[i].wFlags, 0);
        }
        EXPECT_EQ(got[0].val.iVal, -5);
        EXPECT_EQ(got[1].val.uiVal, 65535);
        EXPECT_EQ(got[2].val.lVal, -70000);
        EXPECT_EQ(got[3].val.ulVal, 0xFFFFFFFF);
        EXPECT_EQ(got[4].val.boolVal, TRUE);
        EXPECT_EQ(got[5].val.dblVal, -1.5);
        EXPECT_EQ(std::u16string(got[6].val.lpwstr), std::u16string(odd));
        EXPECT_EQ(got[7].val.filetime.dwHighDateTime, 0xFEDCBA98u);
        EXPECT_EQ(got[7].val.filetime.dwLowDateTime, 0xDEADBEEFu);
        EXPECT_EQ(std::u16string(got[8].val.lpwstr), u"");
        ASSERT_EQ(got[9].val.blob.dwCount, 3u);
        EXPECT_EQ(std::memcmp(got[9].val.blob.lpb, bytes, 3), 0);
        EXPECT_EQ(got[10].val.blob.dwCount, 0u);
        HeapFree(GetProcessHeap(), 0, got);
    }
    set[6].wFlags = CEDB_PROPDELETE;
    ASSERT_EQ(item->SetProps(0, 1, &set[6]), S_OK);
    ASSERT_EQ(item->Save(), S_OK);
    CEPROPVAL* got = nullptr;
    ULONG size = 0;
    ASSERT_EQ(item->GetProps(&ids[6], CEDB_ALLOWREALLOC, 1, &got, &size, GetProcessHeap()), S_OK);
    EXPECT_EQ(got->wFlags, CEDB_PROPNOTFOUND);
    HeapFree(GetProcessHeap(), 0, got);
}

TEST(Properties, CallersBufferWithoutReallocation) {
    TestSession session;
    const auto item = as_item(*session.contact(session.add(u"a", u"b")).get());
    WCHAR extras[] = u"X-THING:1";
    CEPROPVAL set = {};
    set.propid = ZR_PROPID_CARD_EXTRAS;
    set.val.lpwstr = extras;
    ASSERT_EQ(item->SetProps(0, 1, &set), S_OK);
    const CEPROPID id = ZR_PROPID_CARD_EXTRAS;
    alignas(8) BYTE room[256];
    auto* values = reinterpret_cast<CEPROPVAL*>(room);
    ULONG size = sizeof(CEPROPVAL);
    EXPECT_EQ(item->GetProps(&id, 0, 1, &values, &size, nullptr), HRESULT_FROM_WIN32(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_GT(size, sizeof(CEPROPVAL));
    ASSERT_LE(size, sizeof room);
    ASSERT_EQ(item->GetProps(&id, 0, 1, &values, &size, nullptr), S_OK);
    EXPECT_EQ(reinterpret_cast<BYTE*>(values), room);
    EXPECT_EQ(std::u16string(values->val.lpwstr), extras);
}

TEST(Properties, WrongOnesAreRefusedWhole) {
    TestSession session;
    const auto item = as_item(*session.contact(session.add(u"a", u"b")).get());
    CEPROPVAL set[2] = {number(0x01230013, 1), number(0x01240099, 1)};
    EXPECT_EQ(item->SetProps(0, 2, set), E_INVALIDARG) << "an unknown type";
    set[1] = number(0x7E00001F, 0);
    EXPECT_EQ(item->SetProps(0, 2, set), E_INVALIDARG) << "a named field";
    set[1] = {};
    set[1].propid = 0x0124001F;
    EXPECT_EQ(item->SetProps(0, 2, set), E_INVALIDARG) << "text that is null";
    EXPECT_EQ(item->SetProps(0, 1, nullptr), E_POINTER);
    CEPROPVAL* got = nullptr;
    ULONG size = 0;
    EXPECT_EQ(item->GetProps(nullptr, CEDB_ALLOWREALLOC, 0, &got, &size, nullptr), S_FALSE) << "nothing was set";
    EXPECT_EQ(item->GetProps(nullptr, CEDB_ALLOWREALLOC, 1, &got, &size, nullptr), E_POINTER);
    const CEPROPID named = 0x7E00001F;
    EXPECT_EQ(item->GetProps(&named, CEDB_ALLOWREALLOC, 1, &got, &size, nullptr), E_INVALIDARG);
}

TEST(Folder, HasPropertiesAndAnIdentifier) {
    TestSession session;
    TestSession other;
    const auto folder = as_item(*session.folder().get());
    LONG oid = 0;
    ASSERT_EQ(folder->get_Oid(&oid), S_OK);
    EXPECT_GT(oid, 0);
    LONG tasks = 0;
    ASSERT_EQ(as_item(*session.folder(olFolderTasks).get())->get_Oid(&tasks), S_OK);
    EXPECT_NE(oid, tasks);
    CEPROPVAL set = number(PIMPR_FOLDERNOTIFICATIONS, 3);
    ASSERT_EQ(folder->SetProps(0, 1, &set), S_OK);
    const CEPROPID id = PIMPR_FOLDERNOTIFICATIONS;
    CEPROPVAL* got = nullptr;
    ULONG size = 0;
    ASSERT_EQ(as_item(*other.folder().get())->GetProps(&id, CEDB_ALLOWREALLOC, 1, &got, &size, nullptr), S_OK);
    EXPECT_EQ(got->val.ulVal, 3u) << "in effect in this process without Save";
    ASSERT_EQ(folder->Save(), S_OK);
    EXPECT_EQ(folder->Delete(), E_ACCESSDENIED);
    Ptr<IFolder> back;
    EXPECT_EQ(folder->QueryInterface(IID_IFolder, back.any()), S_OK);
    HeapFree(GetProcessHeap(), 0, got);
}

TEST(Folder, NotificationsSavedOutliveTheSessions) {
    const auto flags = [](TestSession& session) {
        const CEPROPID id = PIMPR_FOLDERNOTIFICATIONS;
        CEPROPVAL* got = nullptr;
        ULONG size = 0;
        EXPECT_EQ(as_item(*session.folder().get())->GetProps(&id, CEDB_ALLOWREALLOC, 1, &got, &size, nullptr), S_OK);
        const ULONG found = got->val.ulVal;
        HeapFree(GetProcessHeap(), 0, got);
        return found;
    };
    for (const bool save : {false, true}) {
        {
            TestSession session;
            EXPECT_EQ(flags(session), 0u);
            const auto folder = as_item(*session.folder().get());
            CEPROPVAL set = number(PIMPR_FOLDERNOTIFICATIONS, 1);
            ASSERT_EQ(folder->SetProps(0, 1, &set), S_OK);
            if (save) {
                ASSERT_EQ(folder->Save(), S_OK);
            }
            EXPECT_EQ(flags(session), 1u);
        }
        TestSession session;
        EXPECT_EQ(flags(session), save ? 1u : 0u);
    }
}

}  // namespace
