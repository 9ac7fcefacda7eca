#include "zr/mail/mbox.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <vector>

#include "zr/base/text.h"
#include "zr/mail/header.h"

namespace zr {
namespace {

constexpr std::size_t kWindow = std::size_t{256} << 10;
constexpr std::size_t kLongestSeparator = 512;
constexpr std::size_t kLongestLengthHeader = std::size_t{64} << 10;
constexpr std::size_t kLongestHeaderWritten = std::size_t{60} << 10;  // it gets a line more
constexpr std::string_view kLength = "Content-Length";
constexpr std::string_view kFrom = "From ";

bool is_digit(char c) {
    return c >= '0' && c <= '9';
}

bool has_month(std::string_view line) {
    static constexpr std::string_view months[] = {" Jan", " Feb", " Mar", " Apr", " May", " Jun",
                                                  " Jul", " Aug", " Sep", " Oct", " Nov", " Dec"};
    return std::any_of(std::begin(months), std::end(months),
                       [&](std::string_view month) { return line.find(month) != std::string_view::npos; });
}

bool has_time(std::string_view line) {
    for (std::size_t i = line.find(':'); i != std::string_view::npos; i = line.find(':', i + 1)) {
        if (i >= 1 && is_digit(line[i - 1]) && i + 2 < line.size() && is_digit(line[i + 1]) && is_digit(line[i + 2])) {
            return true;
        }
    }
    return false;
}

// Whether text begins with a header field, a line of a header that some programs write first, or nothing.
bool begins_header(std::string_view text) {
    if (text.empty() || text.starts_with('\n') || text.starts_with("\r\n")) return true;
    if (text.starts_with(">From ")) return true;
    const std::size_t end = text.find_first_of(": \t\r\n");
    return end != std::string_view::npos && end > 0 && text[end] == ':';
}

// The header with the blank line that ends it; nothing when it does not end.
std::optional<std::size_t> header_size(std::string_view text) {
    const std::size_t end = text.find("\n\n");
    const std::size_t other = text.find("\r\n\r\n");
    if (end == std::string_view::npos && other == std::string_view::npos) return std::nullopt;
    return other < end ? other + 4 : end + 2;
}

// The beginning of a line, as long as it may be one that quoting concerns: some '>', then "From ". One with more of
// them than anybody writes is a line like others.
class FromLine {
public:
    enum class Answer { Perhaps, No, Yes };

    Answer take(char c) {
        text_ += c;
        if (matched_ == 0 && c == '>' && quotes_ < kMostQuotes) {
            ++quotes_;
            return Answer::Perhaps;
        }
        if (c != kFrom[matched_]) return Answer::No;
        return ++matched_ == kFrom.size() ? Answer::Yes : Answer::Perhaps;
    }
    std::string_view text() const { return text_; }
    std::size_t quotes() const { return quotes_; }
    void clear() {
        text_.clear();
        quotes_ = 0;
        matched_ = 0;
    }

private:
    static constexpr std::size_t kMostQuotes = 1000;

    std::string text_;
    std::size_t quotes_ = 0;
    std::size_t matched_ = 0;
};

}  // namespace

std::optional<Mbox> mbox_of(std::string_view name) {
    static constexpr std::pair<std::string_view, Mbox> names[] = {
        {"mbox", Mbox::Rd}, {"mboxrd", Mbox::Rd}, {"mboxo", Mbox::O}, {"mboxcl", Mbox::Cl}, {"mboxcl2", Mbox::Cl2}};
    for (const auto& [known, dialect] : names) {
        if (name == known) return dialect;
    }
    return std::nullopt;
}

ReadAtFunction read_at_descriptor(int fd) {
    return [fd](char* buffer, std::size_t size, std::uint64_t at) -> ssize_t {
        for (;;) {
            const ssize_t got = ::pread(fd, buffer, size, static_cast<off_t>(at));
            if (got >= 0 || errno != EINTR) return got;
        }
    };
}

ReadAtFunction read_at_memory(std::string_view bytes) {
    return [bytes](char* buffer, std::size_t size, std::uint64_t at) -> ssize_t {
        if (at >= bytes.size()) return 0;
        const std::string_view there = bytes.substr(static_cast<std::size_t>(at), size);
        std::memcpy(buffer, there.data(), there.size());
        return static_cast<ssize_t>(there.size());
    };
}

bool begins_mbox(std::string_view bytes) {
    if (!bytes.starts_with(kFrom)) return false;
    const std::size_t end = bytes.find('\n');
    return end == std::string_view::npos || begins_header(bytes.substr(end + 1));
}

// What was read last of the file.
struct MboxReader::Window {
    std::vector<char> bytes = std::vector<char>(kWindow);
    std::uint64_t at = 0;
    std::size_t size = 0;

    // What is there from a place on, when that is enough to go on with.
    std::string_view from(std::uint64_t place) const {
        if (place < at || place >= at + size) return {};
        const std::string_view there =
            std::string_view(bytes.data(), size).substr(static_cast<std::size_t>(place - at));
        return there.size() < kLongestSeparator ? std::string_view() : there;
    }
};

MboxReader::MboxReader(ReadAtFunction read, Mbox dialect)
    : read_(std::move(read)), dialect_(dialect), window_(std::make_unique<Window>()) {}

MboxReader::~MboxReader() = default;

bool MboxReader::next(MboxMessage& message) {
    const std::string line = text_at(position_, kLongestSeparator);
    if (error_ != 0 || line.empty()) return false;
    message = {};
    message.begin = position_;
    if (line.starts_with(kFrom)) {
        const std::size_t end = line.find('\n');
        message.separator = line.substr(0, end);
        if (message.separator.ends_with('\r')) message.separator.pop_back();
        message.begin = position_ + (end == std::string::npos ? line.size() : end + 1);
    }
    using Quoted = MboxMessage::Quoted;
    const bool has_lengths = dialect_ != Mbox::Rd && dialect_ != Mbox::O;
    const std::optional<std::uint64_t> declared = has_lengths ? declared_end(message.begin) : std::nullopt;
    bool any_quoted = false;
    bool any_bare = false;
    std::uint64_t next = 0;
    spans_bare_line_ = false;
    if (declared) {
        message.end = *declared;
        next = find_separator(message.end, any_quoted, any_bare);
        bool any_inside = false;
        const std::uint64_t inside = find_separator(message.begin, any_quoted, any_inside);
        spans_bare_line_ = any_inside || inside < message.end;
        const bool quotes = dialect_ == Mbox::Cl ||
                            (dialect_ == Mbox::Guess && any_quoted && !spans_bare_line_ && !any_spans_bare_line());
        message.quoted = quotes && any_quoted ? Quoted::All : Quoted::None;
    } else {
        next = find_separator(message.begin, any_quoted, any_bare);
        message.end = without_blank_line(message.begin, next);
        message.quoted = !any_quoted ? Quoted::None : dialect_ == Mbox::O ? Quoted::Once : Quoted::All;
    }
    position_ = next;
    return error_ == 0;
}

bool MboxReader::any_spans_bare_line() {
    if (!any_spans_) {
        MboxReader all(read_, Mbox::Cl);
        bool found = false;
        for (MboxMessage message; !found && all.next(message);) {
            found = all.spans_bare_line_;
        }
        if (all.error_ != 0) error_ = all.error_;
        any_spans_ = found;
    }
    return *any_spans_;
}

std::uint64_t MboxReader::find_separator(std::uint64_t from, bool& any_quoted, bool& any_bare) {
    // The line end before is looked at as well.
    std::uint64_t at = from > 0 ? from - 1 : 0;
    for (;;) {
        const std::string_view bytes = bytes_from(at);
        if (bytes.empty()) return at;
        for (std::size_t i = bytes.find("From "); i != std::string_view::npos; i = bytes.find("From ", i + 1)) {
            if (at + i < from) continue;
            if (i > 0 && bytes[i - 1] == '>') any_quoted = true;
            if (i == 0 ? at != 0 : bytes[i - 1] != '\n') continue;
            if (is_separator(at + i)) return at + i;
            any_bare = true;
        }
        if (bytes.size() <= kFrom.size()) return at + bytes.size();
        // The last bytes may begin another one.
        at += bytes.size() - kFrom.size();
    }
}

std::string_view MboxReader::bytes_from(std::uint64_t at) {
    Window& window = *window_;
    if (const std::string_view there = window.from(at); !there.empty()) return there;
    const ssize_t got = read_(window.bytes.data(), window.bytes.size(), at);
    if (got < 0) error_ = errno;
    window.at = at;
    window.size = got > 0 ? static_cast<std::size_t>(got) : 0;
    return {window.bytes.data(), window.size};
}

bool MboxReader::is_separator(std::uint64_t at) {
    const std::uint64_t back = std::min<std::uint64_t>(at, 3);
    const std::string before = text_at(at - back, static_cast<std::size_t>(back));
    const bool behind_blank_line =
        before.ends_with("\n\n") || before.ends_with("\n\r\n") || before == "\n" || before == "\r\n" || before.empty();
    if (!behind_blank_line) return false;
    const std::string text = text_at(at, kLongestSeparator);
    const std::size_t end = text.find('\n');
    const std::string_view line = std::string_view(text).substr(0, end);
    if (!has_month(line) || !has_time(line)) return false;
    return end == std::string::npos || begins_header(std::string_view(text).substr(end + 1));
}

std::optional<std::uint64_t> MboxReader::declared_end(std::uint64_t begin) {
    const std::string text = text_at(begin, kLongestLengthHeader);
    const std::optional<std::size_t> header = header_size(text);
    if (!header) return std::nullopt;
    const auto value = raw_field(std::string_view(text).substr(0, *header), kLength);
    std::uint64_t length = 0;
    if (!value || std::from_chars(value->data(), value->data() + value->size(), length).ec != std::errc()) {
        return std::nullopt;
    }
    if (length > (std::uint64_t{1} << 60)) return std::nullopt;
    const std::uint64_t end = begin + *header + length;
    // It counts when a separator, or nothing, is behind it.
    std::string after = text_at(end - 1, kLongestSeparator);
    if (after.empty()) return std::nullopt;
    after.erase(0, 1);
    const std::size_t blanks = std::min(after.find_first_not_of("\r\n"), after.size());
    if (blanks == after.size() || (blanks <= 4 && std::string_view(after).substr(blanks).starts_with(kFrom))) {
        return end;
    }
    return std::nullopt;
}

std::uint64_t MboxReader::without_blank_line(std::uint64_t begin, std::uint64_t end) {
    const auto back = std::min<std::uint64_t>(4, end - begin);
    const std::string last = text_at(end - back, static_cast<std::size_t>(back));
    if (last.ends_with("\r\n\r\n") || last == "\r\n") return end - 2;
    if (last.ends_with("\n\n") || last == "\n") return end - 1;
    return end;
}

std::string MboxReader::text_at(std::uint64_t at, std::size_t size) {
    std::string text(size, '\0');
    std::size_t have = 0;
    while (have < size) {
        const ssize_t got = read_(text.data() + have, size - have, at + have);
        if (got < 0) error_ = errno;
        if (got <= 0) break;
        have += static_cast<std::size_t>(got);
    }
    text.resize(have);
    return text;
}

namespace {

// Takes one '>' off the lines that were quoted, over pieces that may end anywhere.
class Unquoted {
public:
    Unquoted(ReadAtFunction read, const MboxMessage& message)
        : read_(std::move(read)), at_(message.begin), end_(message.end), quoted_(message.quoted) {}

    ssize_t operator()(char* buffer, std::size_t size) {
        if (quoted_ == MboxMessage::Quoted::None) return read_some(buffer, size);
        while (taken_ == ready_.size()) {
            ready_.clear();
            taken_ = 0;
            char more[16384];
            const ssize_t got = read_some(more, sizeof more);
            if (got < 0) return got;
            if (got == 0) {
                ready_ = start_.text();
                start_.clear();
                if (ready_.empty()) return 0;
                break;
            }
            take({more, static_cast<std::size_t>(got)});
        }
        const std::size_t count = std::min(size, ready_.size() - taken_);
        std::memcpy(buffer, ready_.data() + taken_, count);
        taken_ += count;
        return static_cast<ssize_t>(count);
    }

private:
    ssize_t read_some(char* buffer, std::size_t size) {
        const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(size, end_ - at_));
        if (wanted == 0) return 0;
        const ssize_t got = read_(buffer, wanted, at_);
        if (got > 0) at_ += static_cast<std::uint64_t>(got);
        return got;
    }

    void take(std::string_view bytes) {
        while (!bytes.empty()) {
            if (at_start_) {
                const FromLine::Answer answer = start_.take(bytes.front());
                bytes.remove_prefix(1);
                if (answer == FromLine::Answer::Perhaps) continue;
                const std::size_t quotes = answer == FromLine::Answer::Yes ? start_.quotes() : 0;
                const bool quoted = quotes == 1 || (quotes > 1 && quoted_ == MboxMessage::Quoted::All);
                ready_ += start_.text().substr(quoted ? 1 : 0);
                at_start_ = ready_.back() == '\n';
                start_.clear();
                continue;
            }
            const std::size_t length = std::min(bytes.find('\n'), bytes.size() - 1) + 1;
            ready_ += bytes.substr(0, length);
            at_start_ = bytes[length - 1] == '\n';
            bytes.remove_prefix(length);
        }
    }

    ReadAtFunction read_;
    std::uint64_t at_;
    std::uint64_t end_;
    MboxMessage::Quoted quoted_;
    std::string ready_;
    std::size_t taken_ = 0;
    FromLine start_;
    bool at_start_ = true;
};

}  // namespace

ReadFunction message_bytes(ReadAtFunction read, const MboxMessage& message) {
    return Unquoted(std::move(read), message);
}

struct MboxWriter::Line {
    FromLine start;
    bool at_start = true;
    bool any = false;
    char last[2] = {};  // bytes of the message
};

namespace {

// A message in two: the header, as long as it is one that a length can be written into, and the rest.
class HeaderAndBody {
public:
    // What is body of these bytes.
    std::string_view take(std::string_view bytes) {
        if (over_) return bytes;
        const std::size_t before = text_.size();
        text_ += bytes.substr(0, kLongestHeaderWritten - std::min(before, kLongestHeaderWritten));
        const std::optional<std::size_t> size = header_size(text_);
        const bool too_long = !size && text_.size() >= kLongestHeaderWritten;
        if (!size && !too_long) return {};
        over_ = true;
        is_sound_ = size && *size > 2;
        text_.resize(size.value_or(0));
        // A header that is no header is all body, and nobody asks for that.
        return bytes.substr(std::min(bytes.size(), text_.size() - std::min(before, text_.size())));
    }
    bool is_sound() const { return is_sound_; }
    const std::string& header() const { return text_; }

private:
    std::string text_;
    bool over_ = false;
    bool is_sound_ = false;
};

// The header with a right length.
std::string with_length(std::string_view header, std::uint64_t length) {
    const std::string number = std::to_string(length);
    const std::string_view end = header.ends_with("\r\n") ? "\r\n" : "\n";
    std::string out;
    bool there = false;
    for (std::string_view rest = header; !rest.empty();) {
        const std::string_view field = rest.substr(0, field_length(rest));
        rest.remove_prefix(field.size());
        const std::optional<std::string> value = raw_field(field, kLength);
        if (value && (there || *value != number)) continue;
        there = there || value.has_value();
        if (rest.empty() && !there) ((((out += kLength) += ": ") += number) += end);
        out += field;
    }
    return out;
}

}  // namespace

MboxWriter::MboxWriter(Write write, Mbox dialect)
    : write_(std::move(write)), dialect_(dialect), line_(std::make_unique<Line>()) {}

MboxWriter::~MboxWriter() = default;

void MboxWriter::add(std::string_view separator, const std::function<void(const Write&)>& read) {
    std::string header;
    quotes_ = true;
    if (dialect_ == Mbox::Cl || dialect_ == Mbox::Cl2) {
        std::uint64_t length = 0;
        HeaderAndBody parts;
        MboxWriter counter([&](std::string_view bytes) { length += bytes.size(); });
        counter.quotes_ = dialect_ == Mbox::Cl;
        *counter.line_ = {};
        read([&](std::string_view bytes) { counter.write(parts.take(bytes)); });
        counter.write_start(false);
        if (parts.is_sound()) {
            header = with_length(parts.header(), length);
            quotes_ = dialect_ == Mbox::Cl;
        }
    }
    write_(separator);
    write_("\n");
    *line_ = {};
    if (header.empty()) {
        read([&](std::string_view bytes) { write(bytes); });
    } else {
        write(header);
        HeaderAndBody parts;
        read([&](std::string_view bytes) { write(parts.take(bytes)); });
    }
    end();
}

void MboxWriter::write(std::string_view bytes) {
    while (!bytes.empty()) {
        std::size_t length = 1;
        if (line_->at_start) {
            const FromLine::Answer answer = line_->start.take(bytes.front());
            const bool yes = answer == FromLine::Answer::Yes;
            const bool only_bare = dialect_ == Mbox::O && line_->start.quotes() > 0;
            if (answer != FromLine::Answer::Perhaps) write_start(yes && quotes_ && !only_bare);
        } else {
            length = std::min(bytes.find('\n'), bytes.size() - 1) + 1;
            write_(bytes.substr(0, length));
        }
        line_->any = true;
        line_->last[0] = length > 1 ? bytes[length - 2] : line_->last[1];
        line_->last[1] = bytes[length - 1];
        // What is known by its first byte is no beginning any more, unless the line is over.
        if (line_->start.text().empty()) line_->at_start = bytes[length - 1] == '\n';
        bytes.remove_prefix(length);
    }
}

void MboxWriter::write_start(bool quoted) {
    if (quoted) write_(">");
    write_(line_->start.text());
    line_->start.clear();
}

void MboxWriter::end() {
    write_start(false);
    if (line_->any && line_->last[1] != '\n') write_("\n");
    write_(line_->last[0] == '\r' && line_->last[1] == '\n' ? "\r\n" : "\n");
}

}  // namespace zr
