#include "date_text.h"

#include "keys.h"

namespace zr::platform::pim {
namespace {

// Reads a text from its front.
class Reader {
public:
    explicit Reader(std::u16string_view text) : text_(text) {}

    bool done() const { return text_.empty(); }
    bool take(std::u16string_view what) {
        if (!text_.starts_with(what)) return false;
        text_.remove_prefix(what.size());
        return true;
    }
    void skip_blanks() {
        while (take(u" ")) {
        }
    }
    // Up to four digits; false when there is none.
    bool number(WORD& number) {
        std::size_t digits = 0;
        number = 0;
        while (digits < 4 && digits < text_.size() && text_[digits] >= u'0' && text_[digits] <= u'9') {
            number = static_cast<WORD>(number * 10 + (text_[digits++] - u'0'));
        }
        text_.remove_prefix(digits);
        return digits > 0;
    }

private:
    std::u16string_view text_;
};

bool read_day(Reader& reader, SYSTEMTIME& parts) {
    WORD first = 0;
    if (!reader.number(first)) return false;
    if (reader.take(u"-")) {
        parts.wYear = first;
        return reader.number(parts.wMonth) && reader.take(u"-") && reader.number(parts.wDay);
    }
    parts.wMonth = first;
    return reader.take(u"/") && reader.number(parts.wDay) && reader.take(u"/") && reader.number(parts.wYear);
}

bool read_time(Reader& reader, SYSTEMTIME& parts) {
    if (!reader.number(parts.wHour) || !reader.take(u":") || !reader.number(parts.wMinute)) return false;
    if (reader.take(u":") && !reader.number(parts.wSecond)) return false;
    reader.skip_blanks();
    const bool afternoon = reader.take(u"pm");
    if (!afternoon && !reader.take(u"am")) return true;
    if (parts.wHour < 1 || parts.wHour > 12) return false;
    parts.wHour = static_cast<WORD>(parts.wHour % 12 + (afternoon ? 12 : 0));
    return true;
}

}  // namespace

std::optional<Moment> date_in(std::u16string_view text) {
    const std::u16string folded = text_key(text);
    Reader reader(folded);
    SYSTEMTIME parts = {};
    reader.skip_blanks();
    if (!read_day(reader, parts)) return std::nullopt;
    if (!reader.take(u"t")) reader.skip_blanks();
    if (!reader.done() && !read_time(reader, parts)) return std::nullopt;
    reader.skip_blanks();
    DATE date = 0;
    if (!reader.done() || !parts_to_date(parts, date)) return std::nullopt;
    return moment_of(date);
}

}  // namespace zr::platform::pim
