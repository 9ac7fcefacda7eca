#include "ZrUtility/Helpers/Contact.h"

#include <gtest/gtest.h>

#include <array>

#include "ZrUtility/Helpers/ContactsManager.h"
#include "ZrUtility/Helpers/fake_outlook.h"
#include "support/log_capture.h"
#include "support/log_categories.h"

namespace {

using zr::test::FakeOutlook;
using zr::test::kContactsFailure;

struct Field {
    ULONG bit;
    const char* name;
    LONG (Contact::*get)(WCHAR*&);
    LONG (Contact::*put)(WCHAR*&);
};

constexpr Field kContactFields[] = {
    {1, "FileAs", &Contact::get_FileAs, &Contact::put_FileAs},
    {2, "Title", &Contact::get_Title, &Contact::put_Title},
    {4, "FirstName", &Contact::get_FirstName, &Contact::put_FirstName},
    {8, "MiddleName", &Contact::get_MiddleName, &Contact::put_MiddleName},
    {16, "LastName", &Contact::get_LastName, &Contact::put_LastName},
    {32, "Suffix", &Contact::get_Suffix, &Contact::put_Suffix},
    {64, "CompanyName", &Contact::get_CompanyName, nullptr},
    {128, "Email1Address", &Contact::get_Email1Address, &Contact::put_Email1Address},
    {256, "Email2Address", &Contact::get_Email2Address, &Contact::put_Email2Address},
    {512, "Email3Address", &Contact::get_Email3Address, &Contact::put_Email3Address},
    {1024, "JobTitle", &Contact::get_JobTitle, &Contact::put_JobTitle},
};

class ContactTest : public testing::Test {
protected:
    ContactTest() {
        record_ = world_.add(12, {});
        EXPECT_EQ(manager_.Initialize(), S_OK);
        EXPECT_EQ(manager_.GetContact(1, contact_), S_OK);
    }
    ~ContactTest() override {
        manager_.ReleaseContact(contact_);
        EXPECT_EQ(manager_.Uninitialize(0), S_OK);
        EXPECT_EQ(world_.objects, 1);  // the factory
        EXPECT_EQ(world_.strings, 0);
    }

    // A fresh record of the same item, which has read nothing yet.
    Contact& fresh() {
        manager_.ReleaseContact(contact_);
        EXPECT_EQ(manager_.GetContact(1, contact_), S_OK);
        return *contact_;
    }
    int compare(const std::u16string& pattern, ULONG mask, int exact, int substrings) {
        std::u16string copy = pattern;
        return contact_->IsComparable(copy.data(), mask, exact, substrings);
    }
    std::u16string& value(const char* field) { return record_->fields[field]; }
    // Out of the macros: GCC 12 gives the undefined behaviour sanitizer a wrong object for such a call within one.
    LONG get(const Field& field, WCHAR*& text) { return (contact_->*field.get)(text); }
    LONG put(const Field& field, WCHAR*& text) { return (contact_->*field.put)(text); }

    FakeOutlook world_;
    std::shared_ptr<zr::test::FakeRecord> record_;
    ContactsManager manager_;
    Contact* contact_ = nullptr;
    zr::test::LogCapture log_;
};

}  // namespace

TEST_F(ContactTest, EveryFieldIsReadOnceAndKept) {
    for (const Field& field : kContactFields) {
        value(field.name) = u"value of " + std::u16string(field.name, field.name + strlen(field.name));
        WCHAR* first = nullptr;
        WCHAR* second = nullptr;
        EXPECT_EQ(get(field, first), S_OK);
        EXPECT_EQ(first, value(field.name)) << field.name;
        EXPECT_EQ(get(field, second), S_OK);
        EXPECT_EQ(first, second);
        EXPECT_EQ(world_.calls[std::string("get_") + field.name], 1);
    }
    EXPECT_EQ(world_.strings, 11);
}

TEST_F(ContactTest, AFieldThatCannotBeReadIsAFailure) {
    for (const Field& field : kContactFields) {
        const std::string step = std::string("get_") + field.name;
        auto* const untouched = reinterpret_cast<WCHAR*>(0x10);
        WCHAR* text = untouched;
        world_.results[step] = E_ACCESSDENIED;
        EXPECT_EQ(get(field, text), E_FAIL);
        world_.results[step] = S_FALSE;  // succeeds with nothing
        EXPECT_EQ(get(field, text), E_FAIL);
        EXPECT_EQ(text, untouched);
        world_.results.erase(step);
        EXPECT_EQ(get(field, text), S_OK);
        EXPECT_EQ(*text, u'\0');
    }
}

TEST_F(ContactTest, PuttingDoesNotChangeWhatWasRead) {
    for (const Field& field : kContactFields) {
        if (field.put == nullptr) continue;
        value(field.name) = u"old";
        WCHAR* text = nullptr;
        ASSERT_EQ(get(field, text), S_OK);
        std::u16string fresh_value = u"new";
        WCHAR* given = fresh_value.data();
        EXPECT_EQ(put(field, given), S_OK);
        EXPECT_EQ(value(field.name), u"new") << field.name;
        ASSERT_EQ(get(field, text), S_OK);
        EXPECT_STREQ(reinterpret_cast<const char*>(text), reinterpret_cast<const char*>(u"old"));
        // Freed, it is read again.
        EXPECT_EQ(contact_->free_String(text), S_OK);
        ASSERT_EQ(get(field, text), S_OK);
        EXPECT_EQ(std::u16string(text), u"new");
        world_.results[std::string("put_") + field.name] = E_ABORT;
        EXPECT_EQ(put(field, given), E_ABORT);
    }
}

TEST_F(ContactTest, OnlyItsOwnTextsAreFreed) {
    WCHAR* none = nullptr;
    EXPECT_EQ(contact_->free_String(none), E_FAIL);
    WCHAR foreign[] = u"foreign";
    WCHAR* text = foreign;
    EXPECT_EQ(contact_->free_String(text), E_FAIL);
    EXPECT_EQ(text, foreign);
    ASSERT_EQ(contact_->get_Title(text), S_OK);
    world_.results["SysFreeString"] = S_FALSE;
    EXPECT_EQ(contact_->free_String(text), S_FALSE);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(world_.strings, 0);
}

TEST_F(ContactTest, ForwardsToTheItem) {
    LONG oid = 0;
    EXPECT_EQ(contact_->get_Oid(oid), S_OK);
    EXPECT_EQ(oid, 12);
    EXPECT_EQ(contact_->Save(), S_OK);
    EXPECT_EQ(contact_->Delete(), S_OK);
    EXPECT_EQ(contact_->Display(), S_OK);
    for (const char* step : {"contact.Save", "contact.Delete", "contact.Display", "contact.get_Oid"}) {
        world_.results[step] = E_ABORT;
    }
    EXPECT_EQ(contact_->get_Oid(oid), E_ABORT);
    EXPECT_EQ(contact_->Save(), E_ABORT);
    EXPECT_EQ(contact_->Delete(), E_ABORT);
    EXPECT_EQ(contact_->Display(), E_ABORT);
}

TEST_F(ContactTest, CountsAddresses) {
    for (int set = 0; set < 8; ++set) {
        const int all = (set & 1) + (set >> 1 & 1) + (set >> 2);
        value("Email1Address") = set & 1 ? u"a@x" : u"";
        value("Email2Address") = set & 2 ? u"b@x" : u"";
        value("Email3Address") = set & 4 ? u"c@x" : u"";
        EXPECT_EQ(fresh().HasEmail(1), all) << set;
        EXPECT_EQ(fresh().HasEmail(0), all ? 1 : 0) << set;
    }
    EXPECT_EQ(log_.count(kContactsFailure), 0);
}

TEST_F(ContactTest, AnAddressThatCannotBeReadEndsTheCount) {
    value("Email1Address") = u"a@x";
    value("Email3Address") = u"c@x";
    world_.results["get_Email2Address"] = E_FAIL;
    EXPECT_EQ(contact_->HasEmail(1), 1);
    EXPECT_EQ(log_.count(kContactsFailure), 1);
    EXPECT_EQ(contact_->HasEmail(0), 1);  // found before
    EXPECT_EQ(log_.count(kContactsFailure), 1);
    world_.results["get_Email1Address"] = E_FAIL;
    EXPECT_EQ(fresh().HasEmail(1), 0);
}

TEST_F(ContactTest, ComparesWholeBeginningsAndWords) {
    value("FirstName") = u"John";
    value("LastName") = u"Smith";
    EXPECT_EQ(compare(u"jo sm", 0xFFFFFFFF, 0, 1), 16);
    EXPECT_EQ(compare(u"sm jo", 0xFFFFFFFF, 0, 1), 4);
    EXPECT_EQ(compare(u"jo xx", 0xFFFFFFFF, 0, 1), 0);
    EXPECT_EQ(compare(u"xx jo", 0xFFFFFFFF, 0, 1), 0);
    EXPECT_EQ(compare(u"  jo   sm  ", 0xFFFFFFFF, 0, 1), 16);
    EXPECT_EQ(compare(u"jo\tsm", 0xFFFFFFFF, 0, 1), 0);  // a tab is no blank
    EXPECT_EQ(compare(u"john", 4, 1, 0), 4);
    EXPECT_EQ(compare(u"joh", 4, 1, 0), 0);
    EXPECT_EQ(compare(u"joh", 4, 0, 0), 4);
    EXPECT_EQ(compare(u"ohn", 4, 0, 0), 0);
    EXPECT_EQ(compare(u"jo", 4, 1, 1), 4);  // words win over exact
    value("FirstName") = u"Johnny";
    fresh();
    EXPECT_EQ(compare(u"john", 4, 1, 0), 0);
    EXPECT_EQ(compare(u"JOHN", 4, 0, 0), 4);
}

TEST_F(ContactTest, NothingMatchesNullAndEverythingMatchesEmpty) {
    EXPECT_EQ(contact_->IsComparable(nullptr, 0xFFFFFFFF, 0, 0), 0);
    for (const int flags : {0, 1, 2, 3}) {
        EXPECT_EQ(compare(u"", 0, flags & 1, flags >> 1), 1);
    }
    EXPECT_EQ(compare(u"   ", 0xFFFFFFFF, 0, 1), 1);
    EXPECT_EQ(compare(u"   ", 0xFFFFFFFF, 0, 0), 0);
    EXPECT_TRUE(world_.calls["get_FileAs"] == 1);
}

TEST_F(ContactTest, EachBitSearchesItsField) {
    for (const Field& field : kContactFields) {
        for (const Field& other : kContactFields) {
            value(other.name) = u"other";
        }
        value(field.name) = u"wanted";
        for (const Field& mask : kContactFields) {
            fresh();
            // The middle name's bit searches the file-as name, and nothing searches the middle name.
            const bool hit = mask.bit == 8 ? field.bit == 1 : mask.bit == field.bit;
            const int result = mask.bit == 8 ? 1 : static_cast<int>(mask.bit);
            EXPECT_EQ(compare(u"wanted", mask.bit, 1, 0), hit ? result : 0) << field.name << " " << mask.bit;
        }
    }
}

TEST_F(ContactTest, TheFirstMatchInFixedOrderCounts) {
    for (const Field& field : kContactFields) {
        value(field.name) = u"same";
    }
    ULONG mask = 0x7FF;
    for (const ULONG expected : {1u, 2u, 4u, 1u, 16u, 32u, 64u, 128u, 256u, 512u, 1024u}) {
        EXPECT_EQ(compare(u"same", mask, 1, 0), static_cast<int>(expected));
        mask &= mask - 1;
    }
    EXPECT_EQ(compare(u"same", mask, 1, 0), 0);
}

TEST_F(ContactTest, AFieldThatCannotBeReadEndsTheSearch) {
    value("LastName") = u"wanted";
    world_.results["get_FirstName"] = E_FAIL;
    EXPECT_EQ(compare(u"wanted", 4 | 16, 1, 0), 0);
    EXPECT_EQ(log_.count(kContactsFailure), 1);
    EXPECT_EQ(log_.records().back().source, ".\\Helpers\\Contact.cppzrwindowsmobile");
    EXPECT_EQ(compare(u"wanted", 16, 1, 0), 16);
    value("FileAs") = u"wanted";
    EXPECT_EQ(compare(u"wanted", 0x7FF, 1, 0), 1);  // found before the failure
}

TEST_F(ContactTest, FieldsArePointersInTheStatedOrder) {
    static_assert(sizeof(Contact) == 13 * sizeof(void*));
    std::array<void*, 13> words;
    for (const Field& field : kContactFields) {
        WCHAR* text = nullptr;
        ASSERT_EQ(get(field, text), S_OK);
    }
    memcpy(words.data(), static_cast<const void*>(contact_), sizeof words);
    EXPECT_EQ(words[0], world_.application);
    std::size_t place = 2;
    for (const Field& field : kContactFields) {
        WCHAR* text = nullptr;
        ASSERT_EQ(get(field, text), S_OK);
        EXPECT_EQ(words[place], text) << field.name;
        ++place;
    }
}
