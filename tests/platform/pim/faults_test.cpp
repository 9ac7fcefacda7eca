#include <signal.h>
#include <sys/resource.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "session_support.h"
#include "store_query.h"
#include "support/child.h"
#include "support/sandbox.h"

namespace {

using namespace zr::test;

bool error_text_has(std::u16string_view part) {
    return std::u16string(ZrPimLastErrorText()).find(part) != std::u16string::npos;
}

ZR_CHILD(endless_writer) {
    TestSession session;
    const auto store = session.store();
    const auto items = session.items();
    say("ready");
    for (int i = 0;; ++i) {
        const bool batch = i % 3 == 0;
        if (batch) store->BeginBatch();
        for (int k = 0; k < (batch ? 50 : 1); ++k) {
            const auto item = session.fresh();
            item->put_LastName(in(u"written"));
            item->put_Body(in(std::u16string(2000, u'x').c_str()));
            item->Save();
        }
        if (batch) store->CommitBatch();
        if (i % 5 == 0) items->Remove(1);
    }
}

TEST(Faults, AStoreSurvivesKilledWriters) {
    for (int round = 0; round < 5; ++round) {
        Child one("endless_writer");
        Child two("endless_writer");
        ASSERT_EQ(one.hear(), "ready");
        ASSERT_EQ(two.hear(), "ready");
        TestSession session;
        ASSERT_EQ(session.logon, S_OK);
        const auto items = session.items();
        const INT before = count(*items.get());
        while (count(*items.get()) < before + 60) {  // they are in the middle of it
        }
        one.kill(SIGKILL);
        two.kill(SIGKILL);
        one.wait();
        two.wait();
        // Whole and usable, and identifiers are still handed out once.
        const LONG fresh = session.add(u"after", u"");
        EXPECT_GT(fresh, 0);
        EXPECT_EQ(text(*session.contact(fresh).get(), &IContact::get_FirstName), u"after");
    }
    EXPECT_EQ(query(store_path(), "PRAGMA integrity_check"), "ok");
    EXPECT_EQ(query(store_path(), "SELECT count(*) FROM contact JOIN free_oid USING(oid)"), "0");
    EXPECT_EQ(query(store_path(),
                    "SELECT (SELECT count(*) FROM contact) + (SELECT count(*) FROM free_oid)"
                    " = next - 1 FROM folder WHERE id = 10"),
              "1");
}

TEST(Faults, ADamagedStoreIsSetAside) {
    std::filesystem::create_directories(sandbox_home());
    std::ofstream(store_path()) << std::string(5000, 'x');
    {
        TestSession session;
        EXPECT_EQ(session.logon, HRESULT_FROM_WIN32(ERROR_FILE_CORRUPT));
        EXPECT_TRUE(error_text_has(u"set aside"));
    }
    ASSERT_EQ(set_aside().size(), 1u);
    std::ifstream kept(set_aside()[0]);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(kept), {}), std::string(5000, 'x')) << "not overwritten";
    TestSession session;
    EXPECT_EQ(session.logon, S_OK) << "the next start has a new store";
    EXPECT_EQ(session.add(u"a", u""), 1);
}

TEST(Faults, DamageInsideIsReportedAndSetAsideAtTheNextStart) {
    {
        TestSession session;
        const auto store = session.store();
        ASSERT_EQ(store->BeginBatch(), S_OK);
        for (int i = 0; i < 2000; ++i) {
            session.add(u"someone", u"somewhere", u"someone@example.com");
        }
        ASSERT_EQ(store->CommitBatch(), S_OK);
    }
    ASSERT_EQ(query(store_path(), "PRAGMA wal_checkpoint(TRUNCATE)"), "0");
    {
        const std::string pages = query(store_path(),
                                        "SELECT group_concat(pageno, ' ') FROM (SELECT pageno FROM dbstat WHERE name ="
                                        " 'contact' AND pagetype = 'leaf' ORDER BY path LIMIT 20 OFFSET 20)");
        std::istringstream numbers(pages);
        std::fstream file(store_path(), std::ios::in | std::ios::out | std::ios::binary);
        int damaged = 0;
        for (std::streamoff page = 0; numbers >> page; ++damaged) {
            file.seekp((page - 1) * 4096);
            file << std::string(100, '\xEE');
        }
        ASSERT_EQ(damaged, 20) << pages;
    }
    {
        TestSession session;
        ASSERT_EQ(session.logon, S_OK) << "the front of the file is whole";
        const auto items = session.items();
        HRESULT result = S_OK;
        for (INT i = 1; i <= 2000 && result == S_OK; ++i) {
            Ptr<IContact> item;
            result = items->Item(i, item.dispatch());
            BSTR name = nullptr;
            if (result == S_OK) result = item->get_LastName(&name);
            SysFreeString(name);
        }
        EXPECT_EQ(result, HRESULT_FROM_WIN32(ERROR_FILE_CORRUPT));
        EXPECT_TRUE(error_text_has(u"pim.db"));
        EXPECT_EQ(set_aside().size(), 0u);
    }
    {
        TestSession session;
        EXPECT_EQ(session.logon, HRESULT_FROM_WIN32(ERROR_FILE_CORRUPT));
    }
    EXPECT_EQ(set_aside().size(), 1u);
    TestSession session;
    EXPECT_EQ(session.logon, S_OK);
}

TEST(Faults, AStoreOfANewerVersionIsLeftAlone) {
    {
        TestSession session;
        session.add(u"a", u"");
    }
    const std::string version = query(store_path(), "PRAGMA user_version");
    query(store_path(), "PRAGMA user_version = 999");
    TestSession session;
    EXPECT_EQ(session.logon, HRESULT_FROM_WIN32(ERROR_REVISION_MISMATCH));
    EXPECT_TRUE(error_text_has(u"newer version (999"));
    EXPECT_TRUE(set_aside().empty());
    EXPECT_EQ(query(store_path(), "SELECT count(*) FROM contact"), "1");
    query(store_path(), "PRAGMA user_version = " + version);
    EXPECT_EQ(session.app->Logon(nullptr), S_OK);
}

TEST(Faults, AnEmptyFileBecomesAStoreAndAForeignOneDoesNot) {
    std::filesystem::create_directories(sandbox_home());
    std::ofstream(store_path()).flush();
    {
        TestSession session;
        EXPECT_EQ(session.logon, S_OK);
    }
    std::filesystem::remove(store_path());
    query(store_path(), "CREATE TABLE somebody_elses(x)");
    {
        TestSession session;
        EXPECT_EQ(session.logon, HRESULT_FROM_WIN32(ERROR_FILE_CORRUPT));
    }
    ASSERT_EQ(set_aside().size(), 1u);
    EXPECT_EQ(query(set_aside()[0], "SELECT count(*) FROM somebody_elses"), "0");
}

// A file that may not grow is a disk that is full, to the store.
ZR_CHILD(fill_the_disk) {
    TestSession session;
    const auto items = session.items();
    if (session.add(u"before", u"") != 1) return 10;
    const rlimit limit = {400000, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &limit);
    HRESULT result = S_OK;
    INT saved = 1;
    const std::u16string body(5000, u'x');
    Ptr<IContact> last;
    for (int i = 0; i < 200 && result == S_OK; ++i) {
        last = session.fresh();
        last->put_FirstName(in(u"filler"));
        last->put_Body(in(body.c_str()));
        result = last->Save();
        if (result == S_OK) ++saved;
    }
    if (result != HRESULT_FROM_WIN32(ERROR_DISK_FULL)) return 11;
    if (!error_text_has(u"the disk is full")) return 12;
    if (count(*items.get()) != saved) return 13;
    if (text(*session.contact(saved).get(), &IContact::get_Body) != body && saved > 1) return 14;
    const auto store = session.store();
    if (store->BeginBatch() == S_OK) {
        HRESULT batch = S_OK;
        for (int i = 0; i < 50 && batch == S_OK; ++i) {
            const auto item = session.fresh();
            item->put_Body(in(std::u16string(20000, u'y').c_str()));
            batch = item->Save();
        }
        const HRESULT commit = store->CommitBatch();
        if (batch == S_OK && commit != HRESULT_FROM_WIN32(ERROR_DISK_FULL)) return 15;
        if (SUCCEEDED(commit)) return 16;
    }
    if (count(*items.get()) != saved) return 17;
    const rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &none);
    if (last->Save() != S_OK) return 18;  // there is room again, and the item still holds what was put
    LONG oid = 0;
    last->get_Oid(&oid);
    if (oid != saved + 1 || count(*items.get()) != saved + 1) return 19;
    return 0;
}

TEST(Faults, AFullDiskLosesNothing) {
    Child child("fill_the_disk");
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(query(store_path(), "PRAGMA integrity_check"), "ok");
}

ZR_CHILD(hold_the_store) {
    TestSession session;
    const auto store = session.store();
    if (store->BeginBatch() != S_OK) return 1;
    session.add(u"held", u"");
    say("held");
    hear();
    return store->CommitBatch() == S_OK ? 0 : 2;
}

TEST(Faults, AStoreThatIsKeptLockedIsBusyAndStillReadable) {
    TestSession session;
    session.add(u"a", u"");
    Child child("hold_the_store");
    ASSERT_EQ(child.hear(), "held");
    EXPECT_EQ(count(*session.items().get()), 1);
    const auto item = session.fresh();
    item->put_FirstName(in(u"b"));
    EXPECT_EQ(item->Save(), HRESULT_FROM_WIN32(ERROR_BUSY));
    EXPECT_TRUE(error_text_has(u"locked"));
    child.say("go");
    EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(item->Save(), S_OK);
    EXPECT_EQ(count(*session.items().get()), 3);
}

TEST(Faults, AFolderThatCannotBeWrittenIsReported) {
    std::ofstream(sandbox() / "file").flush();
    setenv("ZR_HOME", (sandbox() / "file" / "below").c_str(), 1);
    TestSession session;
    EXPECT_TRUE(FAILED(session.logon));
    EXPECT_TRUE(error_text_has(u"below") || error_text_has(u"file"));
}

ZR_CHILD(count_contacts) {
    TestSession session;
    return session.logon == S_OK ? count(*session.items().get()) : 255;
}

TEST(Processes, OpenAFreshStoreAtTheSameTime) {
    std::vector<std::unique_ptr<Child>> children;
    for (int i = 0; i < 6; ++i) {
        children.push_back(std::make_unique<Child>("count_contacts"));
    }
    for (const auto& child : children) {
        EXPECT_EQ(child->wait(), 0);
    }
}

ZR_CHILD(add_contacts) {
    TestSession session;
    for (int i = 0; i < 100; ++i) {
        session.add(u"c", u"");
        if (i % 4 == 0) session.items()->Remove(1);
    }
    return 0;
}

TEST(Processes, WriteAtTheSameTimeWithoutHandingOutAnIdentifierTwice) {
    {
        Child one("add_contacts");
        Child two("add_contacts");
        Child three("add_contacts");
        EXPECT_EQ(one.wait(), 0);
        EXPECT_EQ(two.wait(), 0);
        EXPECT_EQ(three.wait(), 0);
    }
    TestSession session;
    EXPECT_EQ(count(*session.items().get()), 225);
    EXPECT_EQ(query(store_path(), "SELECT count(*) FROM contact"), "225");
}

}  // namespace
