#include "ZrUtility/Helpers/SharedMemManager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "ZrUtility/Helpers/StringUtilities.h"
#include "platform/diagnostics.h"
#include "support/child.h"
#include "support/failing_new.h"

using zr::test::Child;
using zr::test::hear;
using zr::test::say;

namespace {

using Info = SharedMemManager::SharedMemInfo;
using Header = SharedMemManager::SharedMemHeader;

// A name as the manager takes it.
class Name {
public:
    Name(const char16_t* text) : text_(text) {}
    explicit Name(std::u16string text) : text_(std::move(text)) {}
    operator WCHAR*() { return text_.data(); }

private:
    std::u16string text_;
};

std::vector<unsigned char> bytes(std::size_t count, unsigned char first = 1) {
    std::vector<unsigned char> out(count);
    for (std::size_t i = 0; i < count; ++i) {
        out[i] = static_cast<unsigned char>(first + i);
    }
    return out;
}

LONG set(SharedMemManager& manager, Name name, std::vector<unsigned char> data) {
    return manager.SetContent(name, data.data(), static_cast<ULONG>(data.size()));
}

// The header as the region has it now, past every manager's memory of it.
Header stored(const char16_t* name) {
    SharedMemManager fresh;
    Info* info = nullptr;
    Name copy(name);
    EXPECT_EQ(fresh.Open(copy, PAGE_READWRITE, &info), S_OK);
    Header header{};
    EXPECT_EQ(fresh.GetHeader(copy, &header), S_OK);
    return header;
}

std::vector<unsigned char> stored_content(const char16_t* name) {
    SharedMemManager fresh;
    Name copy(name);
    EXPECT_EQ(fresh.Open(copy, PAGE_READWRITE, nullptr), S_OK);
    unsigned char* content = nullptr;
    Header header{};
    EXPECT_EQ(fresh.GetContent(copy, &content, &header), S_OK);
    return {content, content + header.contentLength};
}

MATCHER_P2(IsHeader, size, length, "") {
    return arg.size == ULONG{size} && arg.contentLength == ULONG{length};
}

}  // namespace

TEST(SharedMemManager, ACreatedRegionHoldsNothingYet) {
    SharedMemManager manager;
    Info* info = nullptr;
    Name name(u"region");
    ASSERT_EQ(manager.Create(name, 100, PAGE_READWRITE, &info), S_OK);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(std::u16string(info->identifier), u"region");
    EXPECT_NE(info->mapping, nullptr);
    EXPECT_EQ(info->view, nullptr);
    EXPECT_THAT(info->header, IsHeader(0u, 0u));  // not read yet
    Header header{};
    EXPECT_EQ(manager.GetHeader(name, &header), S_OK);
    EXPECT_THAT(header, IsHeader(108u, 0u));
    EXPECT_THAT(info->header, IsHeader(108u, 0u));
}

TEST(SharedMemManager, TheRegionsBytes) {
    SharedMemManager manager;
    Name name(u"layout");
    ASSERT_EQ(manager.Create(name, 0x010203, PAGE_READWRITE, nullptr), S_OK);
    ASSERT_EQ(set(manager, name, {'a', 'b', 'c'}), S_OK);
    const HANDLE mapping = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 1, name);
    ASSERT_EQ(GetLastError(), ERROR_ALREADY_EXISTS);
    const auto* view = static_cast<unsigned char*>(MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 11));
    ASSERT_NE(view, nullptr);
    EXPECT_THAT(std::vector<int>(view, view + 11), testing::ElementsAre(0x0B, 2, 1, 0, 3, 0, 0, 0, 'a', 'b', 'c'));
    UnmapViewOfFile(view);
    CloseHandle(mapping);
}

TEST(SharedMemManager, HowMuchContentIsTaken) {
    SharedMemManager manager;
    Name name(u"limit");
    ASSERT_EQ(manager.Create(name, 100, PAGE_READWRITE, nullptr), S_OK);
    EXPECT_EQ(set(manager, name, bytes(108)), E_OUTOFMEMORY);
    EXPECT_THAT(stored(u"limit"), IsHeader(108u, 0u));
    EXPECT_EQ(set(manager, name, bytes(107)), S_OK);
    EXPECT_THAT(stored(u"limit"), IsHeader(108u, 107u));
    EXPECT_EQ(stored_content(u"limit"), bytes(107));
}

// The seven bytes beyond what was asked for are taken only where the region's last page has them.
TEST(SharedMemManager, ContentThatWouldLeaveTheRegionIsRefused) {
    SharedMemManager manager;
    Name name(u"page");
    ASSERT_EQ(manager.Create(name, 4096 - 8, PAGE_READWRITE, nullptr), S_OK);
    EXPECT_EQ(set(manager, name, bytes(4096 - 8)), S_OK);
    EXPECT_EQ(set(manager, name, bytes(4096 - 7, 9)), E_ACCESSDENIED);
    EXPECT_THAT(stored(u"page"), IsHeader(4096u, 4088u));
    EXPECT_EQ(stored_content(u"page"), bytes(4088));
    unsigned char* content = nullptr;
    ASSERT_EQ(manager.GetContent(name, &content, nullptr), S_OK);  // with a view in the slot the same
    EXPECT_EQ(set(manager, name, bytes(4096 - 7, 9)), E_ACCESSDENIED);
    EXPECT_EQ(stored_content(u"page"), bytes(4088));
}

TEST(SharedMemManager, NothingToWriteIsSuccess) {
    SharedMemManager manager;
    Name name(u"nothing");
    ASSERT_EQ(manager.Create(name, 100, PAGE_READWRITE, nullptr), S_OK);
    ASSERT_EQ(set(manager, name, bytes(5)), S_OK);
    unsigned char byte = 9;
    EXPECT_EQ(manager.SetContent(name, &byte, 0), S_OK);
    EXPECT_EQ(manager.SetContent(name, nullptr, 5), S_OK);
    EXPECT_EQ(manager.SetContent(name, nullptr, 5000), S_OK);
    EXPECT_THAT(stored(u"nothing"), IsHeader(108u, 5u));
    EXPECT_EQ(manager.CleanContent(name), S_OK);
    EXPECT_THAT(stored(u"nothing"), IsHeader(108u, 0u));
}

TEST(SharedMemManager, TheHeaderIsReadOnce) {
    SharedMemManager manager;
    Name name(u"once");
    Info* info = nullptr;
    ASSERT_EQ(manager.Create(name, 100, PAGE_READWRITE, &info), S_OK);
    ASSERT_EQ(set(manager, name, bytes(10)), S_OK);
    Header header{};
    EXPECT_EQ(manager.GetHeader(name, &header), S_OK);
    EXPECT_THAT(header, IsHeader(108u, 0u));
    EXPECT_EQ(manager.CleanContent(name), S_OK);
    ASSERT_EQ(set(manager, name, bytes(20)), S_OK);
    EXPECT_EQ(manager.GetHeader(name, &header), S_OK);
    EXPECT_THAT(header, IsHeader(108u, 0u));
    // Another manager's slot is another memory; it keeps what it saw first as well.
    SharedMemManager other;
    ASSERT_EQ(other.Open(name, PAGE_READWRITE, nullptr), S_OK);
    EXPECT_EQ(other.GetHeader(name, &header), S_OK);
    EXPECT_THAT(header, IsHeader(108u, 20u));
    ASSERT_EQ(set(manager, name, bytes(30)), S_OK);
    EXPECT_EQ(other.GetHeader(name, &header), S_OK);
    EXPECT_THAT(header, IsHeader(108u, 20u));
    EXPECT_EQ(other.Release(name), S_OK);
    ASSERT_EQ(other.Open(name, PAGE_READWRITE, nullptr), S_OK);
    EXPECT_EQ(other.GetHeader(name, &header), S_OK);
    EXPECT_THAT(header, IsHeader(108u, 30u));
}

TEST(SharedMemManager, ContentStaysWhereItIs) {
    SharedMemManager writer;
    SharedMemManager reader;
    Name name(u"stays");
    Info* info = nullptr;
    ASSERT_EQ(writer.Create(name, 100000, PAGE_READWRITE, nullptr), S_OK);
    ASSERT_EQ(set(writer, name, bytes(10)), S_OK);
    ASSERT_EQ(reader.Open(name, PAGE_READWRITE, &info), S_OK);
    unsigned char* content = nullptr;
    Header header{};
    ASSERT_EQ(reader.GetContent(name, &content, &header), S_OK);
    EXPECT_THAT(header, IsHeader(100008u, 10u));
    EXPECT_EQ(info->view + 8, content);
    EXPECT_EQ(std::vector<unsigned char>(content, content + 10), bytes(10));
    // What the other writes shows at the same place, while the reader's own header stays.
    ASSERT_EQ(set(writer, name, bytes(10, 50)), S_OK);
    EXPECT_EQ(std::vector<unsigned char>(content, content + 10), bytes(10, 50));
    // More than the reader's view was mapped for, written by the reader itself: it reaches the region, and the view
    // stays.
    const std::vector<unsigned char> large = bytes(90000, 3);
    ASSERT_EQ(set(reader, name, large), S_OK);
    EXPECT_EQ(stored_content(u"stays"), large);
    unsigned char* again = nullptr;
    ASSERT_EQ(reader.GetContent(name, &again, &header), S_OK);
    EXPECT_EQ(again, content);
    EXPECT_THAT(header, IsHeader(100008u, 10u));
    EXPECT_EQ(content[9], large[9]);
}

TEST(SharedMemManager, WritingKeepsNoViewInTheSlot) {
    SharedMemManager manager;
    Name name(u"writing");
    Info* info = nullptr;
    ASSERT_EQ(manager.Create(name, 100000, PAGE_READWRITE, &info), S_OK);
    for (const std::size_t length : {10u, 90000u, 500u}) {
        ASSERT_EQ(set(manager, name, bytes(length)), S_OK);
        EXPECT_EQ(info->view, nullptr);
        EXPECT_EQ(stored_content(u"writing"), bytes(length));
    }
}

// More writes than a process can have views.
TEST(SharedMemManager, WritingDoesNotUseUpAddresses) {
    SharedMemManager manager;
    Name name(u"often");
    ASSERT_EQ(manager.Create(name, 100, PAGE_READWRITE, nullptr), S_OK);
    std::vector<unsigned char> data = bytes(50);
    for (int i = 0; i < 70000; ++i) {
        ASSERT_EQ(manager.SetContent(name, data.data(), 50), S_OK) << i;
    }
}

TEST(SharedMemManager, FiveSlots) {
    SharedMemManager manager;
    Info* infos[6] = {};
    for (char16_t i = 0; i < 5; ++i) {
        Name name(std::u16string(u"slot ") + static_cast<char16_t>(u'0' + i));
        ASSERT_EQ(manager.Create(name, 10, PAGE_READWRITE, &infos[i]), S_OK);
    }
    Name sixth(u"slot 5");
    infos[5] = infos[0];
    EXPECT_EQ(manager.Create(sixth, 10, PAGE_READWRITE, &infos[5]), E_OUTOFMEMORY);
    EXPECT_EQ(infos[5], nullptr);
    Name empty(u"");
    EXPECT_EQ(manager.Create(empty, 10, PAGE_READWRITE, nullptr), E_OUTOFMEMORY);  // the slots are looked at first
    EXPECT_EQ(manager.Open(sixth, PAGE_READWRITE, nullptr), E_OUTOFMEMORY);
    Name third(u"slot 2");
    Info* again = nullptr;
    EXPECT_EQ(manager.Open(third, PAGE_READWRITE, &again), S_OK);  // open already: needs no slot
    EXPECT_EQ(again, infos[2]);
    EXPECT_EQ(manager.Release(third), S_OK);
    EXPECT_EQ(manager.Create(sixth, 10, PAGE_READWRITE, &infos[5]), S_OK);
    EXPECT_EQ(infos[5], infos[2]);
}

TEST(SharedMemManager, TheLowestFreeSlotIsTaken) {
    SharedMemManager manager;
    Info* infos[5] = {};
    Name names[] = {Name(u"0"), Name(u"1"), Name(u"2"), Name(u"3"), Name(u"4")};
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(manager.Create(names[i], 10, PAGE_READWRITE, &infos[i]), S_OK);
        EXPECT_EQ(infos[i], infos[0] + i);
    }
    for (const int i : {4, 1, 3}) {
        EXPECT_EQ(manager.Release(names[i]), S_OK);
    }
    Info* info = nullptr;
    for (const int i : {1, 3, 4}) {
        EXPECT_EQ(manager.Create(names[i], 10, PAGE_READWRITE, &info), S_OK);
        EXPECT_EQ(info, infos[i]);
    }
}

TEST(SharedMemManager, WrongNames) {
    SharedMemManager manager;
    Name empty(u"");
    Name unknown(u"unknown");
    Name known(u"known");
    unsigned char* content = nullptr;
    Header header{};
    Info* info = reinterpret_cast<Info*>(1);
    EXPECT_EQ(manager.Create(nullptr, 10, PAGE_READWRITE, &info), E_INVALIDARG);
    EXPECT_EQ(info, nullptr);
    EXPECT_EQ(manager.Create(empty, 10, PAGE_READWRITE, &info), E_INVALIDARG);
    EXPECT_EQ(manager.CreateOrOpen(empty, 10, PAGE_READWRITE, &info), E_INVALIDARG);
    EXPECT_EQ(manager.CreateOrOpen(nullptr, 10, PAGE_READWRITE, nullptr), E_INVALIDARG);
    EXPECT_EQ(manager.Open(empty, PAGE_READWRITE, &info), E_INVALIDARG);
    EXPECT_EQ(manager.Open(nullptr, PAGE_READWRITE, &info), E_INVALIDARG);
    ASSERT_EQ(manager.Create(known, 10, PAGE_READWRITE, nullptr), S_OK);
    for (WCHAR* name : {static_cast<WCHAR*>(nullptr), static_cast<WCHAR*>(empty), static_cast<WCHAR*>(unknown)}) {
        EXPECT_EQ(manager.GetHeader(name, &header), E_INVALIDARG);
        EXPECT_EQ(manager.GetContent(name, &content, &header), E_INVALIDARG);
        EXPECT_EQ(manager.SetContent(name, nullptr, 0), E_INVALIDARG);
        EXPECT_EQ(manager.CleanContent(name), E_INVALIDARG);
        EXPECT_EQ(manager.Release(name), E_INVALIDARG);
    }
    Name other_case(u"KNOWN");
    EXPECT_EQ(manager.GetHeader(other_case, &header), E_INVALIDARG);
}

TEST(SharedMemManager, NamesAreComparedInTheirFirst259Characters) {
    SharedMemManager manager;
    const std::u16string common(259, u'n');
    Name first(common + u"one");
    Name second(common + u"two");
    Name shorter(common.substr(1));
    Info* info = nullptr;
    Info* found = nullptr;
    ASSERT_EQ(manager.Create(first, 10, PAGE_READWRITE, &info), S_OK);
    EXPECT_EQ(std::u16string(info->identifier), common + u"one");
    EXPECT_EQ(manager.Open(second, PAGE_READWRITE, &found), S_OK);
    EXPECT_EQ(found, info);
    EXPECT_EQ(manager.Open(shorter, PAGE_READWRITE, &found), E_INVALIDARG);
    EXPECT_EQ(found, nullptr);
    // To the platform the whole name counts.
    EXPECT_EQ(manager.Create(second, 10, PAGE_READWRITE, &found), S_OK);
    EXPECT_NE(found, info);
}

TEST(SharedMemManager, CreateOrOpenTakesTheWholeSizeAndKeepsAHeader) {
    SharedMemManager manager;
    Name name(u"either");
    Info* info = nullptr;
    ASSERT_EQ(manager.CreateOrOpen(name, 50, PAGE_READWRITE, &info), S_OK);
    EXPECT_THAT(stored(u"either"), IsHeader(50u, 0u));
    ASSERT_EQ(set(manager, name, bytes(4)), S_OK);
    Info* second = nullptr;
    ASSERT_EQ(manager.CreateOrOpen(name, 5000, PAGE_READWRITE, &second), S_OK);
    EXPECT_EQ(second, info + 1);
    EXPECT_THAT(stored(u"either"), IsHeader(50u, 4u));
    EXPECT_EQ(manager.Release(name), S_OK);  // the first slot of the two
    EXPECT_EQ(info->identifier, nullptr);
    EXPECT_THAT(stored(u"either"), IsHeader(50u, 4u));
    EXPECT_EQ(manager.Release(name), S_OK);
    EXPECT_EQ(manager.Release(name), E_INVALIDARG);
    EXPECT_EQ(manager.Open(name, PAGE_READWRITE, nullptr), E_INVALIDARG);
}

TEST(SharedMemManager, CreateOfARegionThatTheManagerHasItself) {
    SharedMemManager manager;
    Name name(u"twice");
    Info* info = nullptr;
    Info* second = reinterpret_cast<Info*>(1);
    ASSERT_EQ(manager.Create(name, 100, PAGE_READWRITE, &info), S_OK);
    EXPECT_EQ(manager.Create(name, 100, PAGE_READWRITE, &second), E_FAIL);
    EXPECT_EQ(second, nullptr);
    EXPECT_NE(info->identifier, nullptr);  // the slot that held it is still there
    EXPECT_EQ((info + 1)->identifier, nullptr);
    EXPECT_EQ(set(manager, name, bytes(3)), S_OK);
}

TEST(SharedMemManager, OpenOfWhatNobodyCreatedLeavesNothingBehind) {
    const LONGLONG handles = ZrLiveObjects(ZrLiveKind::Handles);
    SharedMemManager manager;
    Name name(u"nobody");
    Info* info = reinterpret_cast<Info*>(1);
    EXPECT_EQ(manager.Open(name, PAGE_READWRITE, &info), E_INVALIDARG);
    EXPECT_EQ(info, nullptr);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), handles);
    EXPECT_EQ(manager.Open(name, PAGE_READWRITE, &info), E_INVALIDARG);
    EXPECT_EQ(manager.Create(name, 10, PAGE_READWRITE, &info), S_OK);
}

TEST(SharedMemManager, SizesAndProtectionsThatCannotBe) {
    SharedMemManager manager;
    Name name(u"cannot");
    Info* info = reinterpret_cast<Info*>(1);
    EXPECT_EQ(manager.CreateOrOpen(name, 0, PAGE_READWRITE, &info), E_FAIL);
    EXPECT_EQ(info, nullptr);
    EXPECT_EQ(manager.CreateOrOpen(name, 10, 0x12345, &info), E_FAIL);
    EXPECT_EQ(manager.Create(name, 10, PAGE_NOACCESS, nullptr), E_FAIL);
    for (const ULONG size : {0xFFFFFFF8u, 0xFFFFFFF9u, 0xFFFFFFFFu}) {
        EXPECT_EQ(manager.Create(name, size, PAGE_READWRITE, &info), E_FAIL) << size;
    }
    EXPECT_EQ(manager.Create(name, 0, PAGE_READWRITE, &info), S_OK);  // room for the header
    EXPECT_THAT(stored(u"cannot"), IsHeader(8u, 0u));
}

TEST(SharedMemManager, ARegionThatMayNotBeWritten) {
    SharedMemManager manager;
    Name name(u"read only");
    Info* info = nullptr;
    ASSERT_EQ(manager.Create(name, 100, PAGE_READONLY, &info), S_OK);
    unsigned char* content = nullptr;
    Header header{};
    EXPECT_EQ(manager.GetHeader(name, &header), E_ACCESSDENIED);
    EXPECT_EQ(manager.GetContent(name, &content, nullptr), E_ACCESSDENIED);
    EXPECT_EQ(content, nullptr);
    EXPECT_EQ(set(manager, name, bytes(3)), E_ACCESSDENIED);
    EXPECT_EQ(manager.CleanContent(name), S_OK);
    EXPECT_EQ(manager.Release(name), S_OK);
}

// What stands in a region's header comes from other processes: it is not believed beyond what can be mapped.
TEST(SharedMemManager, AHeaderThatLies) {
    SharedMemManager manager;
    Name name(u"lies");
    ASSERT_EQ(manager.Create(name, 100, PAGE_READWRITE, nullptr), S_OK);
    const HANDLE mapping = CreateFileMappingW(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 1, name);
    auto* fields = static_cast<ULONG*>(MapViewOfFile(mapping, FILE_MAP_ALL_ACCESS, 0, 0, 8));
    ASSERT_NE(fields, nullptr);
    fields[0] = 0xFFFFFFFF;
    fields[1] = 0xFFFFFFFF;
    unsigned char* content = nullptr;
    Header header{};
    EXPECT_EQ(manager.GetHeader(name, &header), S_OK);
    EXPECT_THAT(header, IsHeader(0xFFFFFFFFu, 0xFFFFFFFFu));
    EXPECT_EQ(manager.GetContent(name, &content, &header), E_ACCESSDENIED);
    EXPECT_EQ(set(manager, name, bytes(100000)), E_ACCESSDENIED);
    EXPECT_EQ(set(manager, name, bytes(50)), S_OK);
    EXPECT_EQ(fields[1], 50u);
    fields[0] = 0;  // no size: no header to write, and nothing fits
    SharedMemManager other;
    ASSERT_EQ(other.Open(name, PAGE_READWRITE, nullptr), S_OK);
    EXPECT_EQ(other.CleanContent(name), S_OK);
    EXPECT_EQ(fields[1], 50u);
    EXPECT_EQ(set(other, name, bytes(1)), E_OUTOFMEMORY);
    UnmapViewOfFile(fields);
    CloseHandle(mapping);
}

TEST(SharedMemManager, ReleaseAllAndTheEndGiveEverythingBack) {
    const LONGLONG handles = ZrLiveObjects(ZrLiveKind::Handles);
    {
        SharedMemManager manager;
        EXPECT_EQ(manager.ReleaseAll(), S_OK);
        for (const char16_t* text : {u"a", u"b", u"c"}) {
            Name name(text);
            ASSERT_EQ(manager.Create(name, 10, PAGE_READWRITE, nullptr), S_OK);
            unsigned char* content = nullptr;
            ASSERT_EQ(manager.GetContent(name, &content, nullptr), S_OK);
        }
        Name b(u"b");
        EXPECT_EQ(manager.Release(b), S_OK);
        EXPECT_EQ(manager.ReleaseAll(), S_OK);
        EXPECT_EQ(manager.ReleaseAll(), S_OK);
        EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), handles);
        ASSERT_EQ(manager.Create(b, 10, PAGE_READWRITE, nullptr), S_OK);
    }
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), handles);
}

TEST(SharedMemManager, ReleaseAllSaysWhatCouldNotBeGivenBack) {
    SharedMemManager manager;
    Name name(u"taken away");
    Info* info = nullptr;
    ASSERT_EQ(manager.Create(name, 10, PAGE_READWRITE, &info), S_OK);
    ASSERT_TRUE(CloseHandle(info->mapping));
    EXPECT_EQ(manager.ReleaseAll(), E_FAIL);
    EXPECT_EQ(manager.ReleaseAll(), S_OK);
}

TEST(SharedMemInfo, IdentifiersAreCopies) {
    Info info;
    EXPECT_EQ(info.identifier, nullptr);
    Name name(u"identifier");
    info.SetIdentifier(name, 5);
    EXPECT_EQ(std::u16string(info.identifier), u"ident");
    info.SetIdentifier(name, 5000);  // no further than its end
    EXPECT_EQ(std::u16string(info.identifier), u"identifier");
    info.SetIdentifier(info.identifier, 2);  // from itself
    EXPECT_EQ(std::u16string(info.identifier), u"id");
    info.SetIdentifier(name, 0);
    EXPECT_EQ(std::u16string(info.identifier), u"");
    info.SetIdentifier(nullptr, 3);
    EXPECT_EQ(info.identifier, nullptr);
    info.SetIdentifier(name, 3);
    info.header = {5, 6};
    info.ReleaseMem();
    EXPECT_EQ(info.identifier, nullptr);
    EXPECT_THAT(info.header, IsHeader(0u, 0u));
    info.ReleaseMem();
}

TEST(SharedMemManager, ShortOfMemory) {
    SharedMemManager manager;
    Name name(u"short of memory");
    const LONGLONG handles = ZrLiveObjects(ZrLiveKind::Handles);
    // The platform needs memory of its own, some of which it keeps from the first time; then it is the identifier's
    // turn.
    bool refused = false;
    bool made = false;
    for (int attempt = 0; attempt < 40; ++attempt) {
        const int successes = attempt % 20;
        Info* info = reinterpret_cast<Info*>(1);
        LONG result = S_OK;
        {
            const zr::test::FailingNew failing(successes);
            result = manager.Create(name, 10, PAGE_READWRITE, &info);
        }
        if (result == S_OK) {
            made = true;
            EXPECT_NE(info, nullptr);
            EXPECT_EQ(manager.Release(name), S_OK);
        } else {
            refused = refused || result == E_OUTOFMEMORY;
            EXPECT_TRUE(result == E_OUTOFMEMORY || result == E_FAIL) << result;
            EXPECT_EQ(info, nullptr);
            EXPECT_EQ(manager.Release(name), E_INVALIDARG);
        }
        EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Handles), handles);
    }
    EXPECT_TRUE(refused);
    EXPECT_TRUE(made);
    EXPECT_EQ(manager.Create(name, 10, PAGE_READWRITE, nullptr), S_OK);
    EXPECT_THAT(stored(u"short of memory"), IsHeader(18u, 0u));
}

// ---- Two processes

// Creates "between" and does what the test says, word for word.
ZR_CHILD(shared_memory_peer) {
    SharedMemManager manager;
    Name name(u"between");
    for (std::string order = hear(); !order.empty(); order = hear()) {
        if (order == "create") {
            say(std::to_string(manager.Create(name, 100, PAGE_READWRITE, nullptr)));
        } else if (order == "open") {
            say(std::to_string(manager.Open(name, PAGE_READWRITE, nullptr)));
        } else if (order == "read") {
            manager.Release(name);
            manager.Open(name, PAGE_READWRITE, nullptr);
            unsigned char* content = nullptr;
            Header header{};
            manager.GetContent(name, &content, &header);
            say(std::string(reinterpret_cast<char*>(content), header.contentLength));
        } else if (order == "release") {
            say(std::to_string(manager.Release(name)));
        } else {
            std::vector<unsigned char> data(order.begin(), order.end());
            say(std::to_string(set(manager, name, data)));
        }
    }
    return 0;
}

namespace {

std::string ask(Child& child, const std::string& order) {
    child.say(order);
    return child.hear();
}

}  // namespace

TEST(SharedMemProcesses, OneCreatesAndTheOtherOpens) {
    Child child("shared_memory_peer");
    ASSERT_EQ(ask(child, "create"), "0");
    SharedMemManager manager;
    Name name(u"between");
    Info* info = reinterpret_cast<Info*>(1);
    EXPECT_EQ(manager.Create(name, 100, PAGE_READWRITE, &info), E_FAIL);
    EXPECT_EQ(info, nullptr);
    ASSERT_EQ(manager.Open(name, PAGE_READWRITE, &info), S_OK);
    EXPECT_NE(info->identifier, nullptr);
    EXPECT_EQ(ask(child, "greetings"), "0");
    EXPECT_EQ(stored_content(u"between"), (std::vector<unsigned char>{'g', 'r', 'e', 'e', 't', 'i', 'n', 'g', 's'}));
    ASSERT_EQ(set(manager, name, {'b', 'a', 'c', 'k'}), S_OK);
    EXPECT_EQ(ask(child, "read"), "back");
    // It lives on with the one that is left.
    EXPECT_EQ(ask(child, "release"), "0");
    EXPECT_EQ(ask(child, "open"), "0");
    EXPECT_EQ(ask(child, "release"), "0");
    EXPECT_EQ(manager.Release(name), S_OK);
    EXPECT_EQ(ask(child, "open"), std::to_string(E_INVALIDARG));
    EXPECT_EQ(ask(child, "create"), "0");
    EXPECT_EQ(ask(child, "read"), "");
}

TEST(SharedMemProcesses, ARegionOfAKilledProcessIsGone) {
    SharedMemManager manager;
    Name name(u"between");
    for (int round = 0; round < 20; ++round) {
        Child child("shared_memory_peer");
        ASSERT_EQ(ask(child, "create"), "0");
        ASSERT_EQ(ask(child, "written"), "0");
        EXPECT_EQ(manager.Create(name, 100, PAGE_READWRITE, nullptr), E_FAIL);
        child.kill(SIGKILL);
        child.wait();
        EXPECT_EQ(manager.Open(name, PAGE_READWRITE, nullptr), E_INVALIDARG);
        ASSERT_EQ(manager.Create(name, 100, PAGE_READWRITE, nullptr), S_OK);
        EXPECT_THAT(stored(u"between"), IsHeader(108u, 0u));
        EXPECT_EQ(manager.Release(name), S_OK);
    }
}

// ---- Random calls beside a model: what each region holds and what each slot remembers.

namespace {

class ManagerModel {
public:
    explicit ManagerModel(unsigned seed) : random_(seed) {}

    void step() {
        const std::size_t which = below(kManagers);
        const std::u16string text(1, static_cast<char16_t>(u'a' + below(7)));
        switch (below(8)) {
            case 0:
                return create(which, text);
            case 1:
                return open(which, text);
            case 2:
                return release(which, text);
            case 3:
                return clean(which, text);
            case 4:
            case 5:
                return write(which, text);
            default:
                return read(which, text);
        }
    }

private:
    static constexpr std::size_t kManagers = 2;
    struct Region {
        ULONG size;
        std::vector<unsigned char> content;
        int users;
    };
    using Slots = std::map<std::u16string, std::optional<Header>>;  // open here, and the header once it was read

    std::size_t below(std::size_t limit) { return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random_); }

    void create(std::size_t which, const std::u16string& text) {
        Name name(text);
        const ULONG size = static_cast<ULONG>(below(9000));
        const LONG result = managers_[which].Create(name, size, PAGE_READWRITE, nullptr);
        if (slots_[which].size() == 5) {
            ASSERT_EQ(result, E_OUTOFMEMORY);
        } else if (regions_.contains(text)) {
            ASSERT_EQ(result, E_FAIL);
        } else {
            ASSERT_EQ(result, S_OK);
            regions_[text] = {size + 8, {}, 1};
            slots_[which][text] = {};
        }
    }
    void open(std::size_t which, const std::u16string& text) {
        Name name(text);
        const LONG result = managers_[which].Open(name, PAGE_READWRITE, nullptr);
        if (slots_[which].contains(text)) {
            ASSERT_EQ(result, S_OK);
        } else if (slots_[which].size() == 5) {
            ASSERT_EQ(result, E_OUTOFMEMORY);
        } else if (!regions_.contains(text)) {
            ASSERT_EQ(result, E_INVALIDARG);
        } else {
            ASSERT_EQ(result, S_OK);
            ++regions_[text].users;
            slots_[which][text] = {};
        }
    }
    void release(std::size_t which, const std::u16string& text) {
        Name name(text);
        const LONG result = managers_[which].Release(name);
        ASSERT_EQ(result, slots_[which].contains(text) ? S_OK : E_INVALIDARG);
        if (slots_[which].erase(text) != 0 && --regions_[text].users == 0) regions_.erase(text);
    }
    const Header& remembered(std::size_t which, const std::u16string& text) {
        std::optional<Header>& header = slots_[which][text];
        const Region& region = regions_[text];
        if (!header) header = Header{region.size, static_cast<ULONG>(region.content.size())};
        return *header;
    }
    void clean(std::size_t which, const std::u16string& text) {
        Name name(text);
        const LONG result = managers_[which].CleanContent(name);
        ASSERT_EQ(result, slots_[which].contains(text) ? S_OK : E_INVALIDARG);
        if (result != S_OK) return;
        remembered(which, text);
        regions_[text].content.clear();
    }
    void write(std::size_t which, const std::u16string& text) {
        Name name(text);
        std::vector<unsigned char> data = bytes(1 + below(9000), static_cast<unsigned char>(below(256)));
        const LONG result = managers_[which].SetContent(name, data.data(), static_cast<ULONG>(data.size()));
        if (!slots_[which].contains(text)) {
            ASSERT_EQ(result, E_INVALIDARG);
            return;
        }
        const ULONG size = remembered(which, text).size;
        const std::size_t whole_pages = (std::size_t{size} + 4095) / 4096 * 4096;
        if (data.size() >= size) {
            ASSERT_EQ(result, E_OUTOFMEMORY);
        } else if (data.size() + 8 > whole_pages) {
            ASSERT_EQ(result, E_ACCESSDENIED);
        } else {
            ASSERT_EQ(result, S_OK);
            regions_[text].content = data;
        }
    }
    void read(std::size_t which, const std::u16string& text) {
        Name name(text);
        unsigned char* content = nullptr;
        Header header{};
        const LONG result = managers_[which].GetContent(name, &content, &header);
        if (!slots_[which].contains(text)) {
            ASSERT_EQ(result, E_INVALIDARG);
            return;
        }
        ASSERT_EQ(result, S_OK);
        const Header& expected = remembered(which, text);
        ASSERT_THAT(header, IsHeader(expected.size, expected.contentLength));
        const std::vector<unsigned char>& region = regions_[text].content;
        const std::size_t common = std::min<std::size_t>(header.contentLength, region.size());
        ASSERT_TRUE(std::equal(content, content + common, region.begin()));
    }

    std::mt19937 random_;
    SharedMemManager managers_[kManagers];
    Slots slots_[kManagers];
    std::map<std::u16string, Region> regions_;
};

}  // namespace

TEST(SharedMemManager, RandomCallsAgreeWithAModel) {
    for (unsigned seed = 0; seed < 10; ++seed) {
        ManagerModel model(seed);
        for (int step = 0; step < 300; ++step) {
            model.step();
            if (HasFatalFailure()) FAIL() << "seed " << seed << " step " << step;
        }
    }
}
