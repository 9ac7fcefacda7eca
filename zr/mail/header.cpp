#include "zr/mail/header.h"

#include <algorithm>
#include <array>

#include "zr/base/text.h"
#include "zr/mail/encoded_words.h"
#include "zr/mail/gmime.h"

namespace zr {
namespace {

constexpr std::ptrdiff_t kMostColons = 1000;
constexpr std::size_t kLongestField = std::size_t{1} << 20;
// What a FILETIME of the years 1601 to 9999 can say.
constexpr std::int64_t kFirstSecond = -11644473600;
constexpr std::int64_t kLastSecond = 253402300799;

constexpr std::string_view kFieldsOfMessages[] = {
    "From",         "To",          "Cc",           "Date",   "Subject",  "Message-ID",  "Received",
    "MIME-Version", "Return-Path", "Delivered-To", "Sender", "Reply-To", "Content-Type"};
constexpr std::string_view kAddressFields[] = {"From", "To", "Cc", "Bcc"};
constexpr std::string_view kOtherFields[] = {"Subject", "Message-ID", "In-Reply-To", "References", "Date"};

template <std::size_t N>
bool is_field_of(std::string_view name, const std::string_view (&names)[N]) {
    return std::any_of(std::begin(names), std::end(names),
                       [&](std::string_view known) { return equal_ignoring_case(known, name); });
}

bool looks_like_header(std::string_view header) {
    const std::size_t colon = header.find(':');
    if (colon == 0 || colon == std::string_view::npos) return false;
    return std::all_of(header.begin(), header.begin() + static_cast<std::ptrdiff_t>(colon),
                       [](char c) { return c > ' ' && c < 0x7F; });
}

std::string_view name_of(std::string_view field) {
    return trimmed(field.substr(0, std::min(field.find(':'), field.size())));
}

std::string unfolded(std::string_view field) {
    std::string value(field.substr(std::min(field.find(':') + 1, field.size())));
    std::erase_if(value, [](char c) { return c == '\r' || c == '\n' || c == '\0'; });
    return std::string(trimmed(value));
}

// The fields that GMime reads, and nothing else, so that nothing else costs anything. False when it is no message's
// header.
bool pick_fields(std::string_view header, std::string& picked) {
    bool any = false;
    while (!header.empty()) {
        const std::string_view field = header.substr(0, field_length(header));
        header.remove_prefix(field.size());
        const std::string_view name = name_of(field);
        any = any || is_field_of(name, kFieldsOfMessages);
        const bool addresses = is_field_of(name, kAddressFields);
        if (!addresses && !is_field_of(name, kOtherFields)) continue;
        if (field.size() > kLongestField) continue;
        if (addresses && std::count(field.begin(), field.end(), ':') > kMostColons) continue;
        picked += with_joined_words(field);
        if (!picked.ends_with('\n')) picked += "\r\n";
    }
    picked += "\r\n";
    return any;
}

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

std::optional<std::int64_t> seconds_of(GDateTime* time) {
    if (time == nullptr) return std::nullopt;
    const std::int64_t seconds = g_date_time_to_unix(time);
    if (seconds < kFirstSecond || seconds > kLastSecond) return std::nullopt;
    return seconds;
}

std::optional<std::int64_t> date_of(const std::string& text) {
    GDateTime* const time = g_mime_utils_header_decode_date(text.c_str());
    const std::optional<std::int64_t> seconds = seconds_of(time);
    if (time != nullptr) g_date_time_unref(time);
    return seconds;
}

// Behind the last semicolon stands when.
std::optional<std::int64_t> date_of_receipt(std::string_view header) {
    const std::optional<std::string> received = raw_field(header, "Received");
    if (!received || received->find(';') == std::string::npos) return std::nullopt;
    return date_of(received->substr(received->rfind(';') + 1));
}

int importance_of(std::string_view header) {
    if (const auto text = raw_field(header, "Importance")) {
        return equal_ignoring_case(*text, "high") ? 2 : equal_ignoring_case(*text, "low") ? 0 : 1;
    }
    const std::string priority = raw_field(header, "X-Priority").value_or("");
    return priority.starts_with('1') || priority.starts_with('2')   ? 2
           : priority.starts_with('4') || priority.starts_with('5') ? 0
                                                                    : 1;
}

}  // namespace

std::size_t field_length(std::string_view text) {
    for (std::size_t end = text.find('\n'); end != std::string_view::npos; end = text.find('\n', end + 1)) {
        if (end + 1 == text.size() || (text[end + 1] != ' ' && text[end + 1] != '\t')) return end + 1;
    }
    return text.size();
}

std::optional<std::string> raw_field(std::string_view header, std::string_view name) {
    while (!header.empty()) {
        const std::string_view field = header.substr(0, field_length(header));
        header.remove_prefix(field.size());
        if (equal_ignoring_case(name_of(field), name)) return unfolded(field);
    }
    return std::nullopt;
}

std::optional<Header> read_header(std::string_view header) {
    start_gmime();
    std::string fields;
    if (!looks_like_header(header) || !pick_fields(header, fields)) return std::nullopt;
    const GObjectPtr<GMimeStream> stream(g_mime_stream_mem_new_with_buffer(fields.data(), fields.size()));
    const GObjectPtr<GMimeParser> parser(g_mime_parser_new_with_stream(stream.get()));
    const ParserOptions options = parser_options();
    const GObjectPtr<GMimeMessage> message(g_mime_parser_construct_message(parser.get(), options.get()));
    if (!message) return std::nullopt;
    Header result;
    collect(g_mime_message_get_from(message.get()), result.from);
    collect(g_mime_message_get_to(message.get()), result.to);
    collect(g_mime_message_get_cc(message.get()), result.cc);
    collect(g_mime_message_get_bcc(message.get()), result.bcc);
    result.subject = text_of(g_mime_message_get_subject(message.get()));
    result.message_id = text_of(g_mime_message_get_message_id(message.get()));
    result.in_reply_to = text_of(raw_field(fields, "In-Reply-To").value_or("").c_str());
    result.references = text_of(raw_field(fields, "References").value_or("").c_str());
    result.sent = seconds_of(g_mime_message_get_date(message.get()));
    result.received = date_of_receipt(header);
    result.status = raw_field(header, "Status").value_or("") + raw_field(header, "X-Status").value_or("");
    result.importance = importance_of(header);
    return result;
}

}  // namespace zr
