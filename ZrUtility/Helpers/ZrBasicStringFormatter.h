#pragma once

#include "ZrUtility/Export.h"
#include "platform/types.h"

// Fills the fields %0 to %9 of a template with texts.
//
// The arguments are a multi-string: NUL-terminated texts one after the other, with an empty one behind the last
// (u"first\0second\0"). So no argument can be empty; the first is %0, and what follows the tenth is not looked at.
//
// A field may stand any number of times. One without its argument stays as it is, and so does a percent sign
// before anything else. A percent sign before another one is left out, so "%%" yields one percent sign, "%%0" the
// text "%0", and a longer run of them one as well.
//
// Reentrant, from any thread.
class ZRUTILITY_API ZrBasicStringFormatter {
public:
    // Writes the filled template with its terminator to `out`, which has room for `size` characters and is zeroed as a
    // whole first; it must not overlap the other texts. With `out` NULL it tells in `size` how many characters are
    // needed instead, terminator included: enough, and one more for each percent sign that is left out.
    // 1; 0 with the last error ERROR_INVALID_PARAMETER when `format` or `args` is NULL, or ERROR_NOT_ENOUGH_MEMORY when
    // `size` is less than what is needed, or that is more than `size` can say. `out` is then as it was.
    static int Format(const WCHAR* format, const WCHAR* args, WCHAR* out, unsigned int& size);

protected:
    // What Format() tells for a size query; 0 for a NULL `format`. No arguments for a NULL `args`. The largest number
    // there is when more is needed.
    static unsigned int CalculateRequiredBufferSize(const WCHAR* format, const WCHAR* args);

private:
    ZrBasicStringFormatter() {}
};
