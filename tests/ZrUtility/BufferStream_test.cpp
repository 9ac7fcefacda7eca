#include "ZrUtility/BufferStream.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <string>
#include <string_view>

#include "platform/base.h"
#include "platform/diagnostics.h"
#include "support/slots.h"

namespace {

using zr::test::call_slot;

LARGE_INTEGER moveBy(LONGLONG move) {
    LARGE_INTEGER value;
    value.QuadPart = move;
    return value;
}

ULARGE_INTEGER size(ULONGLONG bytes) {
    ULARGE_INTEGER value;
    value.QuadPart = bytes;
    return value;
}

HRESULT seek(BufferStream& stream, LONGLONG move, DWORD origin = STREAM_SEEK_SET) {
    return stream.Seek(moveBy(move), origin, nullptr);
}

void write(BufferStream& stream, std::string_view text) {
    ULONG written = 0;
    ASSERT_EQ(stream.Write(text.data(), static_cast<ULONG>(text.size()), &written), S_OK);
    ASSERT_EQ(written, text.size());
}

// All of a stream's data, whatever its position.
std::string data(BufferStream& stream) {
    return {reinterpret_cast<char*>(stream.GetBuffer()), stream.GetLength()};
}

std::string read(BufferStream& stream, ULONG count) {
    std::string text(count, '?');
    ULONG got = 99;
    EXPECT_EQ(stream.Read(text.data(), count, &got), S_OK);
    return text.substr(0, got);
}

// A heap that fails after some allocations.
class FailingHeap {
public:
    explicit FailingHeap(LONGLONG successes = 0) { ZrFailHeapAfter(successes); }
    ~FailingHeap() { ZrFailHeapAfter(-1); }
    FailingHeap(const FailingHeap&) = delete;
    FailingHeap& operator=(const FailingHeap&) = delete;
};

TEST(BufferStream, StartsEmptyWithABlock) {
    EXPECT_EQ(BufferStream::LAZY_CAPACITY, 4096u);
    BufferStream stream;
    EXPECT_GE(stream.GetSize(), 4096u);
    EXPECT_EQ(stream.GetLength(), 0u);
    EXPECT_EQ(stream.GetCurrentPos(), 0u);
    EXPECT_TRUE(stream.IsEndOfStream());
    EXPECT_EQ(std::string(reinterpret_cast<char*>(stream.GetBuffer()), 4096), std::string(4096, '\0'));
}

TEST(BufferStream, GrowsOnceWithRoomToSpare) {
    BufferStream stream;
    write(stream, std::string(5000, 'x'));
    EXPECT_GE(stream.GetSize(), 9096u);
    EXPECT_EQ(stream.GetCurrentPos(), 5000u);
    EXPECT_EQ(stream.GetLength(), 5000u);
    const unsigned char* block = stream.GetBuffer();
    write(stream, std::string(4096, 'y'));
    EXPECT_EQ(stream.GetBuffer(), block);
    EXPECT_EQ(data(stream), std::string(5000, 'x') + std::string(4096, 'y'));
}

TEST(BufferStream, EnsureMakesRoomBehindTheData) {
    BufferStream stream;
    write(stream, "abc");
    const unsigned int capacity = stream.GetSize();
    EXPECT_EQ(stream.Ensure(capacity - 3), S_OK);
    EXPECT_EQ(stream.GetSize(), capacity);
    EXPECT_EQ(stream.Ensure(capacity - 2), S_OK);
    EXPECT_GE(stream.GetSize(), capacity + 4096 + 1);
    EXPECT_EQ(data(stream), "abc");
    EXPECT_EQ(std::string(reinterpret_cast<char*>(stream.GetBuffer()) + capacity, 4096), std::string(4096, '\0'));
}

TEST(BufferStream, EnsureRefusesWhatPasses32Bits) {
    BufferStream stream;
    write(stream, "abc");
    EXPECT_EQ(stream.Ensure(std::numeric_limits<unsigned int>::max()), E_FAIL);
    EXPECT_EQ(data(stream), "abc");
    EXPECT_EQ(stream.SetSize(size(0x100000000)), E_OUTOFMEMORY);
    EXPECT_EQ(data(stream), "abc");
}

TEST(BufferStream, ResetZeroesTheBlock) {
    BufferStream stream;
    write(stream, std::string(5000, 'x'));
    const unsigned int capacity = stream.GetSize();
    stream.Reset();
    EXPECT_EQ(stream.GetLength(), 0u);
    EXPECT_EQ(stream.GetCurrentPos(), 0u);
    EXPECT_EQ(stream.GetSize(), capacity);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(stream.GetBuffer()), capacity), std::string(capacity, '\0'));
}

TEST(BufferStream, ReadsWhatIsLeft) {
    BufferStream stream;
    write(stream, "abcde");
    EXPECT_EQ(read(stream, 5), "");
    ASSERT_EQ(seek(stream, 1), S_OK);
    EXPECT_FALSE(stream.IsEndOfStream());
    EXPECT_EQ(read(stream, 2), "bc");
    EXPECT_EQ(stream.GetCurrentPos(), 3u);
    EXPECT_EQ(read(stream, 100), "de");
    EXPECT_TRUE(stream.IsEndOfStream());
    char byte = 'x';
    EXPECT_EQ(stream.Read(&byte, 1, nullptr), S_OK);
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(stream.Read(nullptr, 0, nullptr), E_POINTER);
}

TEST(BufferStream, WritesOverAndBeyond) {
    BufferStream stream;
    write(stream, "abcde");
    ASSERT_EQ(seek(stream, 3), S_OK);
    write(stream, "XYZ");
    EXPECT_EQ(data(stream), "abcXYZ");
    ASSERT_EQ(seek(stream, 0), S_OK);
    write(stream, "12");
    EXPECT_EQ(data(stream), "12cXYZ");
    EXPECT_EQ(stream.GetCurrentPos(), 2u);
    write(stream, "");
    EXPECT_EQ(data(stream), "12cXYZ");
    ULONG written = 7;
    EXPECT_EQ(stream.Write(nullptr, 1, &written), E_POINTER);
    EXPECT_EQ(stream.Write("!", 1, nullptr), S_OK);
    EXPECT_EQ(data(stream), "12!XYZ");
}

TEST(BufferStream, SeeksBackwardsFromTheEnd) {
    BufferStream stream;
    write(stream, std::string(100, 'x'));
    ULARGE_INTEGER position = size(0);
    EXPECT_EQ(stream.Seek(moveBy(10), STREAM_SEEK_END, &position), S_OK);
    EXPECT_EQ(position.QuadPart, 90u);
    EXPECT_EQ(stream.GetCurrentPos(), 90u);
    EXPECT_EQ(stream.Seek(moveBy(-1), STREAM_SEEK_END, &position), STG_E_INVALIDFUNCTION);
    EXPECT_EQ(stream.Seek(moveBy(101), STREAM_SEEK_END, &position), STG_E_INVALIDFUNCTION);
    EXPECT_EQ(position.QuadPart, 90u);
    EXPECT_EQ(stream.GetCurrentPos(), 90u);
    EXPECT_EQ(seek(stream, 100, STREAM_SEEK_END), S_OK);
    EXPECT_EQ(stream.GetCurrentPos(), 0u);
}

TEST(BufferStream, SeeksFromTheStartAndThePosition) {
    BufferStream stream;
    write(stream, std::string(100, 'x'));
    EXPECT_EQ(seek(stream, 100), S_OK);
    EXPECT_EQ(seek(stream, 101), STG_E_INVALIDFUNCTION);
    EXPECT_EQ(seek(stream, -1), STG_E_INVALIDFUNCTION);
    EXPECT_EQ(seek(stream, 40), S_OK);
    EXPECT_EQ(seek(stream, 60, STREAM_SEEK_CUR), S_OK);
    EXPECT_EQ(seek(stream, 1, STREAM_SEEK_CUR), STG_E_INVALIDFUNCTION);
    EXPECT_EQ(seek(stream, -100, STREAM_SEEK_CUR), S_OK);
    EXPECT_EQ(seek(stream, -1, STREAM_SEEK_CUR), STG_E_INVALIDFUNCTION);
    EXPECT_EQ(seek(stream, 50), S_OK);
    ULARGE_INTEGER position = size(0);
    EXPECT_EQ(stream.Seek(moveBy(7), 3, &position), S_OK);
    EXPECT_EQ(position.QuadPart, 50u);
}

TEST(BufferStream, SeeksNowhereWithTheFarthestMoves) {
    BufferStream stream;
    write(stream, std::string(100, 'x'));
    ASSERT_EQ(seek(stream, 50), S_OK);
    for (const LONGLONG move : {std::numeric_limits<LONGLONG>::max(), std::numeric_limits<LONGLONG>::min(),
                                LONGLONG{0x100000000}, -LONGLONG{0x100000000}}) {
        for (const DWORD origin : {0u, 1u, 2u}) {
            EXPECT_EQ(seek(stream, move, origin), STG_E_INVALIDFUNCTION);
        }
        EXPECT_EQ(seek(stream, move, 9), S_OK);
        EXPECT_EQ(stream.GetCurrentPos(), 50u);
    }
}

TEST(BufferStream, SetSizePullsThePositionBack) {
    BufferStream stream;
    write(stream, "abcde");
    EXPECT_EQ(stream.SetSize(size(3)), S_OK);
    EXPECT_EQ(stream.GetCurrentPos(), 3u);
    EXPECT_EQ(data(stream), "abc");
    // The block keeps what stood there.
    EXPECT_EQ(stream.SetSize(size(7)), S_OK);
    EXPECT_EQ(stream.GetCurrentPos(), 3u);
    EXPECT_EQ(data(stream), std::string("abcde\0\0", 7));
    EXPECT_EQ(stream.SetSize(size(10000)), S_OK);
    EXPECT_EQ(data(stream), "abcde" + std::string(9995, '\0'));
    EXPECT_GE(stream.GetSize(), 10007u);
}

TEST(BufferStream, CopiesFromTheFirstByte) {
    BufferStream stream;
    write(stream, "abcdef");
    ASSERT_EQ(seek(stream, 3), S_OK);
    BufferStream target;
    write(target, "-");
    ULARGE_INTEGER offered = size(0);
    ULARGE_INTEGER taken = size(0);
    EXPECT_EQ(stream.CopyTo(&target, size(4), &offered, &taken), S_OK);
    EXPECT_EQ(offered.QuadPart, 4u);
    EXPECT_EQ(taken.QuadPart, 4u);
    EXPECT_EQ(stream.GetCurrentPos(), 3u);
    EXPECT_EQ(stream.CopyTo(&target, size(~ULONGLONG{0}), nullptr, nullptr), S_OK);
    EXPECT_EQ(data(target), "-abcdabcdef");
    EXPECT_EQ(stream.CopyTo(nullptr, size(4), &offered, &taken), E_POINTER);
}

TEST(BufferStream, CopiesToItself) {
    BufferStream stream;
    const std::string text(4000, 'x');
    write(stream, text);
    EXPECT_EQ(stream.CopyTo(&stream, size(4000), nullptr, nullptr), S_OK);
    EXPECT_EQ(data(stream), text + text);
}

TEST(BufferStream, CopyToReportsTheTargetsResult) {
    BufferStream stream;
    write(stream, std::string(6000, 'x'));
    BufferStream target;
    ULARGE_INTEGER offered = size(9);
    ULARGE_INTEGER taken = size(9);
    const FailingHeap failing;
    EXPECT_EQ(stream.CopyTo(&target, size(6000), &offered, &taken), E_OUTOFMEMORY);
    EXPECT_EQ(offered.QuadPart, 6000u);
    EXPECT_EQ(taken.QuadPart, 0u);
}

TEST(BufferStream, InsertsAtThePosition) {
    BufferStream stream;
    write(stream, "ABCDE");
    ASSERT_EQ(seek(stream, 2), S_OK);
    EXPECT_EQ(stream.Insert("xyz", 3), S_OK);
    EXPECT_EQ(data(stream), "ABxyzCDE");
    EXPECT_EQ(stream.GetCurrentPos(), 5u);
    EXPECT_EQ(stream.Insert("", 0), S_OK);
    EXPECT_EQ(stream.Insert(nullptr, 0), E_POINTER);
    EXPECT_EQ(data(stream), "ABxyzCDE");
    ASSERT_EQ(seek(stream, 0, STREAM_SEEK_END), S_OK);
    const std::string rest(5000, 'r');
    EXPECT_EQ(stream.Insert(rest.data(), 5000), S_OK);
    EXPECT_EQ(data(stream), "ABxyzCDE" + rest);
}

TEST(BufferStream, TakesItsOwnData) {
    const std::string text = std::string(3000, 'a') + std::string(1000, 'b');
    BufferStream inserted;
    write(inserted, text);
    ASSERT_EQ(seek(inserted, 3500), S_OK);
    EXPECT_EQ(inserted.Insert(inserted.GetBuffer() + 2000, 2000), S_OK);
    EXPECT_EQ(data(inserted), text.substr(0, 3500) + text.substr(2000) + text.substr(3500));
    BufferStream written;
    write(written, text);
    ASSERT_EQ(seek(written, 2000), S_OK);
    EXPECT_EQ(written.Write(written.GetBuffer() + 1000, 3000, nullptr), S_OK);
    EXPECT_EQ(data(written), text.substr(0, 2000) + text.substr(1000, 3000));
}

TEST(BufferStream, DeletesAtThePosition) {
    BufferStream stream;
    write(stream, "abcde");
    ASSERT_EQ(seek(stream, 3), S_OK);
    EXPECT_EQ(stream.Delete(10), S_OK);
    EXPECT_EQ(data(stream), "abc");
    EXPECT_EQ(stream.GetCurrentPos(), 3u);
    EXPECT_EQ(stream.Delete(1), S_OK);
    ASSERT_EQ(seek(stream, 0), S_OK);
    EXPECT_EQ(stream.Delete(0), S_OK);
    EXPECT_EQ(stream.Delete(2), S_OK);
    EXPECT_EQ(data(stream), "c");
    EXPECT_EQ(stream.Delete(std::numeric_limits<ULONG>::max()), S_OK);
    EXPECT_EQ(data(stream), "");
}

TEST(BufferStream, StatGivesTypeAndSizeAlone) {
    BufferStream stream;
    write(stream, "abc");
    STATSTG stat;
    std::memset(&stat, 0xFF, sizeof stat);
    for (const DWORD flag : {0u, 2u, 3u}) {
        EXPECT_EQ(stream.Stat(&stat, flag), E_NOTIMPL);
    }
    EXPECT_EQ(stat.type, 0xFFFFFFFFu);
    EXPECT_EQ(stream.Stat(nullptr, STATFLAG_NONAME), E_POINTER);
    EXPECT_EQ(stream.Stat(&stat, STATFLAG_NONAME), S_OK);
    EXPECT_EQ(stat.type, 4u);
    EXPECT_EQ(stat.cbSize.QuadPart, 3u);
    EXPECT_EQ(stat.pwcsName, nullptr);
    EXPECT_EQ(stat.mtime.dwLowDateTime | stat.ctime.dwHighDateTime | stat.atime.dwLowDateTime, 0u);
    EXPECT_EQ(stat.grfMode | stat.grfLocksSupported | stat.grfStateBits | stat.reserved, 0u);
    EXPECT_EQ(stat.clsid, GUID_NULL);
}

TEST(BufferStream, GivesNoInterface) {
    BufferStream stream;
    for (const IID& id : {IID_IUnknown, IID_IStream, IID_ISequentialStream}) {
        void* object = &stream;
        EXPECT_EQ(stream.QueryInterface(id, &object), E_NOINTERFACE);
        EXPECT_EQ(object, nullptr);
    }
    EXPECT_EQ(stream.QueryInterface(IID_IStream, nullptr), E_POINTER);
    EXPECT_EQ(stream.AddRef(), 2u);
    EXPECT_EQ(stream.Release(), 1u);
}

TEST(BufferStream, DoesNotOfferTheRest) {
    BufferStream stream;
    IStream* clone = nullptr;
    EXPECT_EQ(stream.Commit(0), E_NOTIMPL);
    EXPECT_EQ(stream.Revert(), E_NOTIMPL);
    EXPECT_EQ(stream.LockRegion(size(0), size(1), 0), E_NOTIMPL);
    EXPECT_EQ(stream.UnlockRegion(size(0), size(1), 0), E_NOTIMPL);
    EXPECT_EQ(stream.Clone(&clone), E_NOTIMPL);
}

// What a release callback saw.
struct Released {
    BufferStream* stream = nullptr;
    std::string data;
};

void onRelease(BufferStream* stream, void* context) {
    auto* released = static_cast<Released*>(context);
    released->stream = stream;
    released->data = data(*stream);
}

TEST(BufferStream, LastReleaseCallsBackAndFrees) {
    const LONGLONG before = ZrLiveObjects(ZrLiveKind::HeapBlocks);
    Released released;
    auto* stream = new BufferStream;
    write(*stream, "abc");
    stream->SetReleaseCallBack(onRelease, &released);
    EXPECT_EQ(stream->AddRef(), 2u);
    EXPECT_EQ(stream->Release(), 1u);
    EXPECT_EQ(released.stream, nullptr);
    EXPECT_EQ(stream->Release(), 0u);
    EXPECT_EQ(released.stream, stream);
    EXPECT_EQ(released.data, "abc");
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::HeapBlocks), before);
}

TEST(BufferStream, DestructorCallsBackToo) {
    Released released;
    {
        BufferStream stream;
        stream.SetReleaseCallBack(onRelease, &released);
    }
    EXPECT_NE(released.stream, nullptr);
    released.stream = nullptr;
    {
        BufferStream stream;
        stream.SetReleaseCallBack(onRelease, &released);
        stream.SetReleaseCallBack(nullptr, nullptr);
    }
    EXPECT_EQ(released.stream, nullptr);
}

// What a release callback is told when it counts.
struct Counted {
    int calls = 0;
    std::vector<ULONG> counts;
};

void onReleaseCount(BufferStream* stream, void* context) {
    auto* counted = static_cast<Counted*>(context);
    if (++counted->calls > 1) return;
    counted->counts = {stream->AddRef(), stream->Release(), stream->Release(), stream->AddRef(), stream->AddRef()};
}

TEST(BufferStream, TheCallbackMayCountAsItLikes) {
    const LONGLONG before = ZrLiveObjects(ZrLiveKind::HeapBlocks);
    Counted counted;
    auto* stream = new BufferStream;
    stream->SetReleaseCallBack(onReleaseCount, &counted);
    EXPECT_EQ(stream->Release(), 0u);
    EXPECT_EQ(counted.calls, 1);
    EXPECT_EQ(counted.counts, (std::vector<ULONG>{1, 0, 0xFFFFFFFF, 0, 1}));
    counted = {};
    {
        BufferStream onTheStack;
        onTheStack.SetReleaseCallBack(onReleaseCount, &counted);
    }
    EXPECT_EQ(counted.calls, 1);
    EXPECT_EQ(counted.counts, (std::vector<ULONG>{2, 1, 0, 1, 2}));
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::HeapBlocks), before);
}

// The copy is laid in memory that is never destroyed, as only one of the two may be.
TEST(BufferStream, CopiesShareTheBlock) {
    BufferStream stream;
    write(stream, "abc");
    stream.AddRef();
    alignas(BufferStream) unsigned char room[sizeof(BufferStream)];
    auto* copy = new (room) BufferStream(stream);
    EXPECT_EQ(copy->GetBuffer(), stream.GetBuffer());
    EXPECT_EQ(copy->GetLength(), 3u);
    EXPECT_EQ(copy->GetCurrentPos(), 3u);
    EXPECT_EQ(copy->GetSize(), stream.GetSize());
    EXPECT_EQ(copy->AddRef(), 3u);
    EXPECT_EQ(stream.AddRef(), 3u);
    write(stream, "d");
    *copy = stream;
    EXPECT_EQ(data(*copy), "abcd");
}

TEST(BufferStream, WithoutABlockStaysEmpty) {
    const LONGLONG before = ZrLiveObjects(ZrLiveKind::HeapBlocks);
    auto stream = [] {
        const FailingHeap failing;
        return std::make_unique<BufferStream>();
    }();
    EXPECT_EQ(stream->GetBuffer(), nullptr);
    EXPECT_EQ(stream->GetSize(), 0u);
    EXPECT_EQ(stream->Ensure(0), S_OK);
    EXPECT_EQ(stream->Ensure(1), E_FAIL);
    ULONG written = 9;
    EXPECT_EQ(stream->Write("a", 1, &written), E_OUTOFMEMORY);
    EXPECT_EQ(written, 0u);
    EXPECT_EQ(stream->Insert("a", 1), E_FAIL);
    EXPECT_EQ(stream->SetSize(size(1)), E_OUTOFMEMORY);
    EXPECT_EQ(read(*stream, 1), "");
    EXPECT_EQ(stream->Delete(1), S_OK);
    EXPECT_EQ(seek(*stream, 0), S_OK);
    stream->Reset();
    EXPECT_TRUE(stream->IsEndOfStream());
    stream.reset();
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::HeapBlocks), before);
}

TEST(BufferStream, LosesItsBlockWhenItCannotGrow) {
    const LONGLONG before = ZrLiveObjects(ZrLiveKind::HeapBlocks);
    BufferStream stream;
    write(stream, "abc");
    {
        const FailingHeap failing;
        EXPECT_EQ(stream.Ensure(5000), E_FAIL);
    }
    EXPECT_EQ(stream.GetBuffer(), nullptr);
    EXPECT_EQ(stream.GetSize(), 0u);
    EXPECT_EQ(stream.GetLength(), 0u);
    EXPECT_EQ(ZrLiveObjects(ZrLiveKind::HeapBlocks), before);
    EXPECT_EQ(read(stream, 3), "");
    EXPECT_EQ(stream.Ensure(1), E_FAIL);
}

TEST(BufferStream, FailsToWriteWhatDoesNotFit) {
    const std::string text(5000, 'x');
    BufferStream written;
    BufferStream inserted;
    BufferStream resized;
    const FailingHeap failing;
    ULONG count = 9;
    EXPECT_EQ(written.Write(text.data(), 5000, &count), E_OUTOFMEMORY);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(inserted.Insert(text.data(), 5000), E_FAIL);
    EXPECT_EQ(resized.SetSize(size(5000)), E_OUTOFMEMORY);
}

TEST(BufferStream, SlotsStandInOrder) {
    auto* stream = new BufferStream;
    void* object = stream;
    ULONG count = 0;
    EXPECT_EQ((call_slot<HRESULT, const IID*, void**>(stream, 0, &IID_IStream, &object)), E_NOINTERFACE);
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ((call_slot<ULONG>(stream, 1)), 2u);
    EXPECT_EQ((call_slot<ULONG>(stream, 2)), 1u);
    EXPECT_EQ((call_slot<HRESULT, const void*, ULONG, ULONG*>(stream, 4, "abcd", 4, &count)), S_OK);
    EXPECT_EQ((call_slot<HRESULT, LARGE_INTEGER, DWORD, ULARGE_INTEGER*>(stream, 5, moveBy(1), 0, nullptr)), S_OK);
    char byte = 0;
    EXPECT_EQ((call_slot<HRESULT, void*, ULONG, ULONG*>(stream, 3, &byte, 1, &count)), S_OK);
    EXPECT_EQ(byte, 'b');
    EXPECT_EQ((call_slot<HRESULT, ULARGE_INTEGER>(stream, 6, size(3))), S_OK);
    BufferStream target;
    EXPECT_EQ((call_slot<HRESULT, IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER*>(
                  stream, 7, &target, size(2), nullptr, nullptr)),
              S_OK);
    EXPECT_EQ(data(target), "ab");
    EXPECT_EQ((call_slot<HRESULT, DWORD>(stream, 8, 0)), E_NOTIMPL);  // Commit
    EXPECT_EQ((call_slot<HRESULT>(stream, 9)), E_NOTIMPL);            // Revert
    EXPECT_EQ((call_slot<HRESULT, ULARGE_INTEGER, ULARGE_INTEGER, DWORD>(stream, 10, size(0), size(0), 0)), E_NOTIMPL);
    EXPECT_EQ((call_slot<HRESULT, ULARGE_INTEGER, ULARGE_INTEGER, DWORD>(stream, 11, size(0), size(0), 0)), E_NOTIMPL);
    STATSTG stat;
    EXPECT_EQ((call_slot<HRESULT, STATSTG*, DWORD>(stream, 12, &stat, 1)), S_OK);
    EXPECT_EQ(stat.cbSize.QuadPart, 3u);
    EXPECT_EQ((call_slot<HRESULT, IStream**>(stream, 13, nullptr)), E_NOTIMPL);  // Clone
    EXPECT_EQ((call_slot<HRESULT, ULONG>(stream, 16, 1)), S_OK);                 // Delete
    EXPECT_EQ(data(*stream), "ab");
    EXPECT_EQ((call_slot<HRESULT, const void*, ULONG>(stream, 17, "xy", 2)), S_OK);  // Insert
    EXPECT_EQ(data(*stream), "abxy");
    Released released;
    stream->SetReleaseCallBack(onRelease, &released);
    call_slot<void>(stream, zr::test::deleting(14));
    EXPECT_EQ(released.stream, stream);
}

// A stream as a string and a position.
struct StreamModel {
    std::string data;
    std::size_t position = 0;
};

void step(BufferStream& stream, StreamModel& model, std::mt19937& random) {
    const std::string text(random() % (random() % 50 == 0 ? 9000 : 40), static_cast<char>('a' + random() % 26));
    const auto count = static_cast<ULONG>(text.size());
    const LONGLONG move = static_cast<LONGLONG>(random() % 100) - 20;
    const auto length = static_cast<LONGLONG>(model.data.size());
    const LONGLONG targets[] = {move, static_cast<LONGLONG>(model.position) + move, length - move};
    const auto origin = static_cast<DWORD>(random() % 3);
    switch (random() % 6) {
        case 0:
            ASSERT_EQ(stream.Write(text.data(), count, nullptr), S_OK);
            model.data.replace(model.position, count, text);
            model.position += count;
            return;
        case 1:
            ASSERT_EQ(stream.Insert(text.data(), count), S_OK);
            model.data.insert(model.position, text);
            model.position += count;
            return;
        case 2:
            ASSERT_EQ(stream.Delete(count), S_OK);
            model.data.erase(model.position, count);
            return;
        case 3: {
            const std::string expected = model.data.substr(model.position, count);
            ASSERT_EQ(read(stream, count), expected);
            model.position += expected.size();
            return;
        }
        case 4: {
            const bool valid = targets[origin] >= 0 && targets[origin] <= length;
            ASSERT_EQ(seek(stream, move, origin), valid ? S_OK : STG_E_INVALIDFUNCTION);
            if (valid) model.position = static_cast<std::size_t>(targets[origin]);
            return;
        }
        default:
            if (count > model.data.size()) return;
            ASSERT_EQ(stream.SetSize(size(count)), S_OK);
            model.data.resize(count);
            model.position = std::min(model.position, model.data.size());
    }
}

TEST(BufferStream, AgreesWithAStringOverRandomOperations) {
    for (unsigned int seed = 1; seed <= 30; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        BufferStream stream;
        StreamModel model;
        for (int i = 0; i < 500; ++i) {
            step(stream, model, random);
            ASSERT_FALSE(HasFatalFailure());
            ASSERT_EQ(stream.GetCurrentPos(), model.position);
            ASSERT_EQ(data(stream), model.data);
            ASSERT_GE(stream.GetSize(), stream.GetLength());
        }
    }
}

}  // namespace
