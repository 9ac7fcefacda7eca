// When a store's memory is read anew, and when a change of its own is put there instead.

#include "store/shared_store.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/sandbox.h"

namespace {

using zr::platform::Connection;
using zr::platform::SharedStore;
using zr::platform::StoreFamily;
using zr::platform::StoreKind;
using zr::platform::StoreWriting;
using zr::platform::Use;

constexpr const char* kSteps[] = {
    "CREATE TABLE change(seq INTEGER PRIMARY KEY, origin INTEGER NOT NULL);"
    "INSERT INTO change SELECT " ZR_STORE_FIRST_SEQ
    ", 0;"
    "PRAGMA application_id = 1517441617;",
};

DWORD mend(Connection&) {
    return ERROR_SUCCESS;
}

constexpr StoreKind kCounting = {"counting",    "counting store",
                                 "counting.db", 1517441617,
                                 kSteps,        "PRAGMA journal_mode = WAL; PRAGMA synchronous = NORMAL;",
                                 "SELECT 1",    {},
                                 &mend,         true};

// Remembers nothing but how often it was told what.
class Counting final : public StoreFamily {
public:
    explicit Counting(const std::string& path) : store_(kCounting, *this, path) {}

    void opened(bool) override {}
    DWORD follow(LONGLONG) override {
        ++followed;
        return ERROR_SUCCESS;
    }
    void forget() noexcept override { ++forgotten; }
    void failed(std::string_view sentence) noexcept override { ADD_FAILURE() << sentence; }
    void was_set_aside(std::string_view sentence) noexcept override { ADD_FAILURE() << sentence; }

    DWORD refresh() {
        const auto reading = store_.lock();
        return store_.refresh();
    }
    // `meanwhile`: what happens between the change's beginning and its end.
    template <class Meanwhile>
    void change(Meanwhile meanwhile) {
        StoreWriting writing;
        ASSERT_EQ(writing.begin(store_), DWORD{ERROR_SUCCESS});
        meanwhile();
        LONGLONG seq = 0;
        ASSERT_EQ(writing.next_seq(seq), DWORD{ERROR_SUCCESS});
        {
            Use statement = writing.connection().use("INSERT INTO change(seq, origin) VALUES(?1, ?2)");
            ASSERT_TRUE(statement);
            statement->bind(1, seq);
            statement->bind(2, writing.origin());
            ASSERT_EQ(writing.connection().run(statement), DWORD{ERROR_SUCCESS});
        }
        ASSERT_EQ(writing.commit([this] { ++taken_over; }), DWORD{ERROR_SUCCESS});
        last = seq;
    }
    void change() {
        change([] {});
    }

    int followed = 0;
    int forgotten = 0;
    int taken_over = 0;
    LONGLONG last = 0;

private:
    SharedStore store_;
};

class StoreMemory : public testing::Test {
protected:
    const std::string path_ = (zr::test::sandbox_home() / "counting.db").string();
    Counting store_{path_};
    Counting other_{path_};

    void SetUp() override {
        ASSERT_EQ(store_.refresh(), DWORD{ERROR_SUCCESS});
        ASSERT_EQ(other_.refresh(), DWORD{ERROR_SUCCESS});
        store_.forgotten = other_.forgotten = 0;
    }
};

TEST_F(StoreMemory, TakesOverItsOwnChangesUnread) {
    for (int i = 0; i < 3; ++i) {
        store_.change();
        ASSERT_EQ(store_.refresh(), DWORD{ERROR_SUCCESS});
    }
    EXPECT_EQ(store_.taken_over, 3);
    EXPECT_EQ(store_.followed, 0);
    EXPECT_EQ(store_.forgotten, 0);
}

TEST_F(StoreMemory, FollowsOthersChangesAndItsOwnBehindThem) {
    other_.change();
    store_.change();
    EXPECT_EQ(store_.last, other_.last + 1);
    EXPECT_EQ(store_.taken_over, 0);
    ASSERT_EQ(store_.refresh(), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(store_.followed, 1);
    EXPECT_EQ(store_.forgotten, 0);
}

// What was read in the middle of a change is as new as what was read before it.
TEST_F(StoreMemory, TakesOverItsOwnChangeWhereOthersWereFollowedInTheMiddleOfIt) {
    other_.change();
    store_.change([this] { ASSERT_EQ(store_.refresh(), DWORD{ERROR_SUCCESS}); });
    EXPECT_EQ(store_.followed, 1);
    EXPECT_EQ(store_.taken_over, 1);
    store_.change();
    ASSERT_EQ(store_.refresh(), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(store_.followed, 1);
    EXPECT_EQ(store_.taken_over, 2);
    EXPECT_EQ(store_.last, other_.last + 2);
}

}  // namespace
