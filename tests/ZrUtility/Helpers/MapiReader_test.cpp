#include "ZrUtility/Helpers/MapiReader.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <optional>
#include <type_traits>

#include "ZrUtility/Helpers/fake_mapi.h"
#include "platform/diagnostics.h"
#include "support/failing_new.h"

namespace mapi_reader_test {
namespace {

using testing::ElementsAre;
using zr::test::FakeMapi;

constexpr ULONG PR_COUNT = PROP_TAG(PT_LONG, 0x6001);
constexpr ULONG PR_ABSENT = PROP_TAG(PT_LONG, 0x6002);
constexpr ULONG PR_BYTES = PROP_TAG(PT_BINARY, 0x6003);
constexpr ULONG PR_TEXT = PROP_TAG(PT_UNICODE, 0x6004);

LONGLONG buffers() {
    return ZrLiveObjects(ZrLiveKind::MapiBuffers);
}

class MapiReaderTest : public testing::Test {
protected:
    MapiReaderTest() {
        world_.objects["m"] = {MAPI_MESSAGE, {{PR_COUNT, 7u}, {PR_BYTES, "by\xFFtes"}, {PR_TEXT, u"text"}}};
        message_ = world_.open("m");
        news_ = zr::test::live_news();
    }
    ~MapiReaderTest() override {
        // What the fake wrote down is no reader's.
        std::vector<std::string>().swap(world_.calls);
        world_.results.clear();
        EXPECT_EQ(zr::test::live_news(), news_);
        message_->Release();
        EXPECT_EQ(world_.alive, 0);
        EXPECT_EQ(buffers(), buffers_);
    }

    MapiReader read_three() { return MapiReader::ReadMapiProperties(message_, 3, PR_COUNT, PR_ABSENT, PR_BYTES); }

    const LONGLONG buffers_ = buffers();
    FakeMapi world_;
    IMAPIProp* message_ = nullptr;
    long news_ = 0;
};

// What a walk saw.
struct Walk {
    std::vector<ULONG> tags;
    std::vector<ULONG> types;
    std::vector<ULONG> indices;
    std::vector<ULONG> value_tags;
    int stop_at = -1;
};

LONG note(ULONG tag, ULONG type, ULONG index, SPropValue* value, void* context, int* stop) {
    auto* walk = static_cast<Walk*>(context);
    walk->tags.push_back(tag);
    walk->types.push_back(type);
    walk->indices.push_back(index);
    walk->value_tags.push_back(value->ulPropTag);
    if (static_cast<int>(index) == walk->stop_at) *stop = 1;
    return -10 - static_cast<LONG>(index);
}

}  // namespace

TEST(MapiReader, HasNothingWhenDefaultConstructed) {
    MapiReader reader;
    EXPECT_EQ(static_cast<ULONG>(reader.GetResultCode()), 0x80004005u);
    EXPECT_FALSE(reader.HasProp(PR_COUNT));
    EXPECT_EQ(reader.GetULProperty(PR_COUNT), 0u);
    ULONG size = 77;
    BYTE byte = 0;
    BYTE* bytes = &byte;
    EXPECT_EQ(reader.GetBinaryProperty(PR_BYTES, &size, &bytes), E_FAIL);
    EXPECT_EQ(size, 77u);
    EXPECT_EQ(bytes, &byte);
    EXPECT_EQ(reader.GetPropertiesRead(), 0u);
    Walk walk;
    EXPECT_EQ(reader.ForAllReadProperties(note, &walk), 0);
    EXPECT_TRUE(walk.tags.empty());
    MapiReader other;
    reader = other;
    EXPECT_EQ(reader.GetResultCode(), E_FAIL);
}

static_assert(std::has_virtual_destructor_v<MapiReader>);

TEST_F(MapiReaderTest, ReadsAllTagsInOneCall) {
    {
        MapiReader reader = read_three();
        EXPECT_THAT(world_.calls, ElementsAre("GetProps m 60010003 60020003 60030102"));
        EXPECT_EQ(reader.GetResultCode(), MAPI_W_ERRORS_RETURNED);
        EXPECT_EQ(buffers(), buffers_ + 1);
        EXPECT_EQ(reader.GetULProperty(PR_COUNT), 7u);
        ULONG size = 0;
        BYTE* bytes = nullptr;
        EXPECT_EQ(reader.GetBinaryProperty(PR_BYTES, &size, &bytes), S_OK);
        EXPECT_EQ(std::string(reinterpret_cast<char*>(bytes), size), "by\xFFtes");
        // Not a copy.
        BYTE* again = nullptr;
        EXPECT_EQ(reader.GetBinaryProperty(PR_BYTES, &size, &again), S_OK);
        EXPECT_EQ(again, bytes);
        EXPECT_EQ(world_.calls.size(), 1u);
    }
    EXPECT_EQ(buffers(), buffers_);
}

TEST_F(MapiReaderTest, OneTagIsReadLikeMany) {
    MapiReader reader = MapiReader::ReadMapiProperty(message_, PR_COUNT);
    EXPECT_THAT(world_.calls, ElementsAre("GetProps m 60010003"));
    EXPECT_EQ(reader.GetResultCode(), S_OK);
    EXPECT_EQ(reader.GetULProperty(PR_COUNT), 7u);
}

TEST_F(MapiReaderTest, NoTagsAreAskedForToo) {
    MapiReader reader = MapiReader::ReadMapiProperties(message_, 0);
    EXPECT_THAT(world_.calls, ElementsAre("GetProps m"));
    EXPECT_EQ(reader.GetPropertiesRead(), 0u);
    SPropTagArray* tags = nullptr;
    EXPECT_EQ(reader.GetTagsRead(&tags), S_OK);
    ASSERT_NE(tags, nullptr);
    EXPECT_EQ(tags->cValues, 0u);
}

TEST_F(MapiReaderTest, WhatIsMissingIsInvisible) {
    MapiReader reader = read_three();
    EXPECT_EQ(reader.GetPropertiesRead(), 2u);
    EXPECT_FALSE(reader.HasProp(PR_ABSENT));
    EXPECT_EQ(reader.GetULProperty(PR_ABSENT), 0u);
    EXPECT_TRUE(reader.HasProp(PR_COUNT));
    EXPECT_TRUE(reader.HasProp(PR_BYTES));
    // The whole tag counts.
    EXPECT_FALSE(reader.HasProp(CHANGE_PROP_TYPE(PR_COUNT, PT_UNICODE)));
    SPropTagArray* tags = nullptr;
    EXPECT_EQ(reader.GetTagsRead(&tags), S_OK);
    ASSERT_NE(tags, nullptr);
    ASSERT_EQ(tags->cValues, 2u);
    EXPECT_EQ(tags->aulPropTag[0], PR_COUNT);
    EXPECT_EQ((&tags->aulPropTag[0])[1], PR_BYTES);
    SPropTagArray* again = nullptr;
    EXPECT_EQ(reader.GetTagsRead(&again), S_OK);
    EXPECT_EQ(again, tags);
}

TEST_F(MapiReaderTest, AnErrorEntryIsFoundByItsOwnTag) {
    // The lookups compare tags and nothing else: the entry of a missing property has one, of type PT_ERROR.
    MapiReader reader = read_three();
    EXPECT_TRUE(reader.HasProp(CHANGE_PROP_TYPE(PR_ABSENT, PT_ERROR)));
}

TEST_F(MapiReaderTest, AWalkVisitsWhatWasRead) {
    MapiReader reader = read_three();
    Walk walk;
    EXPECT_EQ(reader.ForAllReadProperties(note, &walk), -11);
    EXPECT_THAT(walk.tags, ElementsAre(PR_COUNT, PR_BYTES));
    EXPECT_THAT(walk.types, ElementsAre(PT_LONG, PT_BINARY));
    EXPECT_THAT(walk.indices, ElementsAre(0, 1));
    EXPECT_EQ(walk.value_tags, walk.tags);
}

TEST_F(MapiReaderTest, AWalkEndsWhereItIsStopped) {
    MapiReader reader = read_three();
    Walk walk;
    walk.stop_at = 0;
    EXPECT_EQ(reader.ForAllReadProperties(note, &walk), -10);
    EXPECT_THAT(walk.tags, ElementsAre(PR_COUNT));
}

TEST_F(MapiReaderTest, AFailedReadHoldsItsResult) {
    world_.results["GetProps m 60010003"] = MAPI_E_OBJECT_DELETED;
    MapiReader reader = MapiReader::ReadMapiProperty(message_, PR_COUNT);
    EXPECT_EQ(reader.GetResultCode(), MAPI_E_OBJECT_DELETED);
    EXPECT_FALSE(reader.HasProp(PR_COUNT));
    EXPECT_EQ(reader.GetULProperty(PR_COUNT), 0u);
    ULONG size = 0;
    BYTE* bytes = nullptr;
    EXPECT_EQ(reader.GetBinaryProperty(PR_COUNT, &size, &bytes), E_FAIL);
    EXPECT_EQ(reader.GetPropertiesRead(), 0u);
    // It can be copied like any other.
    MapiReader copy = reader;
    EXPECT_EQ(copy.GetResultCode(), MAPI_E_OBJECT_DELETED);
}

TEST_F(MapiReaderTest, CopiesShareTheValuesAndTheLastOneFreesThem) {
    std::optional<MapiReader> first(read_three());
    std::optional<MapiReader> second(first);
    MapiReader third;
    third = *second;
    EXPECT_EQ(buffers(), buffers_ + 1);
    ULONG size = 0;
    BYTE* mine = nullptr;
    BYTE* theirs = nullptr;
    EXPECT_EQ(first->GetBinaryProperty(PR_BYTES, &size, &mine), S_OK);
    EXPECT_EQ(third.GetBinaryProperty(PR_BYTES, &size, &theirs), S_OK);
    EXPECT_EQ(mine, theirs);
    first.reset();
    EXPECT_EQ(buffers(), buffers_ + 1);
    second.reset();
    EXPECT_EQ(buffers(), buffers_ + 1);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(theirs), size), "by\xFFtes");
    third = MapiReader::ReadMapiProperty(message_, PR_TEXT);
    EXPECT_EQ(buffers(), buffers_ + 1);
    EXPECT_TRUE(third.HasProp(PR_TEXT));
    EXPECT_FALSE(third.HasProp(PR_COUNT));
}

TEST_F(MapiReaderTest, AssigningWhatIsSharedAlreadyChangesNothing) {
    MapiReader first = read_three();
    MapiReader second = first;
    MapiReader& self = first;
    EXPECT_EQ(&(first = self), &first);
    EXPECT_EQ(&(first = second), &first);
    EXPECT_EQ(buffers(), buffers_ + 1);
    EXPECT_EQ(first.GetULProperty(PR_COUNT), 7u);
    // A list of tags that only the other one has is not taken over.
    SPropTagArray* tags = nullptr;
    ASSERT_EQ(second.GetTagsRead(&tags), S_OK);
    first = second;
    SPropTagArray* own = nullptr;
    ASSERT_EQ(first.GetTagsRead(&own), S_OK);
    EXPECT_NE(own, tags);
    // Of the two, the one of the copy that goes last is freed with the values, the other one by nobody.
    delete[] reinterpret_cast<ULONG*>(tags);
}

TEST_F(MapiReaderTest, AListOfTagsIsPassedOnToLaterCopiesOnly) {
    SPropTagArray* tags = nullptr;
    SPropTagArray* of_copy = nullptr;
    MapiReader first = read_three();
    ASSERT_EQ(first.GetTagsRead(&tags), S_OK);
    MapiReader later = first;
    EXPECT_EQ(later.GetTagsRead(&of_copy), S_OK);
    EXPECT_EQ(of_copy, tags);
}

TEST_F(MapiReaderTest, WithoutMemoryForTheListOfTagsThereIsNone) {
    MapiReader reader = read_three();
    SPropTagArray filled = {};
    SPropTagArray* tags = &filled;
    {
        const zr::test::FailingNew failing;
        EXPECT_EQ(reader.GetTagsRead(&tags), E_OUTOFMEMORY);
    }
    EXPECT_EQ(tags, nullptr);
    EXPECT_EQ(reader.GetTagsRead(&tags), S_OK);
    EXPECT_NE(tags, nullptr);
}

TEST_F(MapiReaderTest, WithoutMemoryNothingIsRead) {
    // The fake's own memory aside: the first allocation is the list of tags, which stops the call before it.
    const auto read_without_memory = [this] {
        const zr::test::FailingNew failing;
        return MapiReader::ReadMapiProperty(message_, PR_COUNT);
    };
    MapiReader reader = read_without_memory();
    EXPECT_EQ(reader.GetResultCode(), E_OUTOFMEMORY);
    EXPECT_EQ(reader.GetPropertiesRead(), 0u);
    EXPECT_TRUE(world_.calls.empty());
}

// What a program does with a reader that memory was too short for is what it does with any other.
TEST_F(MapiReaderTest, AReaderThatMemoryWasTooShortForIsCopiedAndAssigned) {
    const auto read_with = [this](int allocations) {
        world_.calls.clear();
        const zr::test::FailingNew failing(allocations);
        return MapiReader::ReadMapiProperty(message_, PR_COUNT);
    };
    int allocations = 64;
    ASSERT_EQ(read_with(allocations).GetResultCode(), S_OK);
    // The last allocation of a reading is the counter, when the values are there already.
    while (read_with(--allocations).GetResultCode() == S_OK) {
        ASSERT_GT(allocations, 0);
    }
    const MapiReader without_memory = read_with(allocations);
    EXPECT_EQ(without_memory.GetResultCode(), E_OUTOFMEMORY);
    EXPECT_EQ(buffers(), buffers_) << "nobody would give the values back";

    MapiReader copy = without_memory;
    EXPECT_EQ(copy.GetResultCode(), E_OUTOFMEMORY);
    EXPECT_FALSE(copy.HasProp(PR_COUNT));
    EXPECT_EQ(copy.GetPropertiesRead(), 0u);
    MapiReader full = read_three();
    full = without_memory;
    EXPECT_EQ(buffers(), buffers_) << "the values that it had were its own";
    EXPECT_EQ(full.GetResultCode(), E_OUTOFMEMORY);
    full = read_three();
    EXPECT_EQ(full.GetULProperty(PR_COUNT), 7u);
}

}  // namespace mapi_reader_test
