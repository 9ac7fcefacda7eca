#include "zr/stores/calendar.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include "support/sandbox.h"

namespace {

TEST(CalendarStore, OneItemThatIsRefusedStopsNoOther) {
    const zr::test::TempFolder folder;
    setenv("ZR_HOME", folder.host().c_str(), 1);
    zr::CalendarStore store;
    zr::Event good;
    good.subject = "good";
    good.start = good.end = zr::Moment(std::chrono::local_days(std::chrono::year(2026) / 1 / 5));
    zr::Event bad = good;
    bad.subject = "bad";
    bad.pattern = zr::Pattern();
    bad.pattern->interval = -1;
    zr::Task task;
    task.subject = "task";
    const std::vector<zr::Refused> refused = store.add({good, bad, good}, {task});
    ASSERT_EQ(refused.size(), 1u);
    EXPECT_EQ(refused[0].index, 1u);
    EXPECT_NE(refused[0].why, "");
    EXPECT_EQ(store.appointments(), 2);
    EXPECT_EQ(store.tasks(), 1);
}

TEST(CalendarStore, AnItemWithoutAnIdentifierKeepsTheOneThatItIsKnownBy) {
    const zr::test::TempFolder folder;
    setenv("ZR_HOME", folder.host().c_str(), 1);
    zr::CalendarStore store;
    zr::Event event;
    event.subject = "before";
    event.start = event.end = zr::Moment(std::chrono::local_days(std::chrono::year(2026) / 1 / 5));
    std::vector<LONG> oids = {0};
    ASSERT_TRUE(store.put({event}, {}, oids).empty());
    const auto item = store.appointment(oids[0]);
    const std::string uid = zr::uid_of(item.get());
    std::u16string other = u"behind";
    ASSERT_EQ(item->put_Subject(other.data()), S_OK);
    ASSERT_EQ(item->put_Start(46000), S_OK);
    ASSERT_EQ(item->Save(), S_OK);
    EXPECT_EQ(zr::uid_of(store.appointment(oids[0]).get()), uid);
    EXPECT_EQ(zr::find_items(store, uid), oids);

    ASSERT_EQ(item->Delete(), S_OK);
    std::vector<LONG> again = {0};
    ASSERT_TRUE(store.put({event}, {}, again).empty());
    ASSERT_EQ(again, oids) << "numbers are handed out again";
    EXPECT_NE(zr::uid_of(store.appointment(again[0]).get()), uid);
    EXPECT_TRUE(zr::find_items(store, uid).empty());
}

}  // namespace
