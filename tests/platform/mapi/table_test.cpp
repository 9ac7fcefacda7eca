// Tables: walking, seeking, finding, restricting and sorting, against a plain list of the same rows.

#include <gmock/gmock.h>

#include <algorithm>
#include <set>

#include "mail_support.h"

namespace zr::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class MapiTable : public testing::Test {
protected:
    void SetUp() override {
        static std::u16string name = u"Table";
        name += u'.';
        folder_ = mail_.fresh_folder(name);
    }

    Bytes add(const std::u16string& subject, ULONGLONG date, LONG importance = 1) {
        Ptr<IMessage> made;
        EXPECT_EQ(folder_->CreateMessage(nullptr, 0, made.out()), S_OK);
        SPropValue values[] = {text_prop(PR_SUBJECT_W, subject), time_prop(PR_MESSAGE_DELIVERY_TIME, date),
                               number_prop(PR_IMPORTANCE, importance)};
        EXPECT_EQ(made->SetProps(3, values, nullptr), S_OK);
        EXPECT_EQ(made->SaveChanges(0), S_OK);
        return id_of(made.get());
    }
    Ptr<IMAPITable> table(std::vector<ULONG> tags = {PR_SUBJECT_W}) {
        Ptr<IMAPITable> made;
        EXPECT_EQ(folder_->GetContentsTable(0, made.out()), S_OK);
        EXPECT_EQ(columns(made.get(), std::move(tags)), S_OK);
        return made;
    }
    static std::vector<std::u16string> read(IMAPITable* table, LONG count = 1000) {
        const Rows rows(table, count);
        EXPECT_EQ(rows.result, S_OK);
        std::vector<std::u16string> list;
        for (ULONG i = 0; i < rows.size(); ++i) {
            list.push_back(rows.text(i, 0));
        }
        return list;
    }
    static HRESULT sort(IMAPITable* table, std::vector<SSortOrder> orders) {
        std::vector<char> memory(sizeof(SSortOrderSet) + orders.size() * sizeof(SSortOrder));
        auto* const set = reinterpret_cast<SSortOrderSet*>(memory.data());
        set->cSorts = static_cast<ULONG>(orders.size());
        std::copy(orders.begin(), orders.end(), &set->aSort[0]);
        return table->SortTable(set, 0);
    }

    Mail mail_;
    Ptr<IMAPIFolder> folder_;
};

SRestriction property(ULONG relation, SPropValue* value) {
    SRestriction restriction = {};
    restriction.rt = RES_PROPERTY;
    restriction.res.resProperty = {relation, value->ulPropTag, value};
    return restriction;
}

TEST_F(MapiTable, IsWalkedInBatchesInTheOrderOfTheDates) {
    for (int i = 0; i < 150; ++i) {
        add(std::u16string(1, static_cast<char16_t>(u'a' + i % 26)), 1000 + static_cast<ULONGLONG>((i * 7) % 50));
    }
    Ptr<IMAPITable> all = table({PR_MESSAGE_DELIVERY_TIME, PR_ENTRYID});
    ULONG count = 0;
    EXPECT_EQ(all->GetRowCount(0, &count), S_OK);
    EXPECT_EQ(count, 150u);
    for (const bool descending : {false, true}) {
        if (descending) {
            ASSERT_EQ(sort(all.get(), {{PR_MESSAGE_DELIVERY_TIME, TABLE_SORT_DESCEND}}), S_OK);
        }
        std::vector<ULONGLONG> dates;
        std::set<Bytes> ids;
        for (;;) {
            const Rows rows(all.get(), 7);
            if (rows.size() == 0) break;
            EXPECT_LE(rows.size(), 7u);
            for (ULONG i = 0; i < rows.size(); ++i) {
                dates.push_back(rows.value(i, 0).Value.ft.dwLowDateTime);
                ids.insert(rows.bytes(i, 1));
            }
        }
        EXPECT_EQ(ids.size(), 150u);
        if (descending) std::reverse(dates.begin(), dates.end());
        EXPECT_TRUE(std::is_sorted(dates.begin(), dates.end()));
    }
}

TEST_F(MapiTable, ShowsWhatComesAndGoesWhileItIsWalked) {
    for (int i = 0; i < 10; ++i) {
        add(std::u16string(1, static_cast<char16_t>(u'0' + i)), 1000 + static_cast<ULONGLONG>(i) * 10);
    }
    Ptr<IMAPITable> walked = table();
    EXPECT_THAT(read(walked.get(), 3), ElementsAre(u"0", u"1", u"2"));
    add(u"before", 1005);
    add(u"behind", 1035);
    Ptr<IMAPITable> ids = table({PR_SUBJECT_W, PR_ENTRYID});
    {
        const Rows rows(ids.get());
        ASSERT_EQ(rows.text(6, 0), u"4");
        ASSERT_EQ(folder_->DeleteMessages(EntryList({rows.bytes(6, 1)}), 0, nullptr, 0), S_OK);
    }
    EXPECT_THAT(read(walked.get()), ElementsAre(u"3", u"behind", u"5", u"6", u"7", u"8", u"9"));
    EXPECT_THAT(read(walked.get()), IsEmpty());
}

TEST_F(MapiTable, SeeksFromEveryBookmark) {
    for (int i = 0; i < 10; ++i) {
        add(std::u16string(1, static_cast<char16_t>(u'0' + i)), 1000);  // all of one date
    }
    for (const bool listed : {false, true}) {
        for (const bool descending : {false, true}) {
            Ptr<IMAPITable> walked = table();
            const ULONG order = descending ? TABLE_SORT_DESCEND : TABLE_SORT_ASCEND;
            ASSERT_EQ(sort(walked.get(), {{listed ? PR_SUBJECT_W : PR_MESSAGE_DELIVERY_TIME, order}}), S_OK);
            const auto row = [&](int i) {
                return std::u16string(1, static_cast<char16_t>(u'0' + (descending ? 9 - i : i)));
            };
            LONG sought = 0;
            ASSERT_EQ(walked->SeekRow(BOOKMARK_BEGINNING, 4, &sought), S_OK);
            EXPECT_EQ(sought, 4);
            EXPECT_THAT(read(walked.get(), 2), ElementsAre(row(4), row(5)));
            ASSERT_EQ(walked->SeekRow(BOOKMARK_CURRENT, -3, &sought), S_OK);
            EXPECT_EQ(sought, -3);
            EXPECT_THAT(read(walked.get(), 1), ElementsAre(row(3)));
            ASSERT_EQ(walked->SeekRow(BOOKMARK_CURRENT, -100, &sought), S_OK);
            EXPECT_EQ(sought, -4);
            EXPECT_THAT(read(walked.get(), 1), ElementsAre(row(0)));
            ASSERT_EQ(walked->SeekRow(BOOKMARK_END, -1, &sought), S_OK);
            EXPECT_EQ(sought, -1);
            EXPECT_THAT(read(walked.get()), ElementsAre(row(9)));
            ASSERT_EQ(walked->SeekRow(BOOKMARK_BEGINNING, 100, &sought), S_OK);
            EXPECT_EQ(sought, 10);
            EXPECT_THAT(read(walked.get()), IsEmpty());
            ASSERT_EQ(walked->SeekRow(BOOKMARK_BEGINNING, 0, nullptr), S_OK);
            LPSRowSet rows = nullptr;
            ASSERT_EQ(walked->QueryRows(2, TBL_NOADVANCE, &rows), S_OK);
            FreeProws(rows);
            EXPECT_EQ(read(walked.get()).size(), 10u);
            EXPECT_EQ(walked->SeekRow(7, 0, nullptr), MAPI_E_INVALID_BOOKMARK);
            EXPECT_EQ(walked->QueryRows(-1, 0, &rows), MAPI_E_NO_SUPPORT);
        }
    }
}

TEST_F(MapiTable, FindsForwardAndBackward) {
    for (int i = 0; i < 1200; ++i) {
        add(i % 400 == 399 ? u"mark" : u"x", 1000 + static_cast<ULONGLONG>(i));
    }
    const std::u16string mark = u"mark";
    SPropValue value = text_prop(PR_SUBJECT_W, mark);
    SRestriction wanted = property(RELOP_EQ, &value);
    for (const bool listed : {false, true}) {
        Ptr<IMAPITable> walked = table({PR_SUBJECT_W, PR_MESSAGE_DELIVERY_TIME});
        if (listed) {
            ASSERT_EQ(sort(walked.get(), {{PR_IMPORTANCE, TABLE_SORT_ASCEND}}), S_OK);
        }
        const auto here = [&] {
            const Rows rows(walked.get(), 1);
            return rows.size() == 1 ? rows.value(0, 1).Value.ft.dwLowDateTime : 0;
        };
        ASSERT_EQ(walked->FindRow(&wanted, BOOKMARK_BEGINNING, 0), S_OK);
        EXPECT_EQ(here(), 1399u);
        ASSERT_EQ(walked->FindRow(&wanted, BOOKMARK_CURRENT, 0), S_OK);
        EXPECT_EQ(here(), 1799u);
        ASSERT_EQ(walked->FindRow(&wanted, BOOKMARK_END, DIR_BACKWARD), S_OK);
        EXPECT_EQ(here(), 2199u);
        EXPECT_EQ(walked->FindRow(&wanted, BOOKMARK_CURRENT, 0), MAPI_E_NOT_FOUND);
        ASSERT_EQ(walked->FindRow(&wanted, BOOKMARK_BEGINNING, 0), S_OK);
        EXPECT_EQ(walked->FindRow(&wanted, BOOKMARK_CURRENT, DIR_BACKWARD), MAPI_E_NOT_FOUND);
        EXPECT_EQ(here(), 1399u) << "a search that finds nothing leaves the position";
    }
}

TEST_F(MapiTable, RestrictsByEveryKind) {
    add(u"Alpha", 1000, 0);
    add(u"beta", 2000, 1);
    add(u"Gamma alpha", 3000, 2);
    Ptr<IMAPITable> walked = table();
    const auto shown = [&](SRestriction restriction) {
        EXPECT_EQ(walked->Restrict(&restriction, 0), S_OK);
        ULONG count = 0;
        EXPECT_EQ(walked->GetRowCount(0, &count), S_OK);
        auto list = read(walked.get());
        EXPECT_EQ(list.size(), count);
        return list;
    };
    const std::u16string alpha = u"alpha";
    SPropValue text = text_prop(PR_SUBJECT_W, alpha);
    SPropValue one = number_prop(PR_IMPORTANCE, 1);
    SRestriction content = {};
    content.rt = RES_CONTENT;
    content.res.resContent = {FL_SUBSTRING | FL_IGNORECASE, PR_SUBJECT_W, &text};
    EXPECT_THAT(shown(content), ElementsAre(u"Alpha", u"Gamma alpha"));
    content.res.resContent.ulFuzzyLevel = FL_SUBSTRING;
    EXPECT_THAT(shown(content), ElementsAre(u"Gamma alpha"));
    content.res.resContent.ulFuzzyLevel = FL_PREFIX | FL_IGNORECASE;
    EXPECT_THAT(shown(content), ElementsAre(u"Alpha"));
    content.res.resContent.ulFuzzyLevel = FL_FULLSTRING;
    EXPECT_THAT(shown(content), IsEmpty());
    EXPECT_THAT(shown(property(RELOP_GE, &one)), ElementsAre(u"beta", u"Gamma alpha"));
    EXPECT_THAT(shown(property(RELOP_NE, &one)), ElementsAre(u"Alpha", u"Gamma alpha"));
    SRestriction bits = {};
    bits.rt = RES_BITMASK;
    bits.res.resBitMask = {BMR_NEZ, PR_IMPORTANCE, 2};
    EXPECT_THAT(shown(bits), ElementsAre(u"Gamma alpha"));
    SRestriction size = {};
    size.rt = RES_SIZE;
    size.res.resSize = {RELOP_GT, PR_SUBJECT_W, 10};
    EXPECT_THAT(shown(size), ElementsAre(u"Gamma alpha"));
    SRestriction exist = {};
    exist.rt = RES_EXIST;
    exist.res.resExist.ulPropTag = PR_COMMENT_W;
    EXPECT_THAT(shown(exist), IsEmpty());
    SRestriction negated = {};
    negated.rt = RES_NOT;
    negated.res.resNot = {0, &exist};
    EXPECT_EQ(shown(negated).size(), 3u);
    SRestriction compared = {};
    compared.rt = RES_COMPAREPROPS;
    compared.res.resCompareProps = {RELOP_EQ, PR_SUBJECT_W, PR_SUBJECT_W};
    EXPECT_EQ(shown(compared).size(), 3u);
    SRestriction both[2] = {property(RELOP_GE, &one), bits};
    SRestriction joined = {};
    joined.rt = RES_OR;
    joined.res.resOr = {2, both};
    EXPECT_EQ(shown(joined).size(), 2u);
    joined.rt = RES_AND;
    joined.res.resAnd = {2, both};
    EXPECT_THAT(shown(joined), ElementsAre(u"Gamma alpha"));
    EXPECT_EQ(walked->Restrict(nullptr, 0), S_OK);
    EXPECT_EQ(read(walked.get()).size(), 3u);
    std::vector<SRestriction> deep(100);
    for (std::size_t i = 0; i < deep.size(); ++i) {
        deep[i].rt = RES_NOT;
        deep[i].res.resNot = {0, i + 1 < deep.size() ? &deep[i + 1] : &exist};
    }
    EXPECT_EQ(walked->Restrict(deep.data(), 0), MAPI_E_TOO_COMPLEX);
    SRestriction unknown = {};
    unknown.rt = 0x77;
    EXPECT_EQ(walked->Restrict(&unknown, 0), MAPI_E_TOO_COMPLEX);
}

TEST_F(MapiTable, SortsByAnyProperties) {
    add(u"b", 1000, 2);
    add(u"A", 2000, 1);
    add(u"c", 3000, 2);
    Ptr<IMAPITable> walked = table();
    ASSERT_EQ(sort(walked.get(), {{PR_SUBJECT_W, TABLE_SORT_ASCEND}}), S_OK);
    EXPECT_THAT(read(walked.get()), ElementsAre(u"A", u"b", u"c"));
    ASSERT_EQ(sort(walked.get(), {{PR_IMPORTANCE, TABLE_SORT_DESCEND}, {PR_SUBJECT_W, TABLE_SORT_DESCEND}}), S_OK);
    EXPECT_THAT(read(walked.get()), ElementsAre(u"c", u"b", u"A"));
    LPSSortOrderSet order = nullptr;
    ASSERT_EQ(walked->QuerySortOrder(&order), S_OK);
    EXPECT_EQ(order->cSorts, 2u);
    EXPECT_EQ(order->aSort[1].ulPropTag, PR_SUBJECT_W);
    MAPIFreeBuffer(order);
    SSortOrderSet categories = {1, 1, 0, {{PR_SUBJECT_W, 0}}};
    EXPECT_EQ(walked->SortTable(&categories, 0), MAPI_E_NO_SUPPORT);
    ASSERT_EQ(walked->SortTable(nullptr, 0), S_OK);
    EXPECT_THAT(read(walked.get()), ElementsAre(u"b", u"A", u"c"));
}

TEST_F(MapiTable, FindsWordsAndMessageIdentifiers) {
    Ptr<IMessage> made;
    ASSERT_EQ(folder_->CreateMessage(nullptr, 0, made.out()), S_OK);
    const std::u16string subject = u"Zugfahrt nach K\u00f6ln";
    const std::u16string body = u"Wir treffen uns am Bahnsteig neunundneunzig.";
    const std::u16string id = u"<1@example.org>";
    SPropValue values[] = {text_prop(PR_SUBJECT_W, subject), text_prop(PR_BODY_W, body),
                           text_prop(PR_INTERNET_MESSAGE_ID_W, id)};
    ASSERT_EQ(made->SetProps(3, values, nullptr), S_OK);
    ASSERT_EQ(made->SaveChanges(0), S_OK);
    const Bytes entry_id = id_of(made.get());
    Ptr<IZrMail> extras = mail_.extras();
    const auto find = [&](const char16_t* words) {
        Ptr<IMAPITable> found;
        EXPECT_EQ(extras->Find(words, found.out()), S_OK);
        EXPECT_EQ(columns(found.get(), {PR_SUBJECT_W}), S_OK);
        return read(found.get());
    };
    EXPECT_THAT(find(u"koln bahnsteig"), ElementsAre(subject));
    EXPECT_THAT(find(u"neunund*"), ElementsAre(subject));
    EXPECT_THAT(find(u"\"uns am\""), ElementsAre(subject));
    EXPECT_THAT(find(u"\"am uns\""), IsEmpty());
    EXPECT_THAT(find(u"zugfahrt OR"), IsEmpty()) << "no word means anything to the index";
    EXPECT_THAT(find(u"NEAR( ^zug -x:\" *"), IsEmpty());
    ASSERT_EQ(set(made.get(), text_prop(PR_BODY_W, u"anderes")), S_OK);
    ASSERT_EQ(made->SaveChanges(0), S_OK);
    EXPECT_THAT(find(u"bahnsteig"), IsEmpty());
    EXPECT_THAT(find(u"anderes zugfahrt"), ElementsAre(subject));
    Ptr<IMAPITable> all;
    ASSERT_EQ(extras->Find(nullptr, all.out()), S_OK);
    ASSERT_EQ(columns(all.get(), {PR_SUBJECT_W, PR_ENTRYID}), S_OK);
    SPropValue wanted = text_prop(PR_INTERNET_MESSAGE_ID_W, id);
    SRestriction restriction = property(RELOP_EQ, &wanted);
    ASSERT_EQ(all->Restrict(&restriction, 0), S_OK);
    {
        const Rows rows(all.get());
        ASSERT_EQ(rows.size(), 1u);
        EXPECT_EQ(rows.bytes(0, 1), entry_id);
    }
    ASSERT_EQ(folder_->DeleteMessages(EntryList({entry_id}), 0, nullptr, 0), S_OK);
    EXPECT_THAT(find(u"anderes"), IsEmpty());
}

}  // namespace
}  // namespace zr::test
