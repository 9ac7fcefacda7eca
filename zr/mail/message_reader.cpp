#include "zr/mail/message_reader.h"

#include <gmime/gmime.h>

#include <algorithm>
#include <cerrno>
#include <memory>

#include "zr/base/text.h"
#include "zr/mail/encoded_words.h"

namespace zr {
namespace {

constexpr std::size_t kLongestHeader = std::size_t{4} << 20;
constexpr std::ptrdiff_t kMostColons = 1000;

struct Unref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
struct FreeOptions {
    void operator()(GMimeParserOptions* options) const { g_mime_parser_options_free(options); }
};
using Options = std::unique_ptr<GMimeParserOptions, FreeOptions>;

void start_gmime() {
    // Kept for the life of the process: other threads may be inside it at any time.
    static const bool started = (g_mime_init(), true);
    static_cast<void>(started);
}

// Text without an encoded word is UTF-8 today and was Windows-1252 before.
Options parser_options() {
    Options options(g_mime_parser_options_new());
    const char* charsets[] = {"utf-8", "windows-1252", nullptr};
    g_mime_parser_options_set_fallback_charsets(options.get(), charsets);
    return options;
}

// The position behind the blank line that ends the header, or npos.
std::size_t header_end(std::string_view text, std::size_t from) {
    for (std::size_t at = text.find('\n', from); at != std::string_view::npos; at = text.find('\n', at + 1)) {
        std::size_t next = at + 1;
        if (next < text.size() && text[next] == '\r') ++next;
        if (next < text.size() && text[next] == '\n') return next + 1;
    }
    return std::string_view::npos;
}

// The header block, ended by its blank line; false with errno on a failing read.
bool read_header(const ReadFunction& read, std::string& header) {
    char buffer[16384];
    bool begun = false;
    for (;;) {
        const ssize_t n = read(buffer, sizeof buffer);
        if (n < 0) return false;
        if (n == 0) break;
        const std::size_t from = header.size() < 2 ? 0 : header.size() - 2;
        header.append(buffer, static_cast<std::size_t>(n));
        if (!begun) {
            if (header.starts_with("\xEF\xBB\xBF")) header.erase(0, 3);
            header.erase(0, std::min(header.find_first_not_of("\r\n"), header.size()));
            begun = !header.empty();
        }
        if (const std::size_t end = header_end(header, begun ? from : 0); end != std::string::npos) {
            header.resize(end);
            break;
        }
        if (header.size() > kLongestHeader) break;
    }
    if (header.starts_with("From ") || header.starts_with(">From ")) {
        header.erase(0, std::min(header.find('\n'), header.size() - 1) + 1);
    }
    header += "\r\n\r\n";
    return true;
}

bool looks_like_header(std::string_view header) {
    const std::size_t colon = header.find(':');
    if (colon == 0 || colon == std::string_view::npos) return false;
    return std::all_of(header.begin(), header.begin() + static_cast<std::ptrdiff_t>(colon),
                       [](char c) { return c > ' ' && c < 0x7F; });
}

// Whether the header has a field that only messages have.
bool names_a_message(std::string_view name) {
    static constexpr std::string_view names[] = {
        "From",         "To",          "Cc",           "Date",   "Subject",  "Message-ID",  "Received",
        "MIME-Version", "Return-Path", "Delivered-To", "Sender", "Reply-To", "Content-Type"};
    return std::any_of(std::begin(names), std::end(names),
                       [&](std::string_view known) { return equal_ignoring_case(known, name); });
}

// The length of the field that the text begins with: a line and those behind it that begin with a blank.
std::size_t field_length(std::string_view text) {
    for (std::size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n', end + 1)) {
        if (end + 1 == text.size() || (text[end + 1] != ' ' && text[end + 1] != '\t')) return end + 1;
    }
    return text.size();
}

// The fields that are read, and nothing else, so that nothing else costs anything. False when it is no message's
// header. A From in which more groups could stand in each other than anybody writes is left out: the parser goes into
// each.
bool pick_fields(std::string_view header, std::string& picked) {
    bool any = false;
    while (!header.empty()) {
        const std::string_view field = header.substr(0, field_length(header));
        header.remove_prefix(field.size());
        const std::string_view name = trimmed(field.substr(0, std::min(field.find(':'), field.size())));
        any = any || names_a_message(name);
        const bool from = equal_ignoring_case(name, "From");
        if (!from && !equal_ignoring_case(name, "Subject")) continue;
        if (from && std::count(field.begin(), field.end(), ':') > kMostColons) continue;
        picked += with_joined_words(field);
    }
    picked += "\r\n";
    return any;
}

std::string text_of(const char* text) {
    return text ? to_utf8(to_utf16(text)) : std::string();
}

// The mailboxes of a list, those inside of groups too.
void collect(InternetAddressList* list, std::vector<Sender>& senders) {
    const int count = list ? internet_address_list_length(list) : 0;
    for (int i = 0; i < count; ++i) {
        InternetAddress* address = internet_address_list_get_address(list, i);
        if (INTERNET_ADDRESS_IS_GROUP(address)) {
            collect(internet_address_group_get_members(INTERNET_ADDRESS_GROUP(address)), senders);
            continue;
        }
        const std::string mailbox(
            trimmed(text_of(internet_address_mailbox_get_addr(INTERNET_ADDRESS_MAILBOX(address)))));
        if (!mailbox.empty()) senders.push_back({text_of(internet_address_get_name(address)), mailbox});
    }
}

}  // namespace

Message read_message(const ReadFunction& read) {
    start_gmime();
    Message result;
    std::string header;
    if (!read_header(read, header)) {
        result.status = MessageStatus::Unreadable;
        result.error = errno;
        return result;
    }
    result.status = MessageStatus::NotAMessage;
    if (!looks_like_header(header)) return result;
    std::string fields;
    if (!pick_fields(header, fields)) return result;
    const std::unique_ptr<GMimeStream, Unref> stream(g_mime_stream_mem_new_with_buffer(fields.data(), fields.size()));
    const std::unique_ptr<GMimeParser, Unref> parser(g_mime_parser_new_with_stream(stream.get()));
    const Options options = parser_options();
    const std::unique_ptr<GMimeMessage, Unref> message(g_mime_parser_construct_message(parser.get(), options.get()));
    if (!message) return result;
    collect(g_mime_message_get_from(message.get()), result.senders);
    result.subject = text_of(g_mime_message_get_subject(message.get()));
    result.status = result.senders.empty() ? MessageStatus::NoSender : MessageStatus::Ok;
    return result;
}

}  // namespace zr
