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

}  // namespace
