// Collections while others change the store: each shows one moment.

#include <algorithm>
#include <map>
#include <random>
#include <sstream>
#include <thread>

#include "calendar_support.h"
#include "session_support.h"
#include "support/child.h"

namespace {

using namespace zr::test;

std::u16string wide(const std::string& ascii) {
    return std::u16string(ascii.begin(), ascii.end());
}

void rename(const TestSession& session, LONG oid, const WCHAR* name) {
    const auto item = session.contact(oid);
    ASSERT_EQ(item->put_FirstName(in(name)), S_OK);
    ASSERT_EQ(item->Save(), S_OK);
}

void remove(const TestSession& session, LONG oid) {
    Ptr<IDispatch> item;
    ASSERT_EQ(session.app->GetItemFromOid(oid, item.out()), S_OK);
    Ptr<IItem> face;
    ASSERT_EQ(item->QueryInterface(IID_IItem, face.any()), S_OK);
    ASSERT_EQ(face->Delete(), S_OK);
}

// Another program: "add NAME", "remove OID", "rename OID NAME", "fill COUNT", each answered when it is done.
ZR_CHILD(somebody_else) {
    const TestSession session;
    say("ready");
    for (std::string line = hear(); !line.empty(); line = hear()) {
        std::istringstream words(line);
        std::string command;
        std::string name;
        LONG number = 0;
        words >> command;
        if (command != "add") words >> number;
        words >> name;
        if (command == "add") session.add(wide(name).c_str(), u"");
        if (command == "remove") remove(session, number);
        if (command == "rename") rename(session, number, wide(name).c_str());
        if (command == "fill") {
            const auto store = session.store();
            store->BeginBatch();
            for (LONG i = 0; i < number; ++i) {
                session.add(u"filler", u"");
            }
            store->CommitBatch();
        }
        say("done");
    }
    return testing::Test::HasFailure() ? 1 : 0;
}

class Moment : public testing::Test {
protected:
    Moment() : child_("somebody_else") { EXPECT_EQ(child_.hear(), "ready"); }
    ~Moment() override {
        child_.say("");
        EXPECT_EQ(child_.wait(), 0);
    }
    // Done by another program.
    void elsewhere(const std::string& command) {
        child_.say(command);
        ASSERT_EQ(child_.hear(), "done");
    }
    void add(const WCHAR* names) {
        for (; *names != 0; ++names) {
            session_.add(std::u16string(1, *names).c_str(), u"last", u"x@y");
        }
    }

    TestSession session_;
    Child child_;
};

// Who stands where, "1a" for each; somebody without a name has left.
std::string shown(IPOutlookItemCollection& items, INT size) {
    std::string all;
    for (INT i = 1; i <= size; ++i) {
        Ptr<IContact> item;
        LONG oid = 0;
        if (items.Item(i, item.dispatch()) != S_OK || item->get_Oid(&oid) != S_OK) return all + "<failure>";
        const std::u16string name = text(*item.get(), &IContact::get_FirstName);
        all += std::to_string(oid) + std::string(name.begin(), name.end()) + " ";
    }
    Ptr<IContact> none;
    EXPECT_EQ(items.Item(size + 1, none.dispatch()), E_INVALIDARG);
    return all;
}

std::string shown(IPOutlookItemCollection& items) {
    return shown(items, count(items));
}

bool has_left(IContact& item) {
    Ptr<IZrItem> face;
    EXPECT_EQ(item.QueryInterface(IID_IZrItem, face.any()), S_OK);
    EXPECT_EQ(face->get_HasLeft(nullptr), E_POINTER);
    return got(*face.get(), &IZrItem::get_HasLeft) != VARIANT_FALSE;
}

TEST_F(Moment, AWalkMeetsEverybodyWhoWasThere) {
    add(u"abcde");
    const auto items = session_.items();
    const INT size = count(*items.get());
    EXPECT_EQ(shown(*items.get(), size), "1a 2b 3c 4d 5e ");
    elsewhere("remove 2");
    elsewhere("remove 4");
    elsewhere("add new");
    EXPECT_EQ(shown(*items.get(), size), "1a 2 3c 4 5e ");
    EXPECT_EQ(shown(*items.get()), "1a 2new 3c 5e ");
}

TEST_F(Moment, BeginsWithTheCollection) {
    add(u"abc");
    const auto items = session_.items();
    elsewhere("remove 1");
    EXPECT_EQ(shown(*items.get(), 3), "1 2b 3c ");
    EXPECT_EQ(shown(*session_.items().get(), 2), "2b 3c ");
    EXPECT_EQ(count(*items.get()), 2);
}

TEST_F(Moment, SomebodyWhoLeftHasNoFieldsAndCannotBeChanged) {
    add(u"abc");
    const auto items = session_.items();
    Ptr<IContact> before;
    ASSERT_EQ(items->Item(2, before.dispatch()), S_OK);
    EXPECT_EQ(text(*before.get(), &IContact::get_FirstName), u"b");
    elsewhere("remove 2");
    EXPECT_FALSE(has_left(*before.get())) << "what was read of it is what was there";
    Ptr<IContact> after;
    ASSERT_EQ(items->Item(2, after.dispatch()), S_OK);
    elsewhere("add new");
    EXPECT_EQ(text(*before.get(), &IContact::get_FirstName), u"b") << "as it was read";
    for (IContact* item : {before.get(), after.get()}) {
        LONG oid = 0;
        EXPECT_EQ(item->get_Oid(&oid), S_OK);
        EXPECT_EQ(oid, 2);
        EXPECT_EQ(text(*item, &IContact::get_Department), u"");
        EXPECT_EQ(got(*item, &IContact::get_Birthday), ZR_PIM_NO_DATE);
        EXPECT_EQ(got(*item, &IContact::get_Anniversary), ZR_PIM_NO_DATE);
        EXPECT_TRUE(has_left(*item));
    }
    for (const auto field : {&IContact::get_FirstName, &IContact::get_FileAs, &IContact::get_Email1Address}) {
        EXPECT_EQ(text(*after.get(), field), u"");
    }
    Ptr<IItem> face;
    ASSERT_EQ(after->QueryInterface(IID_IItem, face.any()), S_OK);
    CEPROPID id = PIMPR_SOURCE_ID;
    CEPROPVAL value = {};
    CEPROPVAL* values = &value;
    ULONG size = sizeof value;
    EXPECT_EQ(face->GetProps(&id, 0, 1, &values, &size, nullptr), S_OK);
    EXPECT_EQ(value.wFlags, CEDB_PROPNOTFOUND);
    EXPECT_EQ(after->put_FirstName(in(u"x")), S_OK);
    EXPECT_EQ(after->Save(), kNotFound);
    EXPECT_EQ(after->Delete(), kNotFound);
    Ptr<IContact> copy;
    EXPECT_EQ(after->Copy(copy.out()), kNotFound);
    EXPECT_FALSE(copy);
    EXPECT_EQ(shown(*items.get()), "1a 2new 3c ") << "whose identifier it is now";
}

// What is left to read of somebody who was handed out and left only then.
TEST_F(Moment, SomebodyWhoLeavesInTheMiddleIsReadToTheEnd) {
    add(u"ab");
    const auto items = session_.items();
    Ptr<IContact> held;
    ASSERT_EQ(items->Item(1, held.dispatch()), S_OK);
    elsewhere("remove 1");
    EXPECT_EQ(text(*held.get(), &IContact::get_Email1Address), u"");
    EXPECT_EQ(text(*held.get(), &IContact::get_Spouse), u"");
    const auto fetched = session_.contact(2);
    elsewhere("remove 2");
    BSTR none = nullptr;
    EXPECT_EQ(fetched->get_Spouse(&none), kNotFound) << "by its identifier";
}

// The identifier of somebody who was deleted is the next one's.
TEST_F(Moment, AnItemInHandNeverBecomesSomebodyElse) {
    add(u"ab");
    const auto held = session_.contact(1);
    const auto changed = session_.contact(1);
    const auto listed = session_.items();
    EXPECT_EQ(text(*held.get(), &IContact::get_FirstName), u"a");
    ASSERT_EQ(changed->put_LastName(in(u"changed")), S_OK);
    Ptr<IContact> from_list;
    ASSERT_EQ(listed->Item(1, from_list.dispatch()), S_OK);
    elsewhere("remove 1");
    elsewhere("add new");
    EXPECT_EQ(text(*held.get(), &IContact::get_FirstName), u"a");
    BSTR none = nullptr;
    EXPECT_EQ(held->get_Spouse(&none), kNotFound);
    EXPECT_EQ(changed->Save(), kNotFound);
    EXPECT_EQ(held->Delete(), kNotFound);
    EXPECT_EQ(from_list->Delete(), kNotFound);
    Ptr<IContact> copy;
    EXPECT_EQ(changed->Copy(copy.out()), kNotFound);
    const auto fresh = session_.contact(1);
    EXPECT_EQ(text(*fresh.get(), &IContact::get_FileAs), u"new");
    EXPECT_EQ(fresh->Delete(), S_OK);
}

TEST_F(Moment, RemovingSomebodyWhoLeftClosesUpAndHarmsNobodyElse) {
    add(u"abcd");
    const auto items = session_.items();
    const auto never_looked_at = session_.items();
    ASSERT_EQ(count(*items.get()), 4);
    elsewhere("remove 2");
    elsewhere("add new");
    EXPECT_EQ(items->Remove(2), S_OK);
    EXPECT_EQ(shown(*items.get(), 3), "1a 3c 4d ");
    EXPECT_EQ(items->Remove(2), S_OK);
    EXPECT_EQ(shown(*items.get(), 2), "1a 4d ");
    EXPECT_EQ(shown(*items.get()), "1a 2new 4d ");
    // In a batch as well; what the batch itself removed is still shown.
    const auto fresh = session_.items();
    ASSERT_EQ(count(*fresh.get()), 3);
    elsewhere("remove 1");
    const auto store = session_.store();
    ASSERT_EQ(store->BeginBatch(), S_OK);
    EXPECT_EQ(fresh->Remove(1), S_OK);
    EXPECT_EQ(fresh->Remove(1), S_OK);
    EXPECT_EQ(fresh->Remove(1), kNotFound);
    EXPECT_EQ(shown(*fresh.get(), 2), "2new 4d ");
    ASSERT_EQ(store->CommitBatch(), S_OK);
    EXPECT_EQ(shown(*fresh.get(), 1), "4d ");
    elsewhere("add other");
    EXPECT_EQ(never_looked_at->Remove(1), S_OK) << "who is there now";
    EXPECT_EQ(shown(*fresh.get()), "4d ");
}

TEST_F(Moment, WhatTheThreadItselfDoesIsFollowed) {
    add(u"abcd");
    const auto items = session_.items();
    const auto sorted = session_.items();
    ASSERT_EQ(sorted->Sort(in(u"[FirstName]"), VARIANT_TRUE), S_OK);
    elsewhere("remove 4");
    elsewhere("rename 1 z");
    elsewhere("add y");
    remove(session_, 2);
    EXPECT_EQ(shown(*items.get(), 3), "1z 3c 4 ");
    EXPECT_EQ(shown(*sorted.get(), 3), "4 3c 1z ") << "where it was";
    EXPECT_EQ(session_.add(u"b", u""), 2);
    rename(session_, 3, u"a");
    EXPECT_EQ(shown(*items.get(), 4), "1z 2b 3a 4 ");
    EXPECT_EQ(shown(*sorted.get(), 4), "4 2b 1z 3a ");
    rename(session_, 4, u"w");
    EXPECT_EQ(shown(*items.get(), 4), "1z 2b 3a 4w ") << "who was saved is there";
    EXPECT_EQ(shown(*sorted.get(), 4), "4w 2b 1z 3a ");
    EXPECT_EQ(shown(*sorted.get()), "1z 4w 2b 3a ");
}

TEST_F(Moment, AnotherThreadIsSomebodyElse) {
    add(u"abcd");
    const auto items = session_.items();
    std::thread([] {
        const TestSession other;
        remove(other, 2);
        other.add(u"n", u"");
        remove(other, 3);
    }).join();
    remove(session_, 4);
    EXPECT_EQ(shown(*items.get(), 3), "1a 2 3 ");
    EXPECT_EQ(shown(*items.get()), "1a 2n ");
}

TEST_F(Moment, ASearchGoesOnBehindWhomItFound) {
    add(u"xxaxbx");
    const auto items = session_.items();
    Ptr<IContact> item;
    ASSERT_EQ(items->Find(in(u"[FirstName] = \"x\""), item.dispatch()), S_OK);
    std::string found;
    for (HRESULT result = S_OK; result == S_OK; result = items->FindNext(item.dispatch())) {
        LONG oid = 0;
        item->get_Oid(&oid);
        found += std::to_string(oid);
        if (oid == 2) elsewhere("remove 4");
        if (oid == 2) elsewhere("add x");
        if (oid >= 4) continue;
        EXPECT_EQ(item->Delete(), S_OK);
    }
    EXPECT_EQ(found, "126") << "each once, whatever was deleted";
    EXPECT_EQ(items->FindNext(item.dispatch()), S_FALSE);
    EXPECT_EQ(shown(*items.get()), "1x 3a 5b 6x ");
}

TEST_F(Moment, OutlivesMoreChangesThanAreKept) {
    add(u"abcd");
    const auto items = session_.items();
    elsewhere("fill 9000");
    elsewhere("remove 3");
    EXPECT_EQ(shown(*items.get(), 4), "1a 2b 3 4d ");
    EXPECT_EQ(items->Remove(3), S_OK);
    EXPECT_EQ(shown(*items.get(), 3), "1a 2b 4d ");
    elsewhere("fill 9000");
    rename(session_, 4, u"e");
    EXPECT_EQ(count(*items.get()), 18003);
    EXPECT_EQ(items->Remove(4), S_OK);
    EXPECT_EQ(count(*items.get()), 18002);
}

TEST_F(Moment, HoldsForOccurrencesToo) {
    const auto save = [&](DATE start, bool series, const WCHAR* subject) {
        const auto item = fresh_appointment(session_, start, 60, subject);
        EXPECT_EQ(pattern_of(*item.get())->put_RecurrenceType(series ? olRecursDaily : olRecursOnce), S_OK);
        EXPECT_EQ(item->Save(), S_OK);
        LONG oid = 0;
        EXPECT_EQ(item->get_Oid(&oid), S_OK);
        return oid;
    };
    const LONG single = save(at(2024, 6, 3, 8), false, u"s");
    const LONG daily = save(at(2024, 6, 3, 9), true, u"d");
    const LONG later = save(at(2024, 6, 4, 10), false, u"l");
    const auto items = session_.items(olFolderCalendar);
    ASSERT_EQ(items->put_IncludeRecurrences(VARIANT_TRUE), S_OK);
    Ptr<IPOutlookItemCollection> days;
    ASSERT_EQ(items->Restrict(in(u"[Start] < \"2024-06-06\""), days.out()), S_OK);
    const auto subjects = [&](INT size) {
        std::string all;
        for (INT i = 1; i <= size; ++i) {
            Ptr<IAppointment> item;
            EXPECT_EQ(days->Item(i, item.dispatch()), S_OK) << i;
            if (!item) return all;
            const std::u16string subject = text(*item.get(), &IAppointment::get_Subject);
            all += subject.empty() ? "-" : std::string(subject.begin(), subject.end());
            EXPECT_EQ(got(*item.get(), &IAppointment::get_Start) == ZR_PIM_NO_DATE, subject.empty());
        }
        return all;
    };
    ASSERT_EQ(count(*days.get()), 5);
    EXPECT_EQ(subjects(5), "sddld");
    elsewhere("remove " + std::to_string(daily));
    EXPECT_EQ(subjects(5), "s--l-");
    elsewhere("remove " + std::to_string(single));
    EXPECT_EQ(days->Remove(2), S_OK);
    EXPECT_EQ(subjects(4), "--l-");
    remove(session_, later);
    EXPECT_EQ(subjects(3), "---");
    EXPECT_EQ(count(*days.get()), 0);
}

// --- a model --------------------------------------------------------------------------------------------------------

struct Person {
    int number = 0;  // never used again, as an identifier is
    std::u16string name;
};

// A collection as it has to be: who was there at its moment, in its order.
struct Shown {
    struct Member {
        LONG oid;
        int number;
        std::u16string key;
    };
    enum class Kind { Plain, Sorted, Descending, Restricted };

    Kind kind;
    Ptr<IPOutlookItemCollection> items;
    std::vector<Member> members = {};

    bool takes(const Person& person) const { return kind != Kind::Restricted || person.name < u"m"; }
    void erase(LONG oid) {
        std::erase_if(members, [oid](const Member& each) { return each.oid == oid; });
    }
    void put(LONG oid, const Person& person) {
        erase(oid);
        if (!takes(person)) return;
        const bool keyed = kind == Kind::Sorted || kind == Kind::Descending;
        members.push_back({oid, person.number, keyed ? person.name : std::u16string()});
        std::sort(members.begin(), members.end(), [this](const Member& a, const Member& b) {
            if (a.key != b.key) return (a.key < b.key) != (kind == Kind::Descending);
            return a.oid < b.oid;
        });
    }
    void refresh(const std::map<LONG, Person>& people) {
        members.clear();
        for (const auto& [oid, person] : people) {
            put(oid, person);
        }
    }
};

class MomentModel : public Moment {
protected:
    using Kind = Shown::Kind;

    MomentModel() {
        for (const Kind kind : {Kind::Plain, Kind::Sorted, Kind::Descending, Kind::Restricted}) {
            auto items = session_.items();
            if (kind == Kind::Sorted || kind == Kind::Descending) {
                const VARIANT_BOOL descending = kind == Kind::Descending ? VARIANT_TRUE : VARIANT_FALSE;
                EXPECT_EQ(items->Sort(in(u"[FirstName]"), descending), S_OK);
            }
            if (kind == Kind::Restricted) {
                Ptr<IPOutlookItemCollection> some;
                EXPECT_EQ(items->Restrict(in(u"[FirstName] < \"m\""), some.out()), S_OK);
                items = std::move(some);
                EXPECT_EQ(count(*items.get()), 0);
            }
            collections_.push_back({kind, std::move(items)});
        }
    }

    unsigned any(std::size_t below) { return static_cast<unsigned>(random_() % below); }
    std::u16string any_name() { return {static_cast<WCHAR>(u'a' + any(26)), static_cast<WCHAR>(u'a' + any(26))}; }
    LONG any_oid() { return std::next(people_.begin(), any(people_.size()))->first; }
    bool alive(const Shown::Member& member) const {
        const auto found = people_.find(member.oid);
        return found != people_.end() && found->second.number == member.number;
    }

    void save_here(LONG oid) {
        for (Shown& each : collections_) {
            each.put(oid, people_[oid]);
        }
    }
    void remove_here(LONG oid) {
        for (Shown& each : collections_) {
            std::erase_if(each.members, [&](const auto& member) { return member.oid == oid && alive(member); });
        }
        people_.erase(oid);
    }

    void change_here() {
        change_something_here();
        // The change is followed with the next call, by what the store holds then.
        for (const Shown& each : collections_) {
            Ptr<IContact> none;
            EXPECT_EQ(each.items->Item(0, none.dispatch()), E_INVALIDARG);
        }
    }
    void change_something_here() {
        const unsigned action = any(4);
        if (action == 0 || people_.size() < 20) {
            const std::u16string name = any_name();
            const LONG oid = session_.add(name.c_str(), u"");
            people_[oid] = {++last_number_, name};
            save_here(oid);
        } else if (action == 1) {
            const LONG oid = any_oid();
            people_[oid].name = any_name();
            rename(session_, oid, people_[oid].name.c_str());
            save_here(oid);
        } else if (action == 2) {
            const LONG oid = any_oid();
            remove(session_, oid);
            remove_here(oid);
        } else {
            Shown& from = collections_[any(collections_.size())];
            if (from.members.empty()) return;
            const unsigned place = any(from.members.size());
            ASSERT_EQ(from.items->Remove(static_cast<INT>(place) + 1), S_OK);
            const Shown::Member member = from.members[place];
            if (alive(member)) {
                remove_here(member.oid);
            } else {
                from.erase(member.oid);
            }
        }
    }
    void change_elsewhere() {
        const unsigned action = any(3);
        const std::u16string name = any_name();
        const std::string ascii(name.begin(), name.end());
        if (action == 0 || people_.size() < 20) {
            LONG oid = 1;
            while (people_.contains(oid)) {
                ++oid;
            }
            elsewhere("add " + ascii);
            people_[oid] = {++last_number_, name};
        } else {
            const LONG oid = any_oid();
            elsewhere(action == 1 ? "rename " + std::to_string(oid) + " " + ascii : "remove " + std::to_string(oid));
            if (action == 1) people_[oid].name = name;
            if (action == 2) people_.erase(oid);
        }
    }
    void check(const Shown& shown) {
        Ptr<IContact> item;
        ASSERT_EQ(shown.items->Item(static_cast<INT>(shown.members.size()) + 1, item.dispatch()), E_INVALIDARG);
        for (std::size_t i = 0; i < shown.members.size(); ++i) {
            ASSERT_EQ(shown.items->Item(static_cast<INT>(i) + 1, item.dispatch()), S_OK);
            LONG oid = 0;
            ASSERT_EQ(item->get_Oid(&oid), S_OK);
            ASSERT_EQ(oid, shown.members[i].oid) << "at " << i;
            ASSERT_EQ(text(*item.get(), &IContact::get_FirstName),
                      alive(shown.members[i]) ? people_[oid].name : std::u16string())
                << "at " << i;
        }
    }

    std::mt19937 random_{20240603};
    std::map<LONG, Person> people_;
    std::vector<Shown> collections_;
    int last_number_ = 0;
};

TEST_F(MomentModel, AgreesOverRandomChangesHereAndElsewhere) {
    for (int step = 0; step < 1500 && !HasFatalFailure(); ++step) {
        const unsigned action = any(10);
        if (action < 4) {
            change_here();
        } else if (action < 8) {
            change_elsewhere();
        } else {
            Shown& one = collections_[any(collections_.size())];
            if (action == 9) {
                one.refresh(people_);
                ASSERT_EQ(count(*one.items.get()), static_cast<INT>(one.members.size()));
            }
            check(one);
        }
        ASSERT_FALSE(HasFatalFailure()) << "step " << step;
    }
    for (const Shown& each : collections_) {
        check(each);
    }
}

// --- two programs at full speed -------------------------------------------------------------------------------------

constexpr LONG kStaying = 200;

// Removes contacts whose last name is "goes" and adds others, until it is killed.
ZR_CHILD(restless) {
    const TestSession session;
    const auto items = session.items();
    std::vector<LONG> own;
    for (INT i = 1, size = count(*items.get()); i <= size; ++i) {
        Ptr<IContact> item;
        if (items->Item(i, item.dispatch()) != S_OK) return 1;
        LONG oid = 0;
        item->get_Oid(&oid);
        if (text(*item.get(), &IContact::get_LastName) == u"goes") own.push_back(oid);
    }
    std::mt19937 random(5);
    say("ready");
    for (;;) {
        LONG& oid = own[static_cast<std::size_t>(random()) % own.size()];
        remove(session, oid);
        oid = session.add(std::u16string(1, static_cast<WCHAR>(u'a' + random() % 26)).c_str(), u"goes", u"g@x");
    }
}

// Walks a collection once: everybody who stays has to be met once, with the name they have. True: somebody left
// meanwhile.
bool walk_among_changes(IPOutlookItemCollection& items) {
    const INT size = count(items);
    std::vector<int> met(2 * kStaying + 1);
    bool anybody_left = false;
    for (INT i = 1; i <= size; ++i) {
        Ptr<IContact> item;
        EXPECT_EQ(items.Item(i, item.dispatch()), S_OK);
        if (!item) return false;
        LONG oid = 0;
        EXPECT_EQ(item->get_Oid(&oid), S_OK);
        const std::u16string last = text(*item.get(), &IContact::get_LastName);
        EXPECT_NE(text(*item.get(), &IContact::get_Email2Address), u"<failure>");
        EXPECT_NE(text(*item.get(), &IContact::get_Spouse), u"<failure>");
        EXPECT_TRUE(last == u"stays" || last == u"goes" || last == u"") << i;
        anybody_left = anybody_left || last.empty();
        if (last == u"stays") ++met[static_cast<std::size_t>(oid)];
    }
    EXPECT_EQ(std::count(met.begin(), met.end(), 1), kStaying);
    EXPECT_EQ(std::count(met.begin(), met.end(), 0), kStaying + 1);
    return anybody_left;
}

TEST(MomentAtSpeed, NobodyWhoStaysIsMissed) {
    const TestSession session;
    const auto store = session.store();
    ASSERT_EQ(store->BeginBatch(), S_OK);
    for (LONG i = 0; i < kStaying; ++i) {
        session.add(std::u16string(1, static_cast<WCHAR>(u'a' + i % 26)).c_str(), u"goes", u"g@x");
        session.add(std::u16string(1, static_cast<WCHAR>(u'a' + i % 25)).c_str(), u"stays", u"s@x");
    }
    ASSERT_EQ(store->CommitBatch(), S_OK);
    const auto plain = session.items();
    const auto sorted = session.items();
    ASSERT_EQ(sorted->Sort(in(u"[FirstName]"), VARIANT_FALSE), S_OK);
    Ptr<IPOutlookItemCollection> restricted;
    ASSERT_EQ(plain->Restrict(in(u"[Email1Address] <> \"nobody@x\""), restricted.out()), S_OK);
    Child child("restless");
    ASSERT_EQ(child.hear(), "ready");
    // Until each has been walked often while somebody left.
    for (IPOutlookItemCollection* items : {plain.get(), sorted.get(), restricted.get()}) {
        for (int disturbed = 0; disturbed < 20 && !testing::Test::HasFailure();) {
            if (walk_among_changes(*items)) ++disturbed;
        }
    }
}

}  // namespace
