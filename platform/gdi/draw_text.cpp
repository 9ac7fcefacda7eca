// DrawTextW: lines in a rectangle.

#include <algorithm>
#include <limits>
#include <new>
#include <string>

#include "base/fail.h"
#include "objects.h"
#include "platform/base.h"

using namespace zr::platform;

namespace {

constexpr std::u16string_view kDots = u"...";

struct Line {
    std::size_t from;
    std::size_t size;
    std::int64_t width;
    bool is_cut = false;  // and ends in dots
};

bool is_line_end(WCHAR c) {
    return c == u'\r' || c == u'\n';
}

// Units of scripts whose words spaces part: other breaks than at spaces are none.
bool is_parted_by_spaces(WCHAR c) {
    return c < 0x0E00 || (c >= 0x1E00 && c < 0x2E80) || (c >= 0xFB00 && c < 0xFE30);
}

int to_int(std::int64_t value) {
    using Limits = std::numeric_limits<int>;
    return static_cast<int>(std::clamp<std::int64_t>(value, Limits::min(), Limits::max()));
}

class TextBlock {
public:
    TextBlock(ContextObject& context, UINT format) : context_(context), format_(format) {}

    bool prepare(std::u16string_view text);
    void break_lines(std::int64_t room);
    bool end_in_dots(std::int64_t room);
    bool draw(const RECT& rectangle) const;

    std::int64_t width() const {
        std::int64_t widest = 0;
        for (const Line& line : lines_) {
            widest = std::max(widest, line.width);
        }
        return widest;
    }
    std::int64_t height() const { return static_cast<std::int64_t>(lines_.size()) * line_height(); }

private:
    bool has(UINT flag) const { return (format_ & flag) != 0; }
    int line_height() const { return context_.font->facts.ascent + context_.font->facts.descent; }
    void take_prefixes(std::u16string_view text);
    bool find_breaks();
    bool may_break(std::size_t i) const;
    std::int64_t advance(std::size_t i, std::int64_t at) const;
    void add_line(std::size_t from, std::size_t end);
    std::size_t break_line(std::size_t from, std::size_t end, std::int64_t room);
    std::int64_t left_of(const Line& line, const RECT& rectangle) const;
    bool draw_part(const Line& line, LONG x, LONG y, const RECT* clip) const;

    ContextObject& context_;
    const UINT format_;
    std::u16string text_;
    std::vector<int> advances_;
    std::vector<unsigned char> breaks_;  // none: at spaces only
    std::vector<Line> lines_;
    std::size_t underlined_ = std::u16string::npos;
    int dots_ = 0;
};

void TextBlock::take_prefixes(std::u16string_view text) {
    text_.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == u'&' && i + 1 < text.size()) {
            ++i;
            if (text[i] != u'&') underlined_ = text_.size();
        } else if (text[i] == u'&') {
            continue;
        }
        text_ += text[i];
    }
}

bool TextBlock::find_breaks() {
    if (!has(DT_WORDBREAK) || std::ranges::all_of(text_, is_parted_by_spaces)) return true;
    breaks_.resize(text_.size());
    return text_functions()->find_breaks(text_.data(), text_.size(), breaks_.data()) || fail_as_text();
}

bool TextBlock::prepare(std::u16string_view text) {
    if (has(DT_NOPREFIX) || text.find(u'&') == std::u16string_view::npos) {
        text_ = text;
    } else {
        take_prefixes(text);
    }
    if (!measure(context_, text_.data(), text_.size(), advances_)) return false;
    return find_breaks();
}

bool TextBlock::may_break(std::size_t i) const {
    const bool behind_space = text_[i - 1] == u' ' || text_[i - 1] == u'\t';
    if (behind_space) return text_[i] != u' ' && text_[i] != u'\t';
    if (breaks_.empty() || breaks_[i] == 0) return false;
    return !is_parted_by_spaces(text_[i]) || !is_parted_by_spaces(text_[i - 1]);
}

std::int64_t TextBlock::advance(std::size_t i, std::int64_t at) const {
    if (text_[i] != u'\t' || !has(DT_EXPANDTABS)) return advances_[i];
    const std::int64_t stop = std::int64_t{8} * std::max(context_.font->facts.average, 1);
    return stop - at % stop;
}

void TextBlock::add_line(std::size_t from, std::size_t end) {
    std::int64_t width = 0;
    for (std::size_t i = from; i < end; ++i) {
        width += advance(i, width);
    }
    lines_.push_back({from, end - from, width});
}

// Adds one line of a paragraph; where the next one begins.
std::size_t TextBlock::break_line(std::size_t from, std::size_t end, std::int64_t room) {
    std::size_t at_break = from;
    std::int64_t width = 0;
    for (std::size_t i = from; i < end; ++i) {
        if (i > from && may_break(i)) at_break = i;
        width += advance(i, width);
        const bool is_space = text_[i] == u' ' || text_[i] == u'\t';
        if (width <= room || is_space || at_break == from) continue;
        std::size_t last = at_break;
        while (last > from && (text_[last - 1] == u' ' || text_[last - 1] == u'\t')) {
            --last;
        }
        add_line(from, last);
        return at_break;
    }
    add_line(from, end);
    return end;
}

void TextBlock::break_lines(std::int64_t room) {
    if (has(DT_SINGLELINE)) return add_line(0, text_.size());
    std::size_t from = 0;
    do {
        const std::size_t end = static_cast<std::size_t>(
            std::find_if(text_.begin() + static_cast<std::ptrdiff_t>(from), text_.end(), is_line_end) - text_.begin());
        if (has(DT_WORDBREAK)) {
            do {
                from = break_line(from, end, room);
            } while (from < end);
        } else {
            add_line(from, end);
        }
        from = end;
        if (from < text_.size()) {
            const bool both = text_[from] == u'\r' && from + 1 < text_.size() && text_[from + 1] == u'\n';
            from += both ? 2 : 1;
        }
    } while (from < text_.size());
}

bool TextBlock::end_in_dots(std::int64_t room) {
    if (!has(DT_END_ELLIPSIS) && !has(DT_WORD_ELLIPSIS)) return true;
    std::vector<int> dots;
    if (!measure(context_, kDots.data(), kDots.size(), dots)) return false;
    for (const int each : dots) {
        dots_ += each;
    }
    const std::size_t first = has(DT_WORD_ELLIPSIS) || lines_.empty() ? 0 : lines_.size() - 1;
    for (std::size_t n = first; n < lines_.size(); ++n) {
        Line& line = lines_[n];
        if (line.width <= room) continue;
        std::int64_t width = 0;
        std::size_t kept = 0;
        for (std::size_t i = 0; i < line.size; ++i) {
            width += advance(line.from + i, width);
            if (width + dots_ > room) break;
            kept = i + 1;
        }
        line.size = kept;
        line.is_cut = true;
        line.width = dots_;
        for (std::size_t i = 0; i < kept; ++i) {
            line.width += advances_[line.from + i];
        }
    }
    return true;
}

std::int64_t TextBlock::left_of(const Line& line, const RECT& rectangle) const {
    if (has(DT_RIGHT)) return rectangle.right - line.width;
    if (!has(DT_CENTER)) return rectangle.left;
    return rectangle.left + (std::int64_t{rectangle.right} - rectangle.left - line.width) / 2;
}

// Between tabs, which are empty.
bool TextBlock::draw_part(const Line& line, LONG x, LONG y, const RECT* clip) const {
    std::int64_t at = 0;
    const auto place = [&](int further = 0) { return to_int(std::int64_t{x} + at + further); };
    std::size_t from = line.from;
    LONG begun = place();
    const std::size_t end = line.from + line.size;
    for (std::size_t i = from; i <= end; ++i) {
        const bool is_tab = i < end && text_[i] == u'\t' && has(DT_EXPANDTABS);
        if ((i == end || is_tab) && i > from && !draw_line(context_, {text_.data() + from, i - from, begun, y}, clip)) {
            return false;
        }
        if (i == end) break;
        if (i == underlined_) {
            const std::int64_t under = std::int64_t{y} + context_.font->facts.ascent + 1;
            RECT mark{place(), to_int(under), place(advances_[i]), to_int(under + 1)};
            if (clip) {
                mark = {std::max(mark.left, clip->left), std::max(mark.top, clip->top),
                        std::min(mark.right, clip->right), std::min(mark.bottom, clip->bottom)};
            }
            fill(context_, mark, context_.text_colour);
        }
        at += advance(i, at);
        if (is_tab) {
            from = i + 1;
            begun = place();
        }
    }
    return !line.is_cut || draw_line(context_, {kDots.data(), kDots.size(), place(), y}, clip);
}

std::int64_t first_top(const RECT& rectangle, std::int64_t height, UINT format) {
    if ((format & DT_SINGLELINE) == 0) return rectangle.top;
    if ((format & DT_BOTTOM) != 0) return rectangle.bottom - height;
    if ((format & DT_VCENTER) == 0) return rectangle.top;
    return rectangle.top + (std::int64_t{rectangle.bottom} - rectangle.top - height) / 2;
}

bool TextBlock::draw(const RECT& rectangle) const {
    if (!context_.bitmap) return true;
    const RECT* const clip = has(DT_NOCLIP) ? nullptr : &rectangle;
    const RECT whole{0, 0, context_.bitmap->width, context_.bitmap->height};
    const RECT& shown = clip ? *clip : whole;
    std::int64_t y = first_top(rectangle, height(), format_);
    for (const Line& line : lines_) {
        const std::int64_t x = left_of(line, rectangle);
        const bool is_near = x > INT32_MIN / 2 && x < INT32_MAX / 2 && y > INT32_MIN / 2 && y < INT32_MAX / 2;
        if (is_near && y < shown.bottom && y + line_height() > shown.top) {
            const LONG left = static_cast<LONG>(x);
            const LONG top = static_cast<LONG>(y);
            if (context_.mode == OPAQUE) {
                const auto right = static_cast<LONG>(std::min<std::int64_t>(x + line.width, INT32_MAX));
                fill(context_,
                     {std::max(left, shown.left), std::max(top, shown.top), std::min(right, shown.right),
                      std::min(top + line_height(), shown.bottom)},
                     context_.background);
            }
            if (!draw_part(line, left, top, clip)) return false;
        }
        y += line_height();
    }
    return true;
}

int draw_text(ContextObject& context, std::u16string_view text, RECT& rectangle, UINT format) {
    TextBlock block(context, format);
    if (!block.prepare(text)) return 0;
    const std::int64_t room = std::int64_t{rectangle.right} - rectangle.left;
    block.break_lines(room);
    if (!block.end_in_dots(room)) return 0;
    const int height = to_int(block.height());
    if ((format & DT_CALCRECT) != 0) {
        rectangle.right = to_int(rectangle.left + block.width());
        rectangle.bottom = to_int(std::int64_t{rectangle.top} + height);
        return height;
    }
    if (!block.draw(rectangle)) return 0;
    return to_int(first_top(rectangle, height, format) - rectangle.top + height);
}

}  // namespace

int DrawTextW(HDC handle, LPCWSTR text, int count, RECT* rectangle, UINT format) {
    if (count < -1 || (!text && count != 0)) return fail(ERROR_INVALID_PARAMETER, 0);
    if (!rectangle) return fail(ERROR_NOACCESS, 0);
    const std::size_t size = count < 0 ? wcslen(text) : static_cast<std::size_t>(count);
    Gdi& gdi = Gdi::get();
    const std::lock_guard guard(gdi.lock);
    auto* const context = gdi.find_as<ContextObject>(handle);
    try {
        return context ? draw_text(*context, {text, size}, *rectangle, format) : 0;
    } catch (const std::bad_alloc&) {
        return fail(ERROR_NOT_ENOUGH_MEMORY, 0);
    }
}
