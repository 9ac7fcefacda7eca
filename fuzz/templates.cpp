// The template formatter with any template. The first byte says how many arguments there are and how long each is.

#include <algorithm>

#include "ZrUtility/Helpers/ZrBasicStringFormatter.h"
#include "platform/base.h"
#include "support/input.h"

namespace {

using namespace zr::fuzz;

// Takes arguments off the front of the text and joins them to a multi-string.
std::u16string takeArguments(std::u16string& text, std::size_t count, std::size_t length) {
    std::u16string joined;
    for (; count > 0 && !text.empty(); --count) {
        joined += text.substr(0, length) + u'\0';
        text.erase(0, length);
    }
    return joined;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    std::u16string rest = text(data + 1, size - 1);
    const Block args = copy(takeArguments(rest, data[0] % 12, 1 + data[0] / 12));
    const Block format = copy(rest);

    unsigned int needed = 0;
    require(ZrBasicStringFormatter::Format(format.get(), args.get(), nullptr, needed) == 1 && needed > 0);
    const Block out = block(needed);
    require(ZrBasicStringFormatter::Format(format.get(), args.get(), out.get(), needed) == 1);
    const std::size_t length = wcsnlen(out.get(), needed);
    const auto percents = static_cast<std::size_t>(std::count(rest.begin(), rest.end(), u'%'));
    require(length < needed && needed - length <= 1 + percents);

    unsigned int tooSmall = needed - 1;
    const Block less = block(tooSmall);
    require(ZrBasicStringFormatter::Format(format.get(), args.get(), less.get(), tooSmall) == 0);
    require(GetLastError() == ERROR_NOT_ENOUGH_MEMORY);
    // A template without percent signs comes out as it is.
    if (percents == 0) require(std::u16string_view(out.get(), length) == rest);
    return 0;
}
