#include "ZrUtility/Helpers/ConnMgrQueryHelper.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "platform/base.h"
#include "platform/diagnostics.h"
#include "platform_stand_ins.h"
#include "support/log_capture.h"
#include "support/log_categories.h"

namespace {

using zr::test::kConnectionsFailure;
using zr::test::LogCapture;
using zr::test::stand_ins;
using StatusRecord = CONNMGR_CONNECTION_DETAILED_STATUS;

constexpr const char* kSource = ".\\Helpers\\ConnMgrQueryHelper.cppzrwindowsmobile";
constexpr HRESULT kTooSmall = ZRPLATFORM_HRESULT(0x8007007A);

class ConnMgrQuery : public testing::Test {
protected:
    ConnMgrQuery() : blocks_(ZrLiveObjects(ZrLiveKind::HeapBlocks)) {}
    ~ConnMgrQuery() override { EXPECT_EQ(ZrLiveObjects(ZrLiveKind::HeapBlocks), blocks_); }

    // So many connections, of which each says in dwSignalQuality the how manyth it is.
    void have(DWORD count, HRESULT too_small = kTooSmall) {
        stand_ins().query = [count, too_small](StatusRecord* buffer, DWORD* size) {
            const auto needed = static_cast<DWORD>(count * sizeof(StatusRecord));
            const bool fits = buffer != nullptr && *size >= needed;
            *size = needed;
            if (!fits) return count == 0 ? S_OK : too_small;
            for (DWORD i = 0; i < count; ++i) {
                buffer[i].dwSignalQuality = i;
                buffer[i].pNext = i + 1 < count ? buffer + i + 1 : nullptr;
            }
            return S_OK;
        };
    }
    static void fail(HRESULT result) {
        stand_ins().query = [result](StatusRecord*, DWORD*) { return result; };
    }
    // What the log says after a query that fails.
    static std::string logged() {
        const LogCapture log;
        EXPECT_EQ(ConnMgrQueryHelper::QueryDetailedStatus(visit, nullptr), 0);
        const auto records = log.records();
        EXPECT_EQ(records.size(), 2u);
        if (records.size() != 2) return "";
        EXPECT_EQ(records[0].source, kSource);
        EXPECT_EQ(records[0].category, kConnectionsFailure);
        EXPECT_EQ(records[1].category, kConnectionsFailure | kZrLogBuffer);
        return records[1].data;
    }
    // Notes what it is shown, and ends the walk with the record of the number `stop_at`.
    struct Seen {
        std::vector<DWORD> order;
        DWORD stop_at = 99;
    };
    static int visit(StatusRecord* record, void* context) {
        Seen* const seen = static_cast<Seen*>(context);
        if (seen == nullptr) return 0;
        seen->order.push_back(record->dwSignalQuality);
        return record->dwSignalQuality == seen->stop_at ? 7 : 0;
    }

private:
    const zr::test::StandInsOfTest own_;
    const LONGLONG blocks_;
};

}  // namespace

TEST_F(ConnMgrQuery, ShowsEachInTheOrderOfTheChain) {
    have(3);
    Seen seen;
    EXPECT_EQ(ConnMgrQueryHelper::QueryDetailedStatus(visit, &seen), 3);
    EXPECT_EQ(seen.order, (std::vector<DWORD>{0, 1, 2}));
}

TEST_F(ConnMgrQuery, TakesThePlainCodeToo) {
    have(2, static_cast<HRESULT>(ERROR_INSUFFICIENT_BUFFER));
    Seen seen;
    EXPECT_EQ(ConnMgrQueryHelper::QueryDetailedStatus(visit, &seen), 2);
}

TEST_F(ConnMgrQuery, StopsWhereTheVisitorSays) {
    have(5);
    Seen first{{}, 0};
    EXPECT_EQ(ConnMgrQueryHelper::QueryDetailedStatus(visit, &first), 1);
    Seen third{{}, 2};
    EXPECT_EQ(ConnMgrQueryHelper::QueryDetailedStatus(visit, &third), 3);
    EXPECT_EQ(third.order.size(), 3u);
}

TEST_F(ConnMgrQuery, IsNothingWithoutVisitorOrConnections) {
    have(3);
    EXPECT_EQ(ConnMgrQueryHelper::QueryDetailedStatus(nullptr, nullptr), 0);
    have(0);
    const LogCapture log;
    EXPECT_EQ(ConnMgrQueryHelper::QueryDetailedStatus(visit, nullptr), 0);
    EXPECT_TRUE(log.records().empty());
}

TEST_F(ConnMgrQuery, GivesUpAfterTenBuffersThatWereTooSmall) {
    int calls = 0;
    stand_ins().query = [&](StatusRecord*, DWORD* size) {
        *size = static_cast<DWORD>(++calls * 100);
        return kTooSmall;
    };
    EXPECT_EQ(logged(), "ERROR_INSUFFICIENT_BUFFER");
    EXPECT_EQ(calls, 11);
}

TEST_F(ConnMgrQuery, TakesTheTenthBuffer) {
    int calls = 0;
    stand_ins().query = [&](StatusRecord* buffer, DWORD* size) {
        *size = sizeof(StatusRecord);
        if (++calls < 11) return kTooSmall;
        EXPECT_EQ(buffer->pNext, nullptr);  // zeros
        return S_OK;
    };
    EXPECT_EQ(ConnMgrQueryHelper::QueryDetailedStatus(visit, nullptr), 1);
}

TEST_F(ConnMgrQuery, NamesFailures) {
    const std::vector<std::pair<HRESULT, std::string>> names = {
        {ZRPLATFORM_HRESULT(0x80070057), "E_INVALIDARG"},
        {ZRPLATFORM_HRESULT(0x80070005), "E_ACCESSDENIED"},
        {ZRPLATFORM_HRESULT(0x80004005), "0x80004005"},
        {S_FALSE, "0x1"},
    };
    for (const auto& [result, name] : names) {
        fail(result);
        EXPECT_EQ(logged(), name);
    }
}

TEST_F(ConnMgrQuery, SaysSoWithoutMemory) {
    have(3);
    const LogCapture log;
    ZrFailHeapAfter(0);
    const int visited = ConnMgrQueryHelper::QueryDetailedStatus(visit, nullptr);
    ZrFailHeapAfter(-1);
    EXPECT_EQ(visited, 0);
    ASSERT_EQ(log.records().size(), 2u);
    EXPECT_EQ(log.records()[1].data, "0x8007000E");
}

TEST_F(ConnMgrQuery, HooksWriteNothing) {
    const LogCapture log;
    ConnMgrQueryHelper::DebugLogAllConnections();
    ConnMgrQueryHelper::DebugLogConnMgrConnection(nullptr);
    EXPECT_TRUE(log.records().empty());
}
