#include <algorithm>
#include <map>
#include <random>

#include "platform/base.h"
#include "session_support.h"
#include "support/child.h"

namespace {

using namespace zr::test;

std::u16string first_name_at(IPOutlookItemCollection& items, INT index) {
    Ptr<IContact> item;
    if (items.Item(index, item.dispatch()) != S_OK) return u"<no item>";
    return text(*item.get(), &IContact::get_FirstName);
}

std::u16string first_names(IPOutlookItemCollection& items) {
    std::u16string all;
    for (INT i = 1; i <= count(items); ++i) {
        all += first_name_at(items, i);
    }
    return all;
}

TEST(Collection, IndexesFromOneInIdentifierOrder) {
    TestSession session;
    const auto items = session.items();
    EXPECT_EQ(count(*items.get()), 0);
    session.add(u"a", u"");
    session.add(u"b", u"");
    EXPECT_EQ(first_names(*items.get()), u"ab");
    Ptr<IContact> none;
    for (const INT wrong : {0, -1, 3}) {
        EXPECT_EQ(items->Item(wrong, none.dispatch()), E_INVALIDARG);
        EXPECT_EQ(items->Remove(wrong), E_INVALIDARG);
    }
    EXPECT_EQ(items->Item(1, nullptr), E_POINTER);
    EXPECT_EQ(items->get_Count(nullptr), E_POINTER);
    EXPECT_EQ(items->Restrict(in(u"[FirstName] = \"a\""), nullptr), E_POINTER);
}

TEST(Collection, AddedItemsJoinWithTheirSave) {
    TestSession session;
    const auto items = session.items();
    Ptr<IContact> item;
    ASSERT_EQ(items->Add(item.dispatch()), S_OK);
    item->put_FirstName(in(u"x"));
    EXPECT_EQ(count(*items.get()), 0);
    ASSERT_EQ(item->Save(), S_OK);
    EXPECT_EQ(first_names(*items.get()), u"x");
}

TEST(Collection, ClosesUpOnRemoval) {
    TestSession session;
    const auto items = session.items();
    for (const WCHAR* name : {u"a", u"b", u"c", u"d"}) {
        session.add(name, u"");
    }
    ASSERT_EQ(items->Remove(2), S_OK);
    EXPECT_EQ(first_names(*items.get()), u"acd");
    ASSERT_EQ(items->Remove(1), S_OK);
    ASSERT_EQ(items->Remove(2), S_OK);
    EXPECT_EQ(first_names(*items.get()), u"c");
    session.add(u"e", u"");
    EXPECT_EQ(first_names(*items.get()), u"ec") << "the lowest identifier comes first again";
}

TEST(Collection, SortsIgnoringCase) {
    TestSession session;
    const auto items = session.items();
    for (const WCHAR* name : {u"b", u"C", u"a", u"B", u"\u00C4", u"\u00E4", u"\u0416"}) {
        session.add(name, u"");
    }
    ASSERT_EQ(items->Sort(in(u"[FirstName]"), FALSE), S_OK);
    EXPECT_EQ(first_names(*items.get()), u"abBC\u00C4\u00E4\u0416");
    ASSERT_EQ(items->Sort(in(u"[firstname]"), VARIANT_TRUE), S_OK);
    EXPECT_EQ(first_names(*items.get()), u"\u0416\u00C4\u00E4CbBa");
    for (const WCHAR* wrong : {u"[Nothing]", u"FirstName", u"[Subject]", u"", u"[]", u"["}) {
        EXPECT_EQ(items->Sort(in(wrong), FALSE), E_INVALIDARG);
    }
    EXPECT_EQ(items->Sort(nullptr, FALSE), E_INVALIDARG);
    EXPECT_EQ(first_names(*items.get()), u"\u0416\u00C4\u00E4CbBa") << "the order stays";
    for (const WCHAR* tag :
         {u"[Birthday]", u"[FileAs]", u"[Title]", u"[MiddleName]", u"[LastName]", u"[Suffix]", u"[CompanyName]",
          u"[Email1Address]", u"[Email2Address]", u"[Email3Address]", u"[Spouse]"}) {
        EXPECT_EQ(items->Sort(in(tag), FALSE), S_OK);
        EXPECT_EQ(count(*items.get()), 7);
    }
}

TEST(Collection, FindsByRestriction) {
    TestSession session;
    const auto items = session.items();
    for (const WCHAR* name : {u"ann", u"Bob", u"ANN", u"say \"hi\""}) {
        session.add(name, u"");
    }
    Ptr<IContact> item;
    EXPECT_EQ(items->FindNext(item.dispatch()), E_UNEXPECTED);
    ASSERT_EQ(items->Find(in(u"[FirstName] = \"Ann\""), item.dispatch()), S_OK);
    EXPECT_EQ(text(*item.get(), &IContact::get_FirstName), u"ann");
    ASSERT_EQ(items->FindNext(item.dispatch()), S_OK);
    EXPECT_EQ(text(*item.get(), &IContact::get_FirstName), u"ANN");
    EXPECT_EQ(items->FindNext(item.dispatch()), S_FALSE);
    EXPECT_FALSE(item);
    EXPECT_EQ(items->Find(in(u"[FirstName] = \"say \"hi\"\""), item.dispatch()), S_OK);
    EXPECT_EQ(items->Find(in(u"[FirstName]>'b'"), item.dispatch()), S_OK);
    EXPECT_EQ(text(*item.get(), &IContact::get_FirstName), u"Bob");
    EXPECT_EQ(items->Find(in(u"[FirstName] = \"nobody\""), item.dispatch()), S_FALSE);
    for (const WCHAR* wrong :
         {u"", u"[FirstName]", u"[FirstName] =", u"[FirstName] = x", u"[No] = \"x\"", u"= \"x\""}) {
        EXPECT_EQ(items->Find(in(wrong), item.dispatch()), E_INVALIDARG);
    }
}

TEST(Collection, RestrictsAndFollowsChanges) {
    TestSession session;
    const auto items = session.items();
    for (const WCHAR* name : {u"ann", u"Bob", u"ANN", u"or \"b\" and"}) {
        session.add(name, u"x");
    }
    const auto restricted = [&](const WCHAR* restriction) {
        Ptr<IPOutlookItemCollection> found;
        EXPECT_EQ(items->Restrict(in(restriction), found.out()), S_OK);
        return found;
    };
    const auto anns = restricted(u"[FirstName] = 'ann'");
    EXPECT_EQ(first_names(*anns.get()), u"annANN");
    EXPECT_EQ(first_names(*restricted(u"[FirstName] = \"bob\" or [LastName] = \"x\" AND [FirstName] = \"Ann\"").get()),
              u"annBobANN");
    EXPECT_EQ(first_names(*restricted(u"[FirstName] = \"or \"b\" and\"").get()), u"or \"b\" and");
    EXPECT_EQ(count(*restricted(u"[Birthday] < \"1/1/2000\"").get()), 0) << "none has one";
    EXPECT_EQ(count(*restricted(u"[Birthday] <> \"1/1/2000\"").get()), 4);
    EXPECT_EQ(count(*restricted(u"[LastName] = \"y\"").get()), 0);
    for (const WCHAR* wrong : {u"", u"[FirstName] = \"a\" AND", u"[FirstName] = \"a\" AND [No] = \"b\"",
                               u"[Birthday] = \"soon\"", u"[Birthday] = \"2024-02-30\""}) {
        Ptr<IPOutlookItemCollection> found;
        EXPECT_EQ(items->Restrict(in(wrong), found.out()), E_INVALIDARG);
        EXPECT_FALSE(found);
    }
    // Changes bring items in and take them out; positions, order and removal are those of the ones that are left.
    const auto bob = session.contact(2);
    bob->put_FirstName(in(u"Ann"));
    ASSERT_EQ(bob->Save(), S_OK);
    EXPECT_EQ(first_names(*anns.get()), u"annAnnANN");
    const auto first = session.contact(1);
    first->put_FirstName(in(u"Zoe"));
    ASSERT_EQ(first->Save(), S_OK);
    EXPECT_EQ(first_names(*anns.get()), u"AnnANN");
    ASSERT_EQ(anns->Remove(2), S_OK);
    EXPECT_EQ(first_names(*anns.get()), u"Ann");
    EXPECT_EQ(count(*items.get()), 3);
    session.add(u"ANn", u"a");
    EXPECT_EQ(first_names(*anns.get()), u"AnnANn") << "on the identifier that became free";
    ASSERT_EQ(anns->Sort(in(u"[LastName]"), FALSE), S_OK);
    EXPECT_EQ(first_names(*anns.get()), u"ANnAnn");
    Ptr<IPOutlookItemCollection> narrower;
    ASSERT_EQ(anns->Restrict(in(u"[LastName] = \"a\""), narrower.out()), S_OK);
    EXPECT_EQ(first_names(*narrower.get()), u"ANn");
}

// A plain model beside collections in several orders: whatever is done through whichever session, every collection
// shows the same.
struct Model {
    std::map<LONG, std::u16string> names;

    LONG lowest_free() const {
        LONG oid = 1;
        while (names.contains(oid)) {
            ++oid;
        }
        return oid;
    }
    std::vector<LONG> order(bool sorted, bool descending) const {
        std::vector<LONG> oids;
        for (const auto& [oid, name] : names) {
            oids.push_back(oid);
        }
        if (!sorted) return oids;
        std::stable_sort(oids.begin(), oids.end(), [&](LONG a, LONG b) {
            const int difference = _wcsicmp(names.at(a).c_str(), names.at(b).c_str());
            return descending ? difference > 0 : difference < 0;
        });
        return oids;
    }
};

void expect_order(IPOutlookItemCollection& items, const std::vector<LONG>& expected, const Model& model) {
    ASSERT_EQ(count(items), static_cast<INT>(expected.size()));
    for (std::size_t i = 0; i < expected.size(); ++i) {
        ASSERT_EQ(oid_at(items, static_cast<INT>(i) + 1), expected[i]);
        ASSERT_EQ(first_name_at(items, static_cast<INT>(i) + 1), model.names.at(expected[i]));
    }
}

TEST(Collection, AgreesWithAModelOverRandomOperations) {
    TestSession session;
    TestSession other;
    const auto plain = session.items();
    const auto sorted = other.items();
    const auto descending = session.items();
    ASSERT_EQ(sorted->Sort(in(u"[FirstName]"), FALSE), S_OK);
    ASSERT_EQ(descending->Sort(in(u"[FirstName]"), TRUE), S_OK);
    Model model;
    std::mt19937 random(4711);
    const auto name = [&] {
        std::u16string made(1 + random() % 2, u' ');
        for (WCHAR& c : made) {
            c = u"aAbB\u00E4\u00C4z"[random() % 7];
        }
        return made;
    };
    for (int step = 0; step < 400; ++step) {
        TestSession& actor = random() % 2 == 0 ? session : other;
        const auto size = static_cast<INT>(model.names.size());
        const auto action = static_cast<unsigned>(random() % 10);
        if (action < 5 || size == 0) {
            const std::u16string made = name();
            ASSERT_EQ(actor.add(made.c_str(), u""), model.lowest_free());
            model.names[model.lowest_free()] = made;
        } else if (action < 7) {
            auto& items = action == 5 ? *plain.get() : *sorted.get();
            const auto order = model.order(action == 6, false);
            const auto index = static_cast<std::size_t>(random()) % order.size();
            ASSERT_EQ(items.Remove(static_cast<INT>(index) + 1), S_OK);
            model.names.erase(order[index]);
        } else {
            const auto order = model.order(false, false);
            const LONG oid = order[static_cast<std::size_t>(random()) % order.size()];
            const auto item = actor.contact(oid);
            const std::u16string made = name();
            ASSERT_EQ(item->put_FirstName(in(made.c_str())), S_OK);
            ASSERT_EQ(item->Save(), S_OK);
            model.names[oid] = made;
        }
        if (step % 13 != 0) continue;
        expect_order(*plain.get(), model.order(false, false), model);
        expect_order(*sorted.get(), model.order(true, false), model);
        expect_order(*descending.get(), model.order(true, true), model);
        if (HasFatalFailure()) return;
    }
}

// Enough items that an order has many blocks.
TEST(Collection, LargeFoldersKeepTheirOrder) {
    TestSession session;
    const auto store = session.store();
    constexpr INT kCount = 3000;
    Model model;
    std::mt19937 random(99);
    ASSERT_EQ(store->BeginBatch(), S_OK);
    for (LONG oid = 1; oid <= kCount; ++oid) {
        const std::u16string name = {static_cast<WCHAR>(u'a' + random() % 26),
                                     static_cast<WCHAR>(u'A' + random() % 26)};
        ASSERT_EQ(session.add(name.c_str(), u"x"), oid);
        model.names[oid] = name;
    }
    ASSERT_EQ(store->CommitBatch(), S_OK);
    const auto sorted = session.items();
    ASSERT_EQ(sorted->Sort(in(u"[FirstName]"), FALSE), S_OK);
    const auto plain = session.items();
    ASSERT_EQ(count(*plain.get()), kCount);
    ASSERT_EQ(store->BeginBatch(), S_OK);
    for (int i = 0; i < 500; ++i) {
        const auto oid = static_cast<LONG>(1 + random() % kCount);
        const std::u16string name = {static_cast<WCHAR>(u'a' + random() % 26)};
        const auto item = session.contact(oid);
        item->put_FirstName(in(name.c_str()));
        ASSERT_EQ(item->Save(), S_OK);
        model.names[oid] = name;
    }
    ASSERT_EQ(store->CommitBatch(), S_OK);
    expect_order(*sorted.get(), model.order(true, false), model);
    auto order = model.order(true, false);
    for (int i = 0; i < 300; ++i) {
        const auto index = static_cast<std::size_t>(random()) % order.size();
        ASSERT_EQ(sorted->Remove(static_cast<INT>(index) + 1), S_OK);
        model.names.erase(order[index]);
        order.erase(order.begin() + static_cast<std::ptrdiff_t>(index));
        ASSERT_EQ(oid_at(*plain.get(), 1), model.names.begin()->first);
    }
    expect_order(*sorted.get(), model.order(true, false), model);
    expect_order(*plain.get(), model.order(false, false), model);
}

TEST(Batch, IsAllOrNothing) {
    TestSession session;
    TestSession other;
    const auto store = session.store();
    const auto items = other.items();
    const auto own = session.items();
    EXPECT_EQ(store->CommitBatch(), E_UNEXPECTED);
    EXPECT_EQ(store->RollbackBatch(), E_UNEXPECTED);
    const LONG kept = session.add(u"k", u"");
    ASSERT_EQ(store->BeginBatch(), S_OK);
    EXPECT_EQ(store->BeginBatch(), E_UNEXPECTED);
    const auto fresh = session.fresh();
    fresh->put_FirstName(in(u"f"));
    ASSERT_EQ(fresh->Save(), S_OK);
    LONG oid = 0;
    fresh->get_Oid(&oid);
    EXPECT_EQ(oid, 2);
    EXPECT_EQ(text(*fresh.get(), &IContact::get_FirstName), u"f");
    EXPECT_EQ(text(*fresh.get(), &IContact::get_FileAs), u"f");
    EXPECT_EQ(text(*fresh.get(), &IContact::get_LastName), u"");
    const auto changed = session.contact(kept);
    changed->put_FirstName(in(u"c"));
    ASSERT_EQ(changed->Save(), S_OK);
    EXPECT_EQ(first_names(*items.get()), u"k");
    EXPECT_EQ(first_names(*own.get()), u"k");
    const auto blocked = other.fresh();
    EXPECT_EQ(blocked->Save(), HRESULT_FROM_WIN32(ERROR_BUSY));
    ASSERT_EQ(store->RollbackBatch(), S_OK);
    fresh->get_Oid(&oid);
    EXPECT_EQ(oid, 0) << "not saved after all";
    EXPECT_EQ(text(*changed.get(), &IContact::get_FirstName), u"c");
    EXPECT_EQ(first_names(*items.get()), u"k");
    ASSERT_EQ(store->BeginBatch(), S_OK);
    ASSERT_EQ(fresh->Save(), S_OK);
    ASSERT_EQ(changed->Save(), S_OK);
    ASSERT_EQ(store->CommitBatch(), S_OK);
    EXPECT_EQ(first_names(*items.get()), u"cf");
    fresh->get_Oid(&oid);
    EXPECT_EQ(oid, 2);
    fresh->put_LastName(in(u"l"));
    ASSERT_EQ(fresh->Save(), S_OK);
    EXPECT_EQ(text(*fresh.get(), &IContact::get_FileAs), u"l, f");
    ASSERT_EQ(store->BeginBatch(), S_OK);
    ASSERT_EQ(fresh->Delete(), S_OK);
    session.app->Logoff();
    EXPECT_EQ(first_names(*items.get()), u"cf") << "Logoff rolls back";
}

ZR_CHILD(change_on_command) {
    TestSession session;
    say("ready");
    for (std::string command = hear(); !command.empty(); command = hear()) {
        if (command == "add") session.add(u"x", u"remote");
        if (command == "change") {
            const auto item = session.contact(1);
            item->put_FirstName(in(u"changed"));
            item->Save();
        }
        if (command == "remove") session.items()->Remove(1);
        if (command == "many") {
            for (int i = 0; i < 100; ++i) {
                session.add(u"m", u"remote");
            }
        }
        say("done");
    }
    return 0;
}

// Everything that another process committed before a call is seen by that call, cached or not.
TEST(Freshness, OtherProcessesChangesAreSeenAtOnce) {
    TestSession session;
    const auto items = session.items();
    session.add(u"a", u"b");
    Child child("change_on_command");
    ASSERT_EQ(child.hear(), "ready");
    const auto run = [&](const char* command) {
        child.say(command);
        ASSERT_EQ(child.hear(), "done");
    };
    for (int round = 0; round < 20; ++round) {
        const INT before = count(*items.get());
        EXPECT_NE(first_name_at(*items.get(), 1), u"changed");
        run("change");
        EXPECT_EQ(first_name_at(*items.get(), 1), u"changed");
        EXPECT_EQ(text(*session.contact(1).get(), &IContact::get_FirstName), u"changed");
        run("add");
        EXPECT_EQ(count(*items.get()), before + 1);
        EXPECT_EQ(first_name_at(*items.get(), before + 1), u"x");
        const auto item = session.contact(1);
        run("remove");
        EXPECT_EQ(count(*items.get()), before);
        Ptr<IContact> gone;
        EXPECT_EQ(session.app->GetItemFromOid(1, gone.dispatch()), HRESULT_FROM_WIN32(ERROR_NOT_FOUND));
        run("add");
        EXPECT_EQ(first_name_at(*items.get(), 1), u"x");
    }
    run("many");
    EXPECT_EQ(count(*items.get()), 121);
    child.say("");
    EXPECT_EQ(child.wait(), 0);
}

}  // namespace
