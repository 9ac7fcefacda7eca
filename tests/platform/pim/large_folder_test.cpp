// Folders whose contacts do not fit into what the process keeps of them.

#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "platform/base.h"
#include "session_support.h"
#include "store_query.h"
#include "support/instrumented.h"

namespace {

using namespace zr::test;

constexpr LONG kContacts = kInstrumented ? 120000 : 300000;

std::u16string digits(LONG number) {
    char text[16];
    std::snprintf(text, sizeof text, "%06d", static_cast<int>(number));
    return std::u16string(text, text + std::char_traits<char>::length(text));
}

// Contact i has i as its first name, i times a prime as its last name and some 600 bytes in all.
void fill() {
    { const TestSession maker; }
    if (query(store_path(), "SELECT count(*) FROM contact") != "0") return;
    const std::string count = std::to_string(kContacts);
    query(
        store_path(),
        "PRAGMA synchronous = OFF; BEGIN IMMEDIATE;"
        "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
            count +
            ")"
            " INSERT INTO contact(oid, file_as, first_name, middle_name, last_name, company, email1, email2, job_title,"
            " own_file_as) SELECT i, printf('a name to file the contact %06d under', i), printf('%06d', i),"
            " 'with a middle name that nobody uses', printf('%06d', i * 7919 % 1000003),"
            " 'one of very many companies and subsidiaries', printf('contact.%d@department.example.org', i),"
            " printf('contact.%d@private.example.net', i), 'senior engineer of this and that', 0 FROM n;"
            "UPDATE folder SET next = " +
            count + " + 1 WHERE id = 10; COMMIT;");
}

std::size_t resident_bytes() {
    std::size_t total = 0;
    std::size_t resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

// Walks all of a collection; every contact has to be met once, and by `name` none before the one in front of it.
void expect_whole_walk(IPOutlookItemCollection& items, HRESULT (IContact::*name)(BSTR*), bool descending) {
    const INT size = count(items);
    ASSERT_EQ(size, kContacts);
    std::vector<bool> met(kContacts + 1);
    std::u16string before;
    for (INT i = 1; i <= size; ++i) {
        Ptr<IContact> item;
        ASSERT_EQ(items.Item(i, item.dispatch()), S_OK) << i;
        LONG oid = 0;
        item->get_Oid(&oid);
        ASSERT_FALSE(met[static_cast<std::size_t>(oid)]) << i;
        met[static_cast<std::size_t>(oid)] = true;
        ASSERT_EQ(text(*item.get(), &IContact::get_FirstName), digits(oid)) << i;
        for (const auto field : {&IContact::get_FileAs, &IContact::get_MiddleName, &IContact::get_CompanyName,
                                 &IContact::get_Email1Address, &IContact::get_Email2Address, &IContact::get_JobTitle}) {
            ASSERT_GT(text(*item.get(), field).size(), 20u) << i;
        }
        std::u16string present = text(*item.get(), name);
        ASSERT_TRUE(i == 1 || (descending ? present <= before : present >= before)) << i;
        before = std::move(present);
    }
}

TEST(LargeFolder, IsReadWholeInEveryOrder) {
    fill();
    const TestSession session;
    const std::size_t resident = resident_bytes();
    const auto items = session.items();
    ASSERT_EQ(items->Sort(in(u"[LastName]"), VARIANT_FALSE), S_OK);
    expect_whole_walk(*items.get(), &IContact::get_LastName, false);
    if (HasFatalFailure() || kInstrumented) return;
    ASSERT_EQ(items->Sort(in(u"[FirstName]"), VARIANT_TRUE), S_OK);
    expect_whole_walk(*items.get(), &IContact::get_FirstName, true);
    expect_whole_walk(*session.items().get(), &IContact::get_FirstName, false);
    EXPECT_LT(resident_bytes() - resident, 160u << 20) << "the rows alone are more than that";
}

TEST(LargeFolder, FindsTheLastOne) {
    fill();
    const TestSession session;
    const auto items = session.items();
    const std::u16string wanted = u"[FirstName] = \"" + digits(kContacts) + u"\"";
    for (const bool sorted : {false, true}) {
        if (sorted) {
            ASSERT_EQ(items->Sort(in(u"[LastName]"), VARIANT_TRUE), S_OK);
        }
        Ptr<IContact> item;
        ASSERT_EQ(items->Find(in(wanted.c_str()), item.dispatch()), S_OK);
        EXPECT_EQ(text(*item.get(), &IContact::get_FirstName), digits(kContacts));
        EXPECT_EQ(items->FindNext(item.dispatch()), S_FALSE);
    }
}

}  // namespace
