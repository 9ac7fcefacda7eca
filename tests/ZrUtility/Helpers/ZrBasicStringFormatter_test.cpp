#include "ZrUtility/Helpers/ZrBasicStringFormatter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base.h"
#include "support/failing_new.h"
#include "support/text.h"

namespace {

using std::u16string;
using std::u16string_view;
using zr::test::randomText;
using zr::test::Text;

// Makes the protected operation callable.
class Formatter : public ZrBasicStringFormatter {
public:
    Formatter() = delete;
    using ZrBasicStringFormatter::CalculateRequiredBufferSize;
};

u16string multiString(const std::vector<u16string>& texts) {
    u16string joined;
    for (const u16string& text : texts) {
        joined += text + u'\0';
    }
    return joined;
}

unsigned int sizeFor(const u16string& format, const std::vector<u16string>& args) {
    unsigned int size = 12345;
    EXPECT_EQ(ZrBasicStringFormatter::Format(Text(format), Text(multiString(args)), nullptr, size), 1);
    EXPECT_EQ(Formatter::CalculateRequiredBufferSize(Text(format), Text(multiString(args))), size);
    return size;
}

// Into exactly the room that a size query asks for.
u16string filled(const u16string& format, const std::vector<u16string>& args) {
    unsigned int size = sizeFor(format, args);
    const Text out(u16string(size - 1, u'#'));
    EXPECT_EQ(ZrBasicStringFormatter::Format(Text(format), Text(multiString(args)), out, size), 1);
    return out.string();
}

TEST(ZrBasicStringFormatter, FillsFieldsByNumber) {
    EXPECT_EQ(filled(u"%1 and %0", {u"A", u"B"}), u"B and A");
    EXPECT_EQ(filled(u"%0%0%1%0", {u"ab", u"c"}), u"ababcab");
    EXPECT_EQ(filled(u"", {u"A"}), u"");
    EXPECT_EQ(filled(u"none", {}), u"none");
    EXPECT_EQ(filled(u"%01", {u"A"}), u"A1");
}

TEST(ZrBasicStringFormatter, LeavesWhatHasNoArgument) {
    EXPECT_EQ(filled(u"%5", {u"A", u"B"}), u"%5");
    EXPECT_EQ(filled(u"%0", {}), u"%0");
    EXPECT_EQ(filled(u"%x % %", {u"A"}), u"%x % %");
}

TEST(ZrBasicStringFormatter, TakesTenArguments) {
    const std::vector<u16string> args = {u"a", u"b", u"c", u"d", u"e", u"f", u"g", u"h", u"i", u"j", u"k"};
    EXPECT_EQ(filled(u"%9%8%7%6%5%4%3%2%1%0%10", args), u"jihgfedcbab0");
}

TEST(ZrBasicStringFormatter, RunOfPercentSignsYieldsOne) {
    EXPECT_EQ(filled(u"100%%", {}), u"100%");
    EXPECT_EQ(filled(u"%%0", {u"A"}), u"%0");
    EXPECT_EQ(filled(u"%%%0", {u"A"}), u"%0");
    EXPECT_EQ(filled(u"%%%%", {u"A"}), u"%");
    EXPECT_EQ(filled(u"%0%%0%0", {u"A"}), u"A%0A");
    EXPECT_EQ(filled(u"%%x%%", {u"A"}), u"%x%");
}

TEST(ZrBasicStringFormatter, ArgumentsAreNotFormats) {
    EXPECT_EQ(filled(u"%0%1", {u"%1", u"%%"}), u"%1%%");
}

TEST(ZrBasicStringFormatter, SizeQueryCountsTheTerminator) {
    EXPECT_EQ(sizeFor(u"%0!", {u"Hi"}), 4u);
    EXPECT_EQ(sizeFor(u"", {}), 1u);
    EXPECT_EQ(sizeFor(u"%0%0", {u"abc"}), 7u);
    EXPECT_EQ(sizeFor(u"%5", {u"A"}), 3u);
    EXPECT_EQ(sizeFor(u"%0", {u"A"}), 2u);
}

TEST(ZrBasicStringFormatter, SizeMayExceedByThePercentSignsLeftOut) {
    EXPECT_EQ(sizeFor(u"100%%", {}), 6u);
    EXPECT_EQ(sizeFor(u"%%0", {u"long"}), 4u);
    EXPECT_EQ(sizeFor(u"%%%%", {}), 5u);
}

TEST(ZrBasicStringFormatter, RefusesMissingTexts) {
    unsigned int size = 5;
    const Text out(u"####");
    for (WCHAR* to : {static_cast<WCHAR*>(nullptr), static_cast<WCHAR*>(out)}) {
        SetLastError(0);
        EXPECT_EQ(ZrBasicStringFormatter::Format(nullptr, Text(u"\0"), to, size), 0);
        EXPECT_EQ(GetLastError(), 87u);
        SetLastError(0);
        EXPECT_EQ(ZrBasicStringFormatter::Format(Text(u"a"), nullptr, to, size), 0);
        EXPECT_EQ(GetLastError(), 87u);
    }
    EXPECT_EQ(size, 5u);
    EXPECT_EQ(out.string(), u"####");
    EXPECT_EQ(Formatter::CalculateRequiredBufferSize(nullptr, Text(u"\0")), 0u);
    EXPECT_EQ(Formatter::CalculateRequiredBufferSize(Text(u"%0"), nullptr), 3u);
}

TEST(ZrBasicStringFormatter, RefusesTooLittleRoom) {
    for (unsigned int room = 0; room < 6; ++room) {
        unsigned int size = room;
        const Text out(u16string(room, u'#'));
        SetLastError(0);
        EXPECT_EQ(ZrBasicStringFormatter::Format(Text(u"%0b%%"), Text(multiString({u"ab"})), out, size), 0);
        EXPECT_EQ(GetLastError(), 8u);
        EXPECT_EQ(size, room);
        EXPECT_EQ(out.string(), u16string(room, u'#'));
    }
}

TEST(ZrBasicStringFormatter, ZeroesAllTheRoom) {
    unsigned int size = 10;
    const Text out(u"#########");
    EXPECT_EQ(ZrBasicStringFormatter::Format(Text(u"%0c"), Text(multiString({u"ab"})), out, size), 1);
    EXPECT_EQ(u16string_view(out, 10), u16string_view(u"abc\0\0\0\0\0\0", 10));
    EXPECT_EQ(size, 10u);
}

TEST(ZrBasicStringFormatter, SuccessLeavesTheLastErrorAlone) {
    SetLastError(4711);
    filled(u"%0", {u"a"});
    EXPECT_EQ(GetLastError(), 4711u);
}

TEST(ZrBasicStringFormatter, NeedsNoMemory) {
    const Text format(u"%0 and %1");
    const Text args(multiString({u"one", u"two"}));
    const Text out(u"#################");
    unsigned int size = 18;
    int result = 0;
    {
        const zr::test::FailingNew failing;
        result = ZrBasicStringFormatter::Format(format, args, out, size);
    }
    EXPECT_EQ(result, 1);
    EXPECT_EQ(out.string(), u"one and two");
}

// More characters than an unsigned int counts: a size cut to 32 bits would let the text run over its room.
TEST(ZrBasicStringFormatter, RefusesWhatNoSizeCanSay) {
    u16string format;
    for (int i = 0; i < 70000; ++i) {
        format += u"%0";
    }
    const Text text(format);
    const Text args(multiString({u16string(70000, u'a')}));
    unsigned int size = 100;
    SetLastError(0);
    EXPECT_EQ(ZrBasicStringFormatter::Format(text, args, nullptr, size), 0);
    EXPECT_EQ(GetLastError(), 8u);
    EXPECT_EQ(size, 100u);
    WCHAR room[1];
    size = std::numeric_limits<unsigned int>::max();
    EXPECT_EQ(ZrBasicStringFormatter::Format(text, args, room, size), 0);
    EXPECT_EQ(Formatter::CalculateRequiredBufferSize(text, args), std::numeric_limits<unsigned int>::max());
}

// The rules said another way: a run of percent signs is a field when it is one sign alone and a digit that has an
// argument follows, and yields one percent sign otherwise.
u16string model(const u16string& format, const std::vector<u16string>& args, std::size_t& size) {
    u16string result;
    size = format.size() + 1;
    for (std::size_t at = 0; at < format.size();) {
        if (format[at] != u'%') {
            result += format[at++];
            continue;
        }
        const std::size_t end = std::min(format.find_first_not_of(u'%', at), format.size());
        const std::size_t number = end < format.size() ? format[end] - std::size_t{u'0'} : 10;
        if (end - at == 1 && number < std::min<std::size_t>(args.size(), 10)) {
            result += args[number];
            size += args[number].size() - 2;
            at = end + 1;
        } else {
            result += u'%';
            at = end;
        }
    }
    return result;
}

TEST(ZrBasicStringFormatter, AgreesWithASimpleModelOverRandomTexts) {
    std::mt19937 random(20260101);
    for (int i = 0; i < 20000; ++i) {
        const u16string format = randomText(random, u"%%%0123a9 \xE9", 20);
        std::vector<u16string> args(random() % 12);
        for (u16string& arg : args) {
            arg = u"x" + randomText(random, u"%01ab", 5);
        }
        std::size_t size = 0;
        const u16string expected = model(format, args, size);
        ASSERT_EQ(filled(format, args), expected) << testing::PrintToString(format);
        ASSERT_EQ(sizeFor(format, args), size);
    }
}

}  // namespace
