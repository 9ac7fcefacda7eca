#include <sys/stat.h>

#include <set>

#include "platform/diagnostics.h"
#include "session_support.h"
#include "support/sandbox.h"

namespace {

using namespace zr::test;

constexpr HRESULT kNotLoggedOn = HRESULT_FROM_WIN32(ERROR_NOT_LOGGED_ON);
constexpr HRESULT kGone = HRESULT_FROM_WIN32(ERROR_NOT_FOUND);

TEST(Application, NeedsLogon) {
    CoInitializeEx(nullptr, 0);
    {
        Ptr<IPOutlookApp> app;
        ASSERT_EQ(CoCreateInstance(CLSID_Application, nullptr, CLSCTX_INPROC_SERVER, IID_IPOutlookApp, app.any()),
                  S_OK);
        Ptr<IFolder> folder;
        EXPECT_EQ(app->GetDefaultFolder(olFolderContacts, folder.out()), kNotLoggedOn);
        EXPECT_NE(std::u16string(ZrPimLastErrorText()), u"");
        EXPECT_EQ(app->Logoff(), kNotLoggedOn);
        EXPECT_EQ(app->Logon(nullptr), S_OK);
        EXPECT_EQ(app->Logon(nullptr), S_FALSE);
        EXPECT_EQ(app->GetDefaultFolder(olFolderContacts, folder.out()), S_OK);
        EXPECT_EQ(app->GetDefaultFolder(static_cast<OlDefaultFolders>(11), folder.out()), E_INVALIDARG);
        EXPECT_EQ(app->GetDefaultFolder(olFolderContacts, nullptr), E_POINTER);
        EXPECT_EQ(app->Logoff(), S_OK);
        EXPECT_EQ(app->GetDefaultFolder(olFolderContacts, folder.out()), kNotLoggedOn);
        EXPECT_EQ(app->Logon(nullptr), S_OK) << "a session can be opened again";
        Ptr<IStream> wrong;
        EXPECT_EQ(app->QueryInterface(IID_IStream, wrong.any()), E_NOINTERFACE);
        EXPECT_EQ(app->QueryInterface(IID_IStream, nullptr), E_POINTER);
    }
    CoUninitialize();
}

TEST(Application, CountsOnlyItsCallersReferences) {
    TestSession session;
    const auto folder = session.folder();
    const auto items = session.items();
    const auto contact = session.fresh();
    EXPECT_EQ(session.app->AddRef(), 2u);
    EXPECT_EQ(session.app->Release(), 1u);
    Ptr<IPOutlookApp> app;
    EXPECT_EQ(contact->get_Application(app.out()), S_OK);
    EXPECT_EQ(app.get(), session.app.get());
    EXPECT_EQ(session.app->AddRef(), 3u);
    EXPECT_EQ(session.app->Release(), 2u);
}

TEST(Application, ItemsOutliveTheirSession) {
    const LONGLONG before = ZrLiveObjects(ZrLiveKind::Interfaces);
    CoInitializeEx(nullptr, 0);
    {
        Ptr<IPOutlookApp> app;
        ASSERT_EQ(CoCreateInstance(CLSID_Application, nullptr, CLSCTX_INPROC_SERVER, IID_IPOutlookApp, app.any()),
                  S_OK);
        ASSERT_EQ(app->Logon(nullptr), S_OK);
        Ptr<IContact> contact;
        ASSERT_EQ(app->CreateItem(olContactItem, contact.dispatch()), S_OK);
        app.reset();
        BSTR text = nullptr;
        EXPECT_EQ(contact->get_FirstName(&text), kNotLoggedOn);
        EXPECT_EQ(text, nullptr);
        EXPECT_EQ(contact->Save(), kNotLoggedOn);
        EXPECT_EQ(contact->get_Application(app.out()), S_OK);
        EXPECT_EQ(app->Logon(nullptr), S_OK);
    }
    CoUninitialize();
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Interfaces), before);
}

TEST(Contact, KeepsItsFields) {
    const LONGLONG interfaces = ZrLiveObjects(ZrLiveKind::Interfaces);
    const LONGLONG strings = ZrLiveObjects(ZrLiveKind::Strings);
    {
        TestSession session;
        const auto made = session.fresh();
        LONG oid = -1;
        EXPECT_EQ(made->get_Oid(&oid), S_OK);
        EXPECT_EQ(oid, 0);
        EXPECT_EQ(text(*made.get(), &IContact::get_Title), u"");
        made->put_Title(in(u"Dr."));
        made->put_FirstName(in(u"Ada"));
        made->put_MiddleName(in(u"King"));
        made->put_LastName(in(u"Lovelace"));
        made->put_Suffix(in(u"III"));
        made->put_CompanyName(in(u"Engines"));
        made->put_Email1Address(in(u"ada@example.com"));
        made->put_Email2Address(in(u"countess@example.org"));
        made->put_Email3Address(in(u"a.l@example.net"));
        made->put_JobTitle(in(u"Programmer"));
        made->put_MobileTelephoneNumber(in(u"+44 1"));
        made->put_Birthday(-30700.0);
        EXPECT_EQ(text(*made.get(), &IContact::get_FileAs), u"Lovelace, Ada King") << "before the save";
        ASSERT_EQ(made->Save(), S_OK);
        ASSERT_EQ(made->get_Oid(&oid), S_OK);
        EXPECT_EQ(oid, 1);
        for (const auto& contact : {session.contact(oid), Ptr<IContact>()}) {
            IContact& item = contact ? *contact.get() : *made.get();
            EXPECT_EQ(text(item, &IContact::get_FileAs), u"Lovelace, Ada King");
            EXPECT_EQ(text(item, &IContact::get_Title), u"Dr.");
            EXPECT_EQ(text(item, &IContact::get_FirstName), u"Ada");
            EXPECT_EQ(text(item, &IContact::get_MiddleName), u"King");
            EXPECT_EQ(text(item, &IContact::get_LastName), u"Lovelace");
            EXPECT_EQ(text(item, &IContact::get_Suffix), u"III");
            EXPECT_EQ(text(item, &IContact::get_CompanyName), u"Engines");
            EXPECT_EQ(text(item, &IContact::get_Email1Address), u"ada@example.com");
            EXPECT_EQ(text(item, &IContact::get_Email2Address), u"countess@example.org");
            EXPECT_EQ(text(item, &IContact::get_Email3Address), u"a.l@example.net");
            EXPECT_EQ(text(item, &IContact::get_JobTitle), u"Programmer");
            EXPECT_EQ(text(item, &IContact::get_MobileTelephoneNumber), u"+44 1");
            EXPECT_EQ(text(item, &IContact::get_Spouse), u"");
            DATE date = 0;
            EXPECT_EQ(item.get_Birthday(&date), S_OK);
            EXPECT_EQ(date, -30700.0);
            EXPECT_EQ(item.get_Anniversary(&date), S_OK);
            EXPECT_EQ(date, ZR_PIM_NO_DATE);
        }
        EXPECT_EQ(made->get_FirstName(nullptr), E_POINTER);
        EXPECT_EQ(made->Display(), E_NOTIMPL);
    }
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Interfaces), interfaces);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Strings), strings);
}

TEST(Contact, FileAsFollowsTheNamesUntilTheUserPutsOne) {
    TestSession session;
    const auto made = session.fresh();
    const auto file_as = [&] { return text(*made.get(), &IContact::get_FileAs); };
    EXPECT_EQ(file_as(), u"");
    made->put_Email1Address(in(u"x@y"));
    EXPECT_EQ(file_as(), u"x@y");
    made->put_CompanyName(in(u"Firm"));
    EXPECT_EQ(file_as(), u"Firm");
    made->put_FirstName(in(u"A"));
    EXPECT_EQ(file_as(), u"A");
    made->put_MiddleName(in(u"B"));
    EXPECT_EQ(file_as(), u"A B");
    made->put_LastName(in(u"C"));
    EXPECT_EQ(file_as(), u"C, A B");
    ASSERT_EQ(made->Save(), S_OK);
    made->put_FirstName(in(u""));
    EXPECT_EQ(file_as(), u"C, B");
    made->put_MiddleName(nullptr);
    EXPECT_EQ(file_as(), u"C");
    made->put_FileAs(in(u"Own"));
    EXPECT_EQ(file_as(), u"Own");
    ASSERT_EQ(made->Save(), S_OK);
    made->put_LastName(in(u"D"));
    EXPECT_EQ(file_as(), u"Own");
    ASSERT_EQ(made->Save(), S_OK);
    LONG oid = 0;
    made->get_Oid(&oid);
    EXPECT_EQ(text(*session.contact(oid).get(), &IContact::get_FileAs), u"Own");
    made->put_FileAs(in(u""));
    EXPECT_EQ(file_as(), u"D");
    ASSERT_EQ(made->Save(), S_OK);
    EXPECT_EQ(text(*session.contact(oid).get(), &IContact::get_FileAs), u"D");
}

TEST(Contact, TextIsData) {
    TestSession session;
    const std::u16string texts[] = {
        u"Robert'); DROP TABLE contact;--",
        u"tab\t line\n bell\x07 quote\"",
        {0xD800},
        {u'a', 0xDC00, u'b'},
        {0xDC00, 0xD800},
        {0xFEFF, u'x'},
        {0xFFFE, u'x'},
        {0xFFFF},
        {0xD83D, 0xDE00},
        std::u16string(100000, u'\u20AC'),
    };
    for (const std::u16string& each : texts) {
        const auto made = session.fresh();
        made->put_FirstName(in(each.c_str()));
        made->put_Body(in(each.c_str()));
        ASSERT_EQ(made->Save(), S_OK);
        LONG oid = 0;
        made->get_Oid(&oid);
        const auto read = session.contact(oid);
        EXPECT_EQ(text(*read.get(), &IContact::get_FirstName), each);
        EXPECT_EQ(text(*read.get(), &IContact::get_Body), each);
        EXPECT_EQ(text(*read.get(), &IContact::get_FileAs), each);
    }
}

TEST(Contact, SaveWritesOnlyWhatWasPut) {
    TestSession session;
    const LONG oid = session.add(u"A", u"B");
    const auto one = session.contact(oid);
    const auto two = session.contact(oid);
    one->put_FirstName(in(u"X"));
    two->put_LastName(in(u"Y"));
    ASSERT_EQ(one->Save(), S_OK);
    ASSERT_EQ(two->Save(), S_OK);
    EXPECT_EQ(text(*session.contact(oid).get(), &IContact::get_FileAs), u"Y, X");
}

TEST(Contact, DeletedItemsAreGoneAndTheirIdentifiersComeBack) {
    TestSession session;
    const LONG a = session.add(u"A", u"");
    const LONG b = session.add(u"B", u"");
    const LONG c = session.add(u"C", u"");
    EXPECT_EQ(std::set<LONG>({a, b, c}), std::set<LONG>({1, 2, 3}));
    const auto held = session.contact(b);
    const auto unsaved = session.fresh();
    EXPECT_EQ(unsaved->Delete(), E_INVALIDARG);
    ASSERT_EQ(session.contact(b)->Delete(), S_OK);
    ASSERT_EQ(session.contact(a)->Delete(), S_OK);
    EXPECT_EQ(held->Delete(), kGone);
    held->put_FirstName(in(u"again"));
    EXPECT_EQ(held->Save(), kGone);
    Ptr<IContact> gone;
    EXPECT_EQ(session.app->GetItemFromOid(b, gone.dispatch()), kGone);
    EXPECT_FALSE(gone);
    for (const LONG wrong : {0, -1, 4, 0x09000001, 0x7F00000A, 0x05000001}) {
        EXPECT_EQ(session.app->GetItemFromOid(wrong, gone.dispatch()), kGone) << wrong;
    }
    EXPECT_EQ(session.add(u"D", u""), 1);
    EXPECT_EQ(session.add(u"E", u""), 2);
    EXPECT_EQ(session.add(u"F", u""), 4);
}

TEST(Contact, CopyIsANewItem) {
    TestSession session;
    const LONG oid = session.add(u"A", u"B", u"a@b");
    auto original = session.contact(oid);
    original->put_Spouse(in(u"S"));
    ASSERT_EQ(original->Save(), S_OK);
    original->put_JobTitle(in(u"J"));
    Ptr<IContact> copy;
    ASSERT_EQ(original->Copy(copy.out()), S_OK);
    LONG copied = -1;
    copy->get_Oid(&copied);
    EXPECT_EQ(copied, 0);
    ASSERT_EQ(copy->Save(), S_OK);
    copy->get_Oid(&copied);
    EXPECT_EQ(copied, 2);
    const auto read = session.contact(2);
    EXPECT_EQ(text(*read.get(), &IContact::get_FileAs), u"B, A");
    EXPECT_EQ(text(*read.get(), &IContact::get_Spouse), u"S");
    EXPECT_EQ(text(*read.get(), &IContact::get_JobTitle), u"J");
    EXPECT_EQ(text(*session.contact(1).get(), &IContact::get_JobTitle), u"");
}

TEST(Entries, AppointmentsAndTasks) {
    TestSession session;
    Ptr<IAppointment> appointment;
    ASSERT_EQ(session.app->CreateItem(olAppointmentItem, appointment.dispatch()), S_OK);
    appointment->put_Subject(in(u"Meet"));
    EXPECT_EQ(appointment->put_Duration(30), E_INVALIDARG) << "no start yet";
    appointment->put_Start(45000.5);
    EXPECT_EQ(appointment->put_Duration(90), S_OK);
    appointment->put_AllDayEvent(VARIANT_TRUE);
    ASSERT_EQ(appointment->Save(), S_OK);
    Ptr<ITask> task;
    ASSERT_EQ(session.app->CreateItem(olTaskItem, task.dispatch()), S_OK);
    task->put_Subject(in(u"Do"));
    task->put_Complete(VARIANT_TRUE);
    ASSERT_EQ(task->Save(), S_OK);
    LONG oid = 0;
    appointment->get_Oid(&oid);
    EXPECT_EQ(oid, 0x09000001);
    ASSERT_EQ(session.app->GetItemFromOid(oid, appointment.dispatch()), S_OK);
    EXPECT_EQ(text(*appointment.get(), &IAppointment::get_Subject), u"Meet");
    LONG minutes = 0;
    EXPECT_EQ(appointment->get_Duration(&minutes), S_OK);
    EXPECT_EQ(minutes, 1440) << "all day";
    VARIANT_BOOL truth = 0;
    EXPECT_EQ(appointment->get_AllDayEvent(&truth), S_OK);
    EXPECT_EQ(truth, VARIANT_TRUE);
    EXPECT_EQ(appointment->get_IsRecurring(&truth), S_OK);
    EXPECT_EQ(truth, VARIANT_FALSE);
    DATE date = 0;
    EXPECT_EQ(task->get_DateCompleted(&date), S_OK);
    EXPECT_NE(date, ZR_PIM_NO_DATE);
    task->put_Complete(VARIANT_FALSE);
    EXPECT_EQ(task->get_DateCompleted(&date), S_OK);
    EXPECT_EQ(date, ZR_PIM_NO_DATE);
    for (const OlDefaultFolders folder : {olFolderCalendar, olFolderTasks}) {
        const auto items = session.items(folder);
        EXPECT_EQ(count(*items.get()), 1);
        EXPECT_EQ(items->Remove(1), S_OK);
        EXPECT_EQ(items->Remove(1), E_INVALIDARG);
        EXPECT_EQ(count(*items.get()), 0);
    }
    EXPECT_EQ(session.app->CreateItem(olCityItem, task.dispatch()), E_INVALIDARG);
}

TEST(Application, ConvertsDates) {
    TestSession session;
    SYSTEMTIME parts = {};
    ASSERT_EQ(session.app->VariantTimeToSystemTime(-0.25, &parts), S_OK);
    EXPECT_EQ(parts.wYear, 1899);
    EXPECT_EQ(parts.wDay, 30);
    EXPECT_EQ(parts.wHour, 6);
    DATE date = 0;
    const SYSTEMTIME leap = {2024, 2, 0, 29, 23, 59, 59, 0};
    ASSERT_EQ(session.app->SystemTimeToVariantTime(&leap, &date), S_OK);
    EXPECT_NEAR(date, 45351.999988, 1e-6);
    ASSERT_EQ(session.app->VariantTimeToSystemTime(date, &parts), S_OK);
    EXPECT_EQ(parts.wDay, 29);
    EXPECT_EQ(parts.wSecond, 59);
    const SYSTEMTIME wrong = {2023, 2, 0, 29, 0, 0, 0, 0};
    EXPECT_EQ(session.app->SystemTimeToVariantTime(&wrong, &date), E_INVALIDARG);
    EXPECT_EQ(session.app->VariantTimeToSystemTime(1e9, &parts), E_INVALIDARG);
}

TEST(StoreFiles, AreTheUsersAlone) {
    TestSession session;
    session.add(u"A", u"B");
    struct stat status = {};
    ASSERT_EQ(stat((sandbox_home() / "pim.db").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    ASSERT_EQ(stat((sandbox_home() / "pim.db-wal").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    ASSERT_EQ(stat((sandbox_home() / "pim.db.bell").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0600u);
    BSTR path = nullptr;
    ASSERT_EQ(session.store()->get_StorePath(&path), S_OK);
    EXPECT_NE(std::u16string(path).find(u"/pim.db"), std::u16string::npos);
    SysFreeString(path);
}

}  // namespace
