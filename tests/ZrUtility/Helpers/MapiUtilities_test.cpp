#include "ZrUtility/Helpers/MapiUtilities.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>

#include "ZrUtility/Helpers/StringUtilities.h"
#include "ZrUtility/Helpers/fake_mapi.h"
#include "platform/diagnostics.h"
#include "support/failing_new.h"
#include "support/log_capture.h"
#include "support/standard_error.h"

namespace mapi_utilities_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using zr::test::FakeMapi;

constexpr const char* kSource = ".\\Helpers\\MapiUtilities.cppzrwindowsmobile";
constexpr ULONG kMark = 0x602B000B;

// A record of the log as text: its line, its category, its arguments.
std::vector<std::string> told(const zr::test::LogCapture& log) {
    std::vector<std::string> all;
    for (const auto& record : log.records()) {
        EXPECT_EQ(record.source, kSource);
        char text[64];
        std::snprintf(text, sizeof text, "%d %06X", record.line, record.category);
        all.emplace_back(text);
        for (const std::uintptr_t argument : record.arguments) {
            std::snprintf(text, sizeof text, " %llX", static_cast<unsigned long long>(argument));
            all.back() += text;
        }
    }
    return all;
}

// A store "s" with the top folder "top", in it "inbox", "trash" and "kept"; in the inbox "deep", with the message "m".
class MapiUtilitiesTest : public testing::Test {
protected:
    MapiUtilitiesTest() {
        world_.objects["s"] = {
            MAPI_STORE,
            {{PR_STORE_ENTRYID, "s"}, {PR_IPM_SUBTREE_ENTRYID, "top"}, {PR_IPM_WASTEBASKET_ENTRYID, "trash"}}};
        add("top", MAPI_FOLDER, "s");
        for (const char* name : {"inbox", "trash", "kept"}) {
            add(name, MAPI_FOLDER, "top");
        }
        add("deep", MAPI_FOLDER, "inbox");
        add("m", MAPI_MESSAGE, "deep");
        world_.folders = {"inbox", "trash", "kept"};
        session_ = world_.session();
        message_ = static_cast<IMessage*>(world_.open("m"));
    }
    ~MapiUtilitiesTest() override {
        message_->Release();
        session_->Release();
        EXPECT_EQ(world_.alive, 0);
        EXPECT_EQ(ZrLiveObjects(ZrLiveKind::MapiBuffers), buffers_);
    }

    void add(const std::string& name, ULONG type, const std::string& parent) {
        world_.objects[name] = {type, {{PR_ENTRYID, name}, {PR_PARENT_ENTRYID, parent}, {PR_STORE_ENTRYID, "s"}}};
    }
    void mark(const std::string& folder) { world_.objects[folder].values[kMark] = 1u; }
    static ENTRYID* entry(const char* name) { return reinterpret_cast<ENTRYID*>(const_cast<char*>(name)); }

    // Runs `check` once for each of the calls that succeed otherwise, with that one failing with E_ACCESSDENIED.
    template <class Check>
    void fail_each_call(Check check) {
        world_.calls.clear();
        check("");
        const std::vector<std::string> calls = world_.calls;
        ASSERT_FALSE(calls.empty());
        for (const std::string& call : calls) {
            world_.results = {{call, E_ACCESSDENIED}};
            const int alive = world_.alive;
            const LONGLONG buffers = ZrLiveObjects(ZrLiveKind::MapiBuffers);
            check(call);
            EXPECT_EQ(world_.alive, alive) << call;
            EXPECT_EQ(ZrLiveObjects(ZrLiveKind::MapiBuffers), buffers) << call;
        }
        world_.results.clear();
        world_.calls.clear();
    }

    const LONGLONG buffers_ = ZrLiveObjects(ZrLiveKind::MapiBuffers);
    FakeMapi world_;
    IMAPISession* session_ = nullptr;
    IMessage* message_ = nullptr;
    zr::test::LogCapture log_;
};

}  // namespace

// --- the way up -----------------------------------------------------------------------------------------------------

TEST_F(MapiUtilitiesTest, OnlyFoldersAndStoresAreParents) {
    for (const ULONG type : {0u, 2u, 4u, 5u, 7u}) {
        EXPECT_EQ(MapiUtilities::GetMapiParent(session_, message_, type), nullptr);
    }
    EXPECT_THAT(world_.calls, IsEmpty());
    EXPECT_THAT(told(log_), IsEmpty());
}

TEST_F(MapiUtilitiesTest, AMessagesFolderIsItsParent) {
    IMAPIFolder* folder = MapiUtilities::GetMsgFolder(session_, message_);
    ASSERT_NE(folder, nullptr);
    EXPECT_THAT(world_.calls, ElementsAre("GetProps m 0E090102 0FFB0102", "OpenEntry deep 1"));
    EXPECT_EQ(folder->Release(), 0u);
    world_.calls.clear();
    IMAPIProp* same = MapiUtilities::GetMapiParent(session_, message_, MAPI_FOLDER);
    ASSERT_NE(same, nullptr);
    EXPECT_THAT(world_.calls, ElementsAre("GetProps m 0E090102 0FFB0102", "OpenEntry deep 1"));
    same->Release();
}

TEST_F(MapiUtilitiesTest, AStoreThatIsKnownIsReachedInOneStep) {
    IMAPIFolder* folder = MapiUtilities::GetMsgFolder(session_, message_);
    ASSERT_NE(folder, nullptr);
    world_.calls.clear();
    IMsgStore* store = MapiUtilities::GetMsgStore(session_, folder);
    ASSERT_NE(store, nullptr);
    EXPECT_THAT(world_.calls, ElementsAre("GetProps deep 0E090102 0FFB0102", "OpenEntry s 1"));
    store->Release();
    folder->Release();
}

TEST_F(MapiUtilitiesTest, AStoreThatIsNotKnownIsReachedFolderByFolder) {
    for (const char* name : {"m", "deep", "inbox", "top"}) {
        world_.objects[name].values.erase(PR_STORE_ENTRYID);
    }
    IMAPIProp* store = MapiUtilities::GetMapiParent(session_, message_, MAPI_STORE);
    ASSERT_NE(store, nullptr);
    EXPECT_THAT(world_.calls,
                ElementsAre("GetProps m 0E090102 0FFB0102", "OpenEntry deep 1", "GetProps deep 0E090102 0FFB0102",
                            "OpenEntry inbox 1", "GetProps inbox 0E090102 0FFB0102", "OpenEntry top 1",
                            "GetProps top 0E090102 0FFB0102", "OpenEntry s 1"));
    EXPECT_EQ(world_.alive, 3);
    EXPECT_EQ(store->Release(), 0u);
    EXPECT_THAT(told(log_), IsEmpty());
}

TEST_F(MapiUtilitiesTest, AStoreIsTakenFromWhereItIsKnownFirst) {
    world_.objects["m"].values.erase(PR_STORE_ENTRYID);
    IMAPIProp* store = MapiUtilities::GetMapiParent(session_, message_, MAPI_STORE);
    ASSERT_NE(store, nullptr);
    EXPECT_THAT(world_.calls, ElementsAre("GetProps m 0E090102 0FFB0102", "OpenEntry deep 1",
                                          "GetProps deep 0E090102 0FFB0102", "OpenEntry s 1"));
    store->Release();
}

TEST_F(MapiUtilitiesTest, AStoreIsReachedWithoutAParentToo) {
    world_.objects["m"].values.erase(PR_PARENT_ENTRYID);
    IMAPIProp* store = MapiUtilities::GetMapiParent(session_, message_, MAPI_STORE);
    ASSERT_NE(store, nullptr);
    store->Release();
}

TEST_F(MapiUtilitiesTest, AnObjectOfNoReportedTypeIsAStore) {
    world_.reported_types["s"] = 0;
    IMAPIProp* store = MapiUtilities::GetMapiParent(session_, message_, MAPI_STORE);
    ASSERT_NE(store, nullptr);
    store->Release();
    // On the way to a folder it is one more step.
    world_.calls.clear();
    world_.objects["m"].values[PR_PARENT_ENTRYID] = "s";
    world_.objects["s"].values[PR_PARENT_ENTRYID] = "top";
    IMAPIProp* folder = MapiUtilities::GetMapiParent(session_, message_, MAPI_FOLDER);
    ASSERT_NE(folder, nullptr);
    EXPECT_THAT(world_.calls, ElementsAre("GetProps m 0E090102 0FFB0102", "OpenEntry s 1",
                                          "GetProps s 0E090102 0FFB0102", "OpenEntry top 1"));
    folder->Release();
}

TEST_F(MapiUtilitiesTest, AWayThatEndsIsLogged) {
    world_.objects["m"].values.erase(PR_PARENT_ENTRYID);
    EXPECT_EQ(MapiUtilities::GetMsgFolder(session_, message_), nullptr);
    EXPECT_THAT(told(log_), ElementsAre("63 140004"));
    // The store has no folder above it.
    IMAPIProp* store = world_.open("s");
    EXPECT_EQ(MapiUtilities::GetMapiParent(session_, store, MAPI_FOLDER), nullptr);
    store->Release();
    EXPECT_THAT(told(log_), ElementsAre("63 140004", "63 140004"));
}

TEST_F(MapiUtilitiesTest, AParentThatCannotBeOpenedIsLoggedWithTheReason) {
    world_.results["OpenEntry deep 1"] = MAPI_E_NOT_FOUND;
    EXPECT_EQ(MapiUtilities::GetMsgFolder(session_, message_), nullptr);
    EXPECT_THAT(told(log_), ElementsAre("74 140004 8004010F"));
}

TEST_F(MapiUtilitiesTest, AnObjectThatCannotBeReadEndsTheWaySilently) {
    for (const char* name : {"m", "deep"}) {
        world_.objects[name].values.erase(PR_STORE_ENTRYID);
    }
    world_.results["GetProps inbox 0E090102 0FFB0102"] = MAPI_E_OBJECT_DELETED;
    EXPECT_EQ(MapiUtilities::GetMapiParent(session_, message_, MAPI_STORE), nullptr);
    world_.results = {{"GetProps m 0E090102 0FFB0102", MAPI_E_OBJECT_DELETED}};
    EXPECT_EQ(MapiUtilities::GetMapiParent(session_, message_, MAPI_STORE), nullptr);
    EXPECT_THAT(told(log_), IsEmpty());
    EXPECT_EQ(world_.alive, 2);
}

// --- opening --------------------------------------------------------------------------------------------------------

TEST_F(MapiUtilitiesTest, FoldersAndMessagesAreOpenedForReading) {
    IMAPIFolder* folder = nullptr;
    EXPECT_EQ(MapiUtilities::OpenFolder(session_, 5, entry("inbox"), &folder), S_OK);
    ASSERT_NE(folder, nullptr);
    IMessage* message = nullptr;
    EXPECT_EQ(MapiUtilities::OpenMessage(session_, 1, entry("m"), &message), S_OK);
    ASSERT_NE(message, nullptr);
    EXPECT_THAT(world_.calls, ElementsAre("OpenEntry inbox 0", "OpenEntry m 0"));
    message->Release();
    folder->Release();
}

TEST_F(MapiUtilitiesTest, WhatIsSomethingElseIsNotHandedOut) {
    auto* const folder_before = reinterpret_cast<IMAPIFolder*>(0x40);
    auto* const message_before = reinterpret_cast<IMessage*>(0x40);
    IMAPIFolder* folder = folder_before;
    IMessage* message = message_before;
    EXPECT_EQ(MapiUtilities::OpenFolder(session_, 1, entry("m"), &folder), E_FAIL);
    EXPECT_EQ(MapiUtilities::OpenMessage(session_, 5, entry("inbox"), &message), E_FAIL);
    EXPECT_EQ(MapiUtilities::OpenMessage(session_, 4, entry("none"), &message), MAPI_E_NOT_FOUND);
    // A type of 0 is no folder here.
    world_.reported_types["inbox"] = 0;
    EXPECT_EQ(MapiUtilities::OpenFolder(session_, 5, entry("inbox"), &folder), E_FAIL);
    world_.results["OpenEntry trash 0"] = E_ACCESSDENIED;
    EXPECT_EQ(MapiUtilities::OpenFolder(session_, 5, entry("trash"), &folder), E_ACCESSDENIED);
    EXPECT_EQ(folder, folder_before);
    EXPECT_EQ(message, message_before);
    EXPECT_EQ(world_.alive, 2);
}

// --- deleting and moving --------------------------------------------------------------------------------------------

TEST_F(MapiUtilitiesTest, DeletingMovesToDeletedItems) {
    EXPECT_EQ(MapiUtilities::DeleteMessage(session_, message_), S_OK);
    EXPECT_THAT(world_.calls,
                ElementsAre("GetProps m 0E090102 0FFB0102", "OpenEntry deep 1", "GetProps deep 0E090102 0FFB0102",
                            "OpenEntry s 1", "GetProps s 35E30102", "s.OpenEntry trash 1 folder", "GetProps m 0FFF0102",
                            "CopyMessages deep to trash m 1"));
    EXPECT_EQ(world_.alive, 2);
}

TEST_F(MapiUtilitiesTest, AFailureWhileDeletingIsItsResult) {
    fail_each_call([&](const std::string& call) {
        const bool walk = call.find("0FFB0102") != std::string::npos || call.rfind("OpenEntry", 0) == 0;
        EXPECT_EQ(MapiUtilities::DeleteMessage(session_, message_), call.empty() ? S_OK
                                                                    : walk       ? E_FAIL
                                                                                 : E_ACCESSDENIED)
            << call;
    });
}

TEST_F(MapiUtilitiesTest, AStoreWithoutDeletedItemsKeepsTheMessage) {
    world_.objects["s"].values.erase(PR_IPM_WASTEBASKET_ENTRYID);
    EXPECT_EQ(MapiUtilities::DeleteMessage(session_, message_), E_FAIL);
    EXPECT_EQ(world_.calls.back(), "GetProps s 35E30102");
}

TEST_F(MapiUtilitiesTest, AMessageWithoutIdentifierIsNeitherMovedNorDeleted) {
    world_.objects["m"].values.erase(PR_ENTRYID);
    mark("kept");
    EXPECT_EQ(MapiUtilities::DeleteMessage(session_, message_), E_FAIL);
    EXPECT_EQ(MapiUtilities::DeleteMessagePermanently(session_, message_), E_FAIL);
    EXPECT_EQ(MapiUtilities::MoveMsgToSavedFolder(session_, message_), E_FAIL);
    for (const std::string& call : world_.calls) {
        EXPECT_EQ(call.find("Messages"), std::string::npos) << call;
    }
}

TEST_F(MapiUtilitiesTest, DeletingForGoodAsksTheFolder) {
    EXPECT_EQ(MapiUtilities::DeleteMessagePermanently(session_, message_), S_OK);
    EXPECT_THAT(world_.calls, ElementsAre("GetProps m 0E090102 0FFB0102", "OpenEntry deep 1", "GetProps m 0FFF0102",
                                          "DeleteMessages deep m 0"));
    fail_each_call([&](const std::string& call) {
        const bool walk = call.find("0FFB0102") != std::string::npos || call.rfind("OpenEntry", 0) == 0;
        EXPECT_EQ(MapiUtilities::DeleteMessagePermanently(session_, message_), call.empty() ? S_OK
                                                                               : walk       ? E_FAIL
                                                                                            : E_ACCESSDENIED)
            << call;
    });
}

TEST_F(MapiUtilitiesTest, WithoutAFolderNothingIsDeleted) {
    world_.objects["m"].values.erase(PR_PARENT_ENTRYID);
    EXPECT_EQ(MapiUtilities::DeleteMessage(session_, message_), E_FAIL);
    EXPECT_EQ(MapiUtilities::DeleteMessagePermanently(session_, message_), E_FAIL);
    EXPECT_EQ(MapiUtilities::MoveMsgToSavedFolder(session_, message_), E_FAIL);
    EXPECT_THAT(told(log_), ElementsAre("63 140004", "63 140004", "63 140004"));
}

// A partial success is MAPI's own result, and no failure.
TEST_F(MapiUtilitiesTest, WarningsAreHandedOn) {
    world_.results["CopyMessages deep to trash m 1"] = MAPI_W_PARTIAL_COMPLETION;
    EXPECT_EQ(MapiUtilities::DeleteMessage(session_, message_), MAPI_W_PARTIAL_COMPLETION);
}

// --- the folder of saved messages -----------------------------------------------------------------------------------

TEST_F(MapiUtilitiesTest, TheMarkedFolderIsFound) {
    mark("kept");
    auto* store = static_cast<IMsgStore*>(world_.open("s"));
    IMAPIFolder* folder = MapiUtilities::GetSavedFolder(session_, store, nullptr, nullptr);
    ASSERT_NE(folder, nullptr);
    EXPECT_THAT(world_.calls,
                ElementsAre("GetProps s 35E00102", "s.OpenEntry top 1 folder", "GetHierarchyTable top 0",
                            "SetColumns 602B000B 0FFF0102 0", "QueryRows 10 0 at 0", "s.OpenEntry kept 1 folder"));
    EXPECT_THAT(told(log_), IsEmpty());
    folder->Release();
    store->Release();
}

TEST_F(MapiUtilitiesTest, ItsIdentifierIsCopiedOut) {
    mark("kept");
    auto* store = static_cast<IMsgStore*>(world_.open("s"));
    ULONG size = 99;
    char bytes[8] = "abcdefg";
    IMAPIFolder* folder = MapiUtilities::GetSavedFolder(session_, store, &size, reinterpret_cast<ENTRYID*>(bytes));
    ASSERT_NE(folder, nullptr);
    folder->Release();
    EXPECT_EQ(size, 4u);
    EXPECT_STREQ(bytes, "keptefg");
    EXPECT_THAT(told(log_), ElementsAre("259 140010"));
    // Only where both are given.
    folder = MapiUtilities::GetSavedFolder(session_, store, &size, nullptr);
    ASSERT_NE(folder, nullptr);
    folder->Release();
    folder = MapiUtilities::GetSavedFolder(session_, store, nullptr, reinterpret_cast<ENTRYID*>(bytes));
    ASSERT_NE(folder, nullptr);
    folder->Release();
    EXPECT_EQ(told(log_).size(), 1u);
    store->Release();
}

TEST_F(MapiUtilitiesTest, OfSeveralInABatchTheLastOneIsTaken) {
    mark("inbox");
    mark("kept");
    auto* store = static_cast<IMsgStore*>(world_.open("s"));
    ULONG size = 0;
    char bytes[8] = "";
    IMAPIFolder* folder = MapiUtilities::GetSavedFolder(session_, store, &size, reinterpret_cast<ENTRYID*>(bytes));
    ASSERT_NE(folder, nullptr);
    EXPECT_EQ(std::string(bytes, size), "kept");
    EXPECT_THAT(told(log_), ElementsAre("259 140010", "259 140010"));
    // The first one was opened as well, and given back.
    EXPECT_EQ(world_.alive, 4);
    folder->Release();
    store->Release();
}

TEST_F(MapiUtilitiesTest, TheFirstBatchWithOneEndsTheSearch) {
    world_.folders.clear();
    for (int i = 0; i < 25; ++i) {
        add("f" + std::to_string(i), MAPI_FOLDER, "top");
        world_.folders.push_back("f" + std::to_string(i));
    }
    mark("f12");
    mark("f24");
    auto* store = static_cast<IMsgStore*>(world_.open("s"));
    ULONG size = 0;
    char bytes[8] = "";
    IMAPIFolder* folder = MapiUtilities::GetSavedFolder(session_, store, &size, reinterpret_cast<ENTRYID*>(bytes));
    ASSERT_NE(folder, nullptr);
    EXPECT_EQ(std::string(bytes, size), "f12");
    EXPECT_EQ(world_.calls.back(), "s.OpenEntry f12 1 folder");
    folder->Release();
    store->Release();
}

TEST_F(MapiUtilitiesTest, OnlyAMarkOfOneIsOne) {
    world_.objects["inbox"].values[kMark] = 0u;
    world_.objects["kept"].values[kMark] = 2u;
    auto* store = static_cast<IMsgStore*>(world_.open("s"));
    setenv("ZR_DEBUG_OUTPUT", "1", 1);
    {
        const zr::test::StandardError output;
        EXPECT_EQ(MapiUtilities::GetSavedFolder(session_, store, nullptr, nullptr), nullptr);
        EXPECT_EQ(output.text(), "");
    }
    unsetenv("ZR_DEBUG_OUTPUT");
    // The empty batch at the end.
    EXPECT_EQ(world_.calls.back(), "QueryRows 10 0 at 3");
    EXPECT_EQ(MapiUtilities::MoveMsgToSavedFolder(session_, message_), E_FAIL);
    store->Release();
}

TEST_F(MapiUtilitiesTest, RowsThatCannotBeReadAreToldToTheDebugger) {
    auto* store = static_cast<IMsgStore*>(world_.open("s"));
    world_.results["QueryRows 10 0 at 0"] = MAPI_E_CALL_FAILED;
    setenv("ZR_DEBUG_OUTPUT", "1", 1);
    {
        const zr::test::StandardError output;
        EXPECT_EQ(MapiUtilities::GetSavedFolder(session_, store, nullptr, nullptr), nullptr);
        EXPECT_EQ(output.text(), "ERROR:MSG:UTL MapiUtilities::GetSavedFolder() Could not get table rows\r\n");
    }
    unsetenv("ZR_DEBUG_OUTPUT");
    EXPECT_THAT(told(log_), IsEmpty());
    store->Release();
}

TEST_F(MapiUtilitiesTest, AMarkedFolderThatCannotBeOpenedIsNone) {
    mark("inbox");
    mark("kept");
    auto* store = static_cast<IMsgStore*>(world_.open("s"));
    ULONG size = 0;
    char bytes[8] = "";
    world_.results["s.OpenEntry kept 1 folder"] = E_ACCESSDENIED;
    IMAPIFolder* folder = MapiUtilities::GetSavedFolder(session_, store, &size, reinterpret_cast<ENTRYID*>(bytes));
    ASSERT_NE(folder, nullptr);
    EXPECT_EQ(std::string(bytes, size), "inbox");
    folder->Release();
    world_.results["s.OpenEntry inbox 1 folder"] = E_ACCESSDENIED;
    EXPECT_EQ(MapiUtilities::GetSavedFolder(session_, store, nullptr, nullptr), nullptr);
    store->Release();
}

TEST_F(MapiUtilitiesTest, AnyFailureOnTheWayToItGivesNone) {
    mark("kept");
    auto* store = static_cast<IMsgStore*>(world_.open("s"));
    fail_each_call([&](const std::string& call) {
        IMAPIFolder* folder = MapiUtilities::GetSavedFolder(session_, store, nullptr, nullptr);
        EXPECT_EQ(folder != nullptr, call.empty()) << call;
        if (folder != nullptr) folder->Release();
    });
    world_.objects["s"].values.erase(PR_IPM_SUBTREE_ENTRYID);
    EXPECT_EQ(MapiUtilities::GetSavedFolder(session_, store, nullptr, nullptr), nullptr);
    store->Release();
}

TEST_F(MapiUtilitiesTest, SavingMovesToTheMarkedFolder) {
    mark("kept");
    EXPECT_EQ(MapiUtilities::MoveMsgToSavedFolder(session_, message_), S_OK);
    EXPECT_EQ(world_.calls.back(), "CopyMessages deep to kept m 1");
    EXPECT_EQ(world_.calls[world_.calls.size() - 2], "GetProps m 0FFF0102");
    fail_each_call([&](const std::string& call) {
        const bool moved = call.find("CopyMessages") == 0 || call == "GetProps m 0FFF0102";
        EXPECT_EQ(MapiUtilities::MoveMsgToSavedFolder(session_, message_), call.empty() ? S_OK
                                                                           : moved      ? E_ACCESSDENIED
                                                                                        : E_FAIL)
            << call;
    });
}

// --- meetings -------------------------------------------------------------------------------------------------------

TEST(MapiUtilities, AMeetingsClassBeginsWithSchedule) {
    struct Case {
        const WCHAR* name;
        bool meeting;
        bool own;
    };
    const Case cases[] = {{u"IPM.Schedule.Meeting.Request", true, false},
                          {u"IPM.Schedule.Meeting.Request.Halcyon", true, true},
                          {u"ipm.schedule.x", false, false},
                          {u"IPM.Schedule", true, false},
                          {u"IPM.ScheduleHalcyon", true, true},
                          {u"IPM.Schedul", false, false},
                          {u"IPM.Note.Halcyon", false, false},
                          {u"IPM.Schedule.halcyon", true, false},
                          {u" IPM.Schedule", false, false},
                          {u"", false, false}};
    for (const Case& each : cases) {
        auto* name = const_cast<WCHAR*>(each.name);
        EXPECT_EQ(MapiUtilities::isMeetingFormName(name), each.meeting) << &each - cases;
        EXPECT_EQ(MapiUtilities::isZrMeetingFormName(name), each.own) << &each - cases;
    }
    EXPECT_FALSE(MapiUtilities::isMeetingFormName(nullptr));
    EXPECT_FALSE(MapiUtilities::isZrMeetingFormName(nullptr));
}

TEST_F(MapiUtilitiesTest, AForeignMeetingIsTold) {
    world_.objects["m"].values[PR_MESSAGE_CLASS_W] = u"IPM.Schedule.Meeting.Request";
    bool meeting = false;
    bool foreign = false;
    EXPECT_EQ(MapiUtilities::CheckMeetingMessage(session_, message_, false, &meeting, &foreign), S_OK);
    EXPECT_TRUE(meeting);
    EXPECT_TRUE(foreign);
    EXPECT_THAT(world_.calls, ElementsAre("GetProps m 001A001F"));
    EXPECT_THAT(told(log_), ElementsAre("424 340010"));
}

TEST_F(MapiUtilitiesTest, OneOfTheClientsOwnIsNeverDeleted) {
    world_.objects["m"].values[PR_MESSAGE_CLASS_W] = u"IPM.Schedule.Meeting.Request.Halcyon";
    bool meeting = false;
    bool foreign = true;
    EXPECT_EQ(MapiUtilities::CheckMeetingMessage(session_, message_, true, &meeting, &foreign), S_OK);
    EXPECT_TRUE(meeting);
    EXPECT_FALSE(foreign);
    EXPECT_THAT(world_.calls, ElementsAre("GetProps m 001A001F"));
    EXPECT_THAT(told(log_), IsEmpty());
}

TEST_F(MapiUtilitiesTest, AForeignMeetingIsDeletedWhereThatIsAskedFor) {
    world_.objects["m"].values[PR_MESSAGE_CLASS_W] = u"IPM.Schedule.Meeting.Canceled";
    bool meeting = false;
    bool foreign = false;
    EXPECT_EQ(MapiUtilities::CheckMeetingMessage(session_, message_, true, &meeting, &foreign), S_OK);
    EXPECT_EQ(world_.calls.back(), "DeleteMessages deep m 0");
    EXPECT_THAT(told(log_), ElementsAre("424 340010", "437 340010"));

    world_.results["DeleteMessages deep m 0"] = MAPI_E_NO_ACCESS;
    EXPECT_EQ(MapiUtilities::CheckMeetingMessage(session_, message_, true, &meeting, &foreign), MAPI_E_NO_ACCESS);
    EXPECT_TRUE(meeting);
    EXPECT_TRUE(foreign);
    EXPECT_THAT(told(log_), ElementsAre("424 340010", "437 340010", "424 340010", "441 340004 80070005"));
}

TEST_F(MapiUtilitiesTest, WithoutAClassThereIsNoMeeting) {
    bool meeting = true;
    bool foreign = true;
    EXPECT_EQ(MapiUtilities::CheckMeetingMessage(session_, message_, true, &meeting, &foreign), MAPI_W_ERRORS_RETURNED);
    EXPECT_FALSE(meeting);
    EXPECT_FALSE(foreign);
    world_.results["GetProps m 001A001F"] = MAPI_E_OBJECT_DELETED;
    meeting = foreign = true;
    EXPECT_EQ(MapiUtilities::CheckMeetingMessage(session_, message_, true, &meeting, &foreign), MAPI_E_OBJECT_DELETED);
    EXPECT_FALSE(meeting);
    EXPECT_FALSE(foreign);
}

TEST_F(MapiUtilitiesTest, BothAnswersMustHaveAPlace) {
    bool answer = true;
    EXPECT_EQ(MapiUtilities::CheckMeetingMessage(session_, message_, true, nullptr, &answer), E_FAIL);
    EXPECT_EQ(MapiUtilities::CheckMeetingMessage(session_, message_, true, &answer, nullptr), E_FAIL);
    EXPECT_EQ(MapiUtilities::CheckMeetingMessage(session_, 1, entry("m"), true, nullptr, &answer), E_FAIL);
    EXPECT_EQ(MapiUtilities::CheckMeetingMessage(session_, 1, entry("m"), true, &answer, nullptr), E_FAIL);
    EXPECT_TRUE(answer);
    EXPECT_THAT(world_.calls, IsEmpty());
}

TEST_F(MapiUtilitiesTest, ByIdentifierTheResultIsThatOfReleasing) {
    world_.objects["m"].values[PR_MESSAGE_CLASS_W] = u"IPM.Schedule.Meeting.Request";
    bool meeting = false;
    bool foreign = false;
    EXPECT_EQ(MapiUtilities::CheckMeetingMessage(session_, 1, entry("m"), false, &meeting, &foreign), 0);
    EXPECT_TRUE(meeting);
    EXPECT_TRUE(foreign);
    EXPECT_THAT(world_.calls, ElementsAre("OpenEntry m 0", "GetProps m 001A001F"));

    // What the check itself gave does not matter.
    world_.results["GetProps m 001A001F"] = MAPI_E_OBJECT_DELETED;
    EXPECT_EQ(MapiUtilities::CheckMeetingMessage(session_, 1, entry("m"), true, &meeting, &foreign), 0);
    EXPECT_FALSE(meeting);
    EXPECT_THAT(told(log_), ElementsAre("424 340010"));

    world_.releases["m"] = 3;
    EXPECT_EQ(MapiUtilities::CheckMeetingMessage(session_, 1, entry("m"), false, &meeting, &foreign), 3);
    world_.releases["m"] = 0x80000001;
    EXPECT_EQ(MapiUtilities::CheckMeetingMessage(session_, 1, entry("m"), false, &meeting, &foreign),
              static_cast<HRESULT>(0x80000001));
    EXPECT_THAT(told(log_), ElementsAre("424 340010", "379 340004 80000001"));
    world_.releases.clear();
}

TEST_F(MapiUtilitiesTest, ByIdentifierOneThatCannotBeOpenedIsNoMeeting) {
    bool meeting = true;
    bool foreign = true;
    EXPECT_EQ(MapiUtilities::CheckMeetingMessage(session_, 4, entry("gone"), true, &meeting, &foreign),
              MAPI_E_NOT_FOUND);
    EXPECT_FALSE(meeting);
    EXPECT_FALSE(foreign);
    EXPECT_EQ(MapiUtilities::CheckMeetingMessage(session_, 5, entry("inbox"), true, &meeting, &foreign), E_FAIL);
}

// --- streams and lines ----------------------------------------------------------------------------------------------

TEST(MapiUtilities, AStreamsLengthIsItsLower32Bits) {
    EXPECT_EQ(MapiUtilities::GetLength(nullptr), 0u);
    zr::test::FakeStream stream(0x1'2345'6789, S_OK);
    EXPECT_EQ(MapiUtilities::GetLength(&stream), 0x23456789u);
    EXPECT_EQ(stream.asked(), STATFLAG_NONAME);
    zr::test::FakeStream failing(77, E_FAIL);
    EXPECT_EQ(MapiUtilities::GetLength(&failing), 0u);
}

namespace {

// The first `count` units, so that the unset one of a line that had a separator is not looked at.
std::u16string fixed(const WCHAR* line, std::size_t count) {
    WCHAR* text = MapiUtilities::fixToFields(line);
    if (text == nullptr) return u"(null)";
    std::u16string copy(text, count);
    StringUtilities::DeleteString(text);
    EXPECT_EQ(text, nullptr);
    return copy;
}

std::u16string fixed(const WCHAR* line) {
    WCHAR* text = MapiUtilities::fixToFields(line);
    if (text == nullptr) return u"(null)";
    std::u16string copy(text);
    StringUtilities::DeleteString(text);
    return copy;
}

}  // namespace

TEST(MapiUtilities, ARecipientLineIsCleaned) {
    EXPECT_EQ(fixed(u"  \"Jo Doe\" <jo.doe>"), u"Jo Doe <jo.doe>;");
    EXPECT_EQ(fixed(u"x<>y"), u"xy;");
    EXPECT_EQ(fixed(u""), u";");
    EXPECT_EQ(fixed(u"   "), u";");
    EXPECT_EQ(fixed(u"\tx "), u"\tx ;");
    EXPECT_EQ(fixed(u"a\\b"), u"a\"b;");
    EXPECT_EQ(fixed(u"<>"), u";");
    EXPECT_EQ(fixed(u"><"), u"><;");
    EXPECT_EQ(fixed(u"<<>>"), u"<>;");
    EXPECT_EQ(fixed(u"<\">"), u"<>;");
    EXPECT_EQ(fixed(u" >a<"), u">a<;");
    EXPECT_EQ(MapiUtilities::fixToFields(nullptr), nullptr);
}

TEST(MapiUtilities, ALineWithASeparatorGetsNone) {
    EXPECT_EQ(fixed(u"a;b", 3), u"a;b");
    EXPECT_EQ(fixed(u"\"a\";", 2), u"a;");
    // One unit lies between what was copied and the end, as it was allocated.
    WCHAR* text = MapiUtilities::fixToFields(u"a;b");
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(text[4], u'\0');
    StringUtilities::DeleteString(text);
}

TEST(MapiUtilities, WithoutMemoryThereIsNoLine) {
    const zr::test::FailingNew failing;
    EXPECT_EQ(MapiUtilities::fixToFields(u"a"), nullptr);
}

}  // namespace mapi_utilities_test
