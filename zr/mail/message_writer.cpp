#include "zr/mail/message_writer.h"

#include <algorithm>
#include <cerrno>
#include <utility>

#include "zr/base/failure.h"
#include "zr/base/text.h"
#include "zr/mail/gmime.h"

namespace zr {
namespace {

constexpr const char* kTemporary = "a temporary file";
constexpr std::string_view kAtomSigns = "!#$%&'*+-/=?^_`{|}~.";

// One line: what a header holds must not become a header of its own.
std::string one_line(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }, ' ');
    return std::string(trimmed(text));
}

bool is_atom(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
        return g_ascii_isalnum(c) || kAtomSigns.find(c) != std::string_view::npos ||
               static_cast<unsigned char>(c) >= 0x80;
    });
}

// An address that stands between angle brackets. What no mail program would take for one is quoted as its local part.
std::string address_text(const std::string& given) {
    std::string address = one_line(given);
    const std::size_t at = address.rfind('@');
    const std::string local = address.substr(0, at);
    const std::string domain = at == std::string::npos ? "" : address.substr(at);
    const bool sound = domain.empty() || is_atom(std::string_view(domain).substr(1)) || domain.starts_with("@[");
    if (sound && (is_atom(local) || (local.size() > 1 && local.front() == '"' && local.back() == '"'))) return address;
    std::string quoted = "\"";
    for (const char c : sound ? local : address) {
        if (c == '"' || c == '\\') quoted += '\\';
        quoted += c;
    }
    return quoted + "\"" + (sound ? domain : "");
}

void add_people(InternetAddressList* list, const std::vector<Sender>& people) {
    for (const Sender& person : people) {
        const std::string name = one_line(person.name);
        const GObjectPtr<InternetAddress> address(
            internet_address_mailbox_new(name.empty() ? nullptr : name.c_str(), address_text(person.address).c_str()));
        internet_address_list_add(list, address.get());
    }
}

void set_field(GMimeMessage* message, const char* name, const std::string& value) {
    const std::string line = one_line(value);
    if (!line.empty()) g_mime_object_set_header(GMIME_OBJECT(message), name, line.c_str(), "UTF-8");
}

void set_header(GMimeMessage* message, const Header& header) {
    add_people(g_mime_message_get_from(message), header.from);
    if (header.from.empty()) {
        const GObjectPtr<InternetAddress> nobody(internet_address_group_new("Unknown sender"));
        internet_address_list_add(g_mime_message_get_from(message), nobody.get());
    }
    add_people(g_mime_message_get_to(message), header.to);
    add_people(g_mime_message_get_cc(message), header.cc);
    add_people(g_mime_message_get_bcc(message), header.bcc);
    g_mime_message_set_subject(message, one_line(header.subject).c_str(), "UTF-8");
    if (header.sent) {
        if (GDateTime* const time = g_date_time_new_from_unix_utc(*header.sent)) {
            g_mime_message_set_date(message, time);
            g_date_time_unref(time);
        }
    }
    const std::string id = one_line(header.message_id);
    if (!id.empty() && id.find_first_of("<> ") == std::string::npos && is_ascii(id)) {
        g_mime_message_set_message_id(message, id.c_str());
    }
    set_field(message, "In-Reply-To", header.in_reply_to);
    set_field(message, "References", header.references);
    if (header.importance != 1) set_field(message, "Importance", header.importance > 1 ? "high" : "low");
}

bool is_text(const PartHeader& part) {
    return !part.is_attachment && part.name.empty() && (part.type == "text/plain" || part.type == "text/html");
}

// Line ends of texts become those that the message is written with: for GMime, LF alone.
class LineEnds {
public:
    std::string_view take(std::string_view bytes) {
        out_.clear();
        for (const char c : bytes) {
            if (c == '\n' && was_return_) {
                was_return_ = false;
                continue;
            }
            was_return_ = c == '\r';
            out_ += was_return_ ? '\n' : c;
        }
        return out_;
    }

private:
    bool was_return_ = false;
    std::string out_;
};

GObjectPtr<GMimePart> make_part(const PartHeader& header, bool text, std::FILE* file, std::int64_t begin,
                                std::int64_t end) {
    const ParserOptions options = parser_options();
    GObjectPtr<GMimeContentType> type(g_mime_content_type_parse(options.get(), one_line(header.type).c_str()));
    const bool usable = header.type.find('/') != std::string::npos && is_ascii(header.type) && type &&
                        !g_mime_content_type_is_type(type.get(), "multipart", "*");
    if (!usable) type.reset(g_mime_content_type_new("application", "octet-stream"));
    if (text) g_mime_content_type_set_parameter(type.get(), "charset", "utf-8");
    GObjectPtr<GMimePart> part(g_mime_part_new());
    g_mime_object_set_content_type(GMIME_OBJECT(part.get()), type.get());
    // What holds a message must not be encoded.
    const bool message = g_mime_content_type_is_type(type.get(), "message", "*");
    g_mime_part_set_content_encoding(part.get(), text      ? GMIME_CONTENT_ENCODING_QUOTEDPRINTABLE
                                                 : message ? GMIME_CONTENT_ENCODING_8BIT
                                                           : GMIME_CONTENT_ENCODING_BASE64);
    if (!text) {
        g_mime_object_set_disposition(GMIME_OBJECT(part.get()), "attachment");
        const std::string name = one_line(header.name);
        if (!name.empty()) g_mime_part_set_filename(part.get(), name.c_str());
        const std::string id = one_line(header.content_id);
        if (!id.empty() && id.find_first_of("<> ") == std::string::npos && is_ascii(id)) {
            g_mime_part_set_content_id(part.get(), id.c_str());
        }
    }
    const GObjectPtr<GMimeStream> stream(g_mime_stream_fs_new_with_bounds(fileno(file), begin, end));
    g_mime_stream_fs_set_owner(GMIME_STREAM_FS(stream.get()), FALSE);
    const GObjectPtr<GMimeDataWrapper> content(
        g_mime_data_wrapper_new_with_stream(stream.get(), GMIME_CONTENT_ENCODING_DEFAULT));
    g_mime_part_set_content(part.get(), content.get());
    return part;
}

GObjectPtr<GMimeMultipart> make_multipart(const char* subtype, const std::string& boundary) {
    GObjectPtr<GMimeMultipart> multipart(g_mime_multipart_new_with_subtype(subtype));
    g_mime_multipart_set_boundary(multipart.get(), boundary.c_str());
    return multipart;
}

}  // namespace

struct MessageWriter::Digest {
    std::unique_ptr<GChecksum, decltype(&g_checksum_free)> sum{g_checksum_new(G_CHECKSUM_SHA256), &g_checksum_free};
};

MessageWriter::File MessageWriter::temporary_file() {
    File file(std::tmpfile());
    if (!file) throw file_failure(kTemporary, errno);
    return file;
}

MessageWriter::MessageWriter(const Header& header)
    : header_(header), parts_file_(temporary_file()), digest_(std::make_unique<Digest>()) {
    start_gmime();
}

MessageWriter::~MessageWriter() = default;

void MessageWriter::keep(std::string_view bytes) {
    g_checksum_update(digest_->sum.get(), reinterpret_cast<const guchar*>(bytes.data()),
                      static_cast<gssize>(bytes.size()));
    if (std::fwrite(bytes.data(), 1, bytes.size(), parts_file_.get()) != bytes.size()) {
        throw file_failure(kTemporary, errno);
    }
    size_ += static_cast<std::int64_t>(bytes.size());
}

void MessageWriter::add(const PartHeader& part, const std::function<void(const TakeBytes&)>& read) {
    const std::int64_t begin = size_;
    LineEnds ends;
    const bool text = is_text(part);
    read([&](std::string_view bytes) { keep(text ? ends.take(bytes) : bytes); });
    (text ? texts_ : attachments_).push_back({part, begin, size_});
}

// Nothing that the message holds can hold it, since it depends on all of that.
std::string MessageWriter::boundary(const char* what) const {
    const std::unique_ptr<GChecksum, decltype(&g_checksum_free)> copy(g_checksum_copy(digest_->sum.get()),
                                                                      &g_checksum_free);
    return std::string("=_") + what + "_" + std::string(g_checksum_get_string(copy.get())).substr(0, 32);
}

void MessageWriter::write(const TakeBytes& take) {
    if (std::fflush(parts_file_.get()) != 0) throw file_failure(kTemporary, errno);
    // A message without anything is an empty text.
    if (texts_.empty() && attachments_.empty()) {
        PartHeader nothing;
        nothing.type = "text/plain";
        add(nothing, [](const TakeBytes&) {});
    }
    const auto made = [&](const Part& part, bool text) {
        return make_part(part.header, text, parts_file_.get(), part.begin, part.end);
    };
    GObjectPtr<GMimeObject> body;
    if (texts_.size() == 1) {
        body.reset(GMIME_OBJECT(made(texts_.front(), true).release()));
    } else if (!texts_.empty()) {
        const GObjectPtr<GMimeMultipart> forms = make_multipart("alternative", boundary("forms"));
        for (const Part& part : texts_) {
            g_mime_multipart_add(forms.get(), GMIME_OBJECT(made(part, true).get()));
        }
        body.reset(GMIME_OBJECT(g_object_ref(forms.get())));
    }
    if (!attachments_.empty()) {
        const GObjectPtr<GMimeMultipart> all = make_multipart("mixed", boundary("parts"));
        if (body) g_mime_multipart_add(all.get(), body.get());
        for (const Part& part : attachments_) {
            g_mime_multipart_add(all.get(), GMIME_OBJECT(made(part, false).get()));
        }
        body.reset(GMIME_OBJECT(g_object_ref(all.get())));
    }
    const GObjectPtr<GMimeMessage> message(g_mime_message_new(TRUE));
    set_header(message.get(), header_);
    g_mime_message_set_mime_part(message.get(), body.get());

    const File whole = temporary_file();
    const std::unique_ptr<GMimeFormatOptions, decltype(g_mime_format_options_free)> format(g_mime_format_options_new(),
                                                                                           g_mime_format_options_free);
    g_mime_format_options_set_newline_format(format.get(), GMIME_NEWLINE_FORMAT_DOS);
    const GObjectPtr<GMimeStream> stream(g_mime_stream_fs_new(fileno(whole.get())));
    g_mime_stream_fs_set_owner(GMIME_STREAM_FS(stream.get()), FALSE);
    errno = 0;
    if (g_mime_object_write_to_stream(GMIME_OBJECT(message.get()), format.get(), stream.get()) < 0 ||
        g_mime_stream_flush(stream.get()) != 0) {
        throw file_failure(kTemporary, errno != 0 ? errno : EIO);
    }
    std::rewind(whole.get());
    std::vector<char> buffer(std::size_t{64} << 10);
    for (std::size_t got = 0; (got = std::fread(buffer.data(), 1, buffer.size(), whole.get())) > 0;) {
        take({buffer.data(), got});
    }
    if (std::ferror(whole.get()) != 0) throw file_failure(kTemporary, errno);
}

}  // namespace zr
