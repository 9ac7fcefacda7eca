#include "zr/stores/mail_filing.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "zr/base/text.h"
#include "zr/mail/digest.h"
#include "zr/mail/header.h"
#include "zr/mail/html_text.h"
#include "zr/mail/meeting.h"
#include "zr/mail/mime_reader.h"
#include "zr/mail/text_decoder.h"

namespace zr {
namespace {

// More attachments than anybody sends: what comes behind is in the message's bytes only.
constexpr int kMostAttachments = 1000;
constexpr std::size_t kMostRecipients = 10000;
constexpr std::size_t kCalendarBeginning = std::size_t{64} << 10;
constexpr std::size_t kLongestText = 4096;  // of a property that is one line

std::string cut(const std::string& text) {
    if (text.size() <= kLongestText) return text;
    std::size_t end = kLongestText;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) {
        --end;
    }
    return text.substr(0, end);
}

// A text property in the making.
class TextPart {
public:
    TextPart(IMessage* message, ULONG tag) : writer_(message, tag) {}

    void write(const std::string& utf8) { writer_.write_text(utf8); }
    void finish() { writer_.finish(); }

private:
    MailStreamWriter writer_;
};

// Makes a message of what the reader tells.
class Maker final : public MimeSink {
public:
    using IsKnown = std::function<bool(const std::string&)>;

    Maker(IMessage* message, const Arrival& arrival, IsKnown is_known)
        : message_(message), arrival_(arrival), is_known_(std::move(is_known)) {}

    Filed result() const { return result_; }
    const std::string& message_id() const { return header_.message_id; }
    void finish();

    bool header(std::string_view header) override;
    void begin_part(const PartHeader& part) override;
    void part_bytes(std::string_view bytes) override;
    void end_part() override;

private:
    enum class Kind { Nothing, Plain, Html, Attachment };

    Kind kind_of(const PartHeader& part) const;
    void begin_attachment(const PartHeader& part);
    void write_decoded();
    void set_recipients();
    LONG message_flags() const;

    IMessage* message_;
    const Arrival& arrival_;
    IsKnown is_known_;
    Filed result_ = Filed::NotAMessage;
    Header header_;
    MailFlags flags_;
    std::string class_;

    Kind kind_ = Kind::Nothing;
    std::unique_ptr<TextDecoder> decoder_;
    std::string decoded_;
    std::unique_ptr<TextPart> plain_;      // the text
    std::unique_ptr<TextPart> html_;       // the HTML
    std::unique_ptr<TextPart> html_text_;  // the text of a message that has HTML only
    HtmlText html_reader_;
    bool is_calendar_ = false;
    std::string method_;
    std::string calendar_;
    int attachments_ = 0;
    ComPtr<IAttach> attachment_;
    std::unique_ptr<MailStreamWriter> attachment_bytes_;
};

bool Maker::header(std::string_view header) {
    std::optional<Header> read = read_header(header);
    if (!read) return false;
    header_ = std::move(*read);
    header_.message_id = cut(header_.message_id);
    if (header_.message_id.empty()) header_.message_id = "sha256-" + sha256_of(arrival_.open());
    if (is_known_(header_.message_id)) {
        result_ = Filed::Known;
        return false;
    }
    flags_ = arrival_.status_in_header ? flags_of_status(header_.status) : arrival_.flags;
    MailStreamWriter headers(message_, PR_TRANSPORT_MESSAGE_HEADERS_W);
    headers.write_text(to_utf8(to_utf16(header)));
    headers.finish();
    result_ = Filed::Stored;
    return true;
}

Maker::Kind Maker::kind_of(const PartHeader& part) const {
    const bool is_file = part.is_attachment || !part.name.empty();
    if (!is_file && part.type == "text/html") return Kind::Html;
    // The first of several forms is the plain one; further ones of no file, such as the foot of a list, belong to it.
    if (!is_file && part.type == "text/plain") return Kind::Plain;
    return Kind::Attachment;
}

void Maker::begin_part(const PartHeader& part) {
    kind_ = kind_of(part);
    is_calendar_ = class_.empty() && part.type == "text/calendar";
    method_ = part.method;
    calendar_.clear();
    if (kind_ == Kind::Attachment) return begin_attachment(part);
    decoder_ = std::make_unique<TextDecoder>(part.charset);
    if (kind_ == Kind::Plain) {
        html_text_.reset();
        if (!plain_) plain_ = std::make_unique<TextPart>(message_, PR_BODY_W);
    } else {
        if (!html_) html_ = std::make_unique<TextPart>(message_, PR_BODY_HTML_W);
        if (!plain_ && !html_text_) html_text_ = std::make_unique<TextPart>(message_, PR_BODY_W);
    }
}

void Maker::begin_attachment(const PartHeader& part) {
    if (++attachments_ > kMostAttachments) {
        kind_ = Kind::Nothing;
        return;
    }
    constexpr const char* doing = "storing an attachment";
    ULONG number = 0;
    check_mail(message_->CreateAttach(nullptr, 0, &number, attachment_.out()), doing);
    MailChanges changes;
    changes.text(PR_ATTACH_LONG_FILENAME_W, cut(part.name));
    changes.text(PR_ATTACH_MIME_TAG_W, cut(part.type));
    changes.text(PR_ATTACH_CONTENT_ID_W, cut(part.content_id));
    changes.number(PR_ATTACH_METHOD, ATTACH_BY_VALUE);
    changes.number(PR_RENDERING_POSITION, -1);
    changes.apply(attachment_.get(), doing);
    attachment_bytes_ = std::make_unique<MailStreamWriter>(attachment_.get(), PR_ATTACH_DATA_BIN);
}

void Maker::part_bytes(std::string_view bytes) {
    if (is_calendar_ && calendar_.size() < kCalendarBeginning) calendar_ += bytes;
    switch (kind_) {
        case Kind::Nothing:
            return;
        case Kind::Attachment:
            attachment_bytes_->write(bytes);
            return;
        case Kind::Plain:
        case Kind::Html:
            decoder_->decode(bytes, decoded_);
            if (decoded_.size() >= (std::size_t{16} << 10)) write_decoded();
            return;
    }
}

void Maker::write_decoded() {
    if (decoded_.empty()) return;
    if (kind_ == Kind::Plain) {
        plain_->write(decoded_);
    } else {
        html_->write(decoded_);
        if (html_text_) {
            std::string text;
            html_reader_.read(decoded_, text);
            html_text_->write(text);
        }
    }
    decoded_.clear();
}

void Maker::end_part() {
    if (is_calendar_) class_ = meeting_class(method_, calendar_);
    if (kind_ == Kind::Attachment) {
        attachment_bytes_->finish();
        attachment_bytes_.reset();
        check_mail(attachment_->SaveChanges(0), "storing an attachment");
        attachment_.reset();
    } else if (kind_ != Kind::Nothing) {
        decoder_->finish(decoded_);
        write_decoded();
        std::string rest;
        if (kind_ == Kind::Html) html_reader_.finish(rest);
        if (html_text_ && !rest.empty()) html_text_->write(rest);
    }
    kind_ = Kind::Nothing;
}

LONG Maker::message_flags() const {
    ULONG flags = 0;
    if (flags_.read) flags |= MSGFLAG_READ;
    if (flags_.draft) flags |= MSGFLAG_UNSENT;
    return static_cast<LONG>(flags);
}

void Maker::set_recipients() {
    struct Group {
        const std::vector<Sender>& list;
        LONG type;
    };
    std::vector<std::unique_ptr<MailChanges>> each;
    for (const auto& [list, type] :
         {Group{header_.to, MAPI_TO}, Group{header_.cc, MAPI_CC}, Group{header_.bcc, MAPI_BCC}}) {
        for (const Sender& recipient : list) {
            if (each.size() >= kMostRecipients) break;
            each.push_back(std::make_unique<MailChanges>());
            each.back()->number(PR_RECIPIENT_TYPE, type);
            each.back()->text(PR_DISPLAY_NAME_W, cut(recipient.name.empty() ? recipient.address : recipient.name));
            each.back()->text(PR_ADDRTYPE_W, "SMTP");
            each.back()->text(PR_EMAIL_ADDRESS_W, cut(recipient.address));
        }
    }
    if (each.empty()) return;
    std::vector<std::vector<SPropValue>> values;
    std::vector<BYTE> room(CbNewADRLIST(static_cast<ULONG>(each.size())));
    auto* const list = reinterpret_cast<LPADRLIST>(room.data());
    list->cEntries = static_cast<ULONG>(each.size());
    ADRENTRY* entry = list->aEntries;
    values.reserve(each.size());
    for (const auto& changes : each) {
        values.push_back(changes->values());
        *entry++ = {0, static_cast<ULONG>(values.back().size()), values.back().data()};
    }
    check_mail(message_->ModifyRecipients(MODRECIP_ADD, list), "storing a message");
}

void Maker::finish() {
    if (plain_) plain_->finish();
    if (html_) html_->finish();
    if (html_text_) html_text_->finish();
    MailChanges changes;
    changes.text(PR_SUBJECT_W, cut(header_.subject));
    if (!header_.from.empty()) {
        const Sender& sender = header_.from.front();
        const std::string name = cut(sender.name.empty() ? sender.address : sender.name);
        changes.text(PR_SENDER_NAME_W, name);
        changes.text(PR_SENDER_ADDRTYPE_W, "SMTP");
        changes.text(PR_SENDER_EMAIL_ADDRESS_W, cut(sender.address));
        changes.text(PR_SENT_REPRESENTING_NAME_W, name);
        changes.text(PR_SENT_REPRESENTING_ADDRTYPE_W, "SMTP");
        changes.text(PR_SENT_REPRESENTING_EMAIL_ADDRESS_W, cut(sender.address));
    }
    if (header_.sent) changes.time(PR_CLIENT_SUBMIT_TIME, *header_.sent);
    const auto arrived = header_.received ? header_.received : header_.sent ? header_.sent : arrival_.time;
    if (arrived) changes.time(PR_MESSAGE_DELIVERY_TIME, *arrived);
    changes.text(PR_MESSAGE_CLASS_W, class_.empty() ? "IPM.Note" : class_);
    changes.number(PR_MESSAGE_FLAGS, message_flags());
    changes.number(PR_IMPORTANCE, header_.importance);
    changes.text(PR_INTERNET_MESSAGE_ID_W, header_.message_id);
    changes.text(PR_IN_REPLY_TO_ID_W, cut(header_.in_reply_to));
    changes.text(PR_INTERNET_REFERENCES_W, cut(header_.references));
    changes.text(kMailSeparator, cut(to_utf8(to_utf16(arrival_.separator))));
    if (flags_.flagged) changes.number(kMailFlagStatus, 2);
    if (flags_.replied || flags_.forwarded) changes.number(kMailLastVerb, flags_.forwarded ? 104 : 102);
    const ULONG status = (flags_.deleted ? kMailDeletedMark : 0) | (flags_.replied ? kMailRepliedMark : 0);
    if (status != 0) changes.number(PR_MSG_STATUS, static_cast<LONG>(status));
    changes.apply(message_, "storing a message");
    set_recipients();
}

// Whether the bytes that are kept of a message are these.
bool same_bytes(IMessage* message, const ReadFunction& read) {
    bool same = true;
    std::vector<char> other(std::size_t{64} << 10);
    std::size_t have = 0;
    std::size_t used = 0;
    const bool there = read_mail_stream(message, PR_CE_MIME_TEXT, [&](const char* bytes, std::size_t size) {
        while (size > 0 && same) {
            if (used == have) {
                const ssize_t got = read(other.data(), other.size());
                have = got > 0 ? static_cast<std::size_t>(got) : 0;
                used = 0;
            }
            const std::size_t count = std::min(size, have - used);
            same = count > 0 && std::memcmp(bytes, other.data() + used, count) == 0;
            used += count;
            bytes += count;
            size -= count;
        }
    });
    return there && same && used == have && read(other.data(), 1) == 0;
}

}  // namespace

void MailFiling::into(const EntryBytes& folder) {
    folder_ = writing_.open_folder(folder);
}

void MailFiling::forget_kept() {
    for (const long kept = batches_.kept(); forgotten_ < kept; ++forgotten_) {
        identifiers_.erase(identifiers_.find(order_.front()));
        order_.pop_front();
    }
}

bool MailFiling::is_known(const std::string& message_id, const Arrival& arrival) {
    // What a batch has nobody sees yet.
    forget_kept();
    if (identifiers_.contains(message_id)) keep();
    for (const EntryBytes& entry : session_.with_message_id(message_id)) {
        try {
            const ComPtr<IMessage> message = session_.message(entry);
            if (same_bytes(message.get(), arrival.open())) return true;
        } catch (const Failure& failure) {
            if (failure.code != Exit::None) throw;  // deleted meanwhile
        }
    }
    return false;
}

Filed MailFiling::file(const Arrival& arrival) {
    ComPtr<IMessage> message;
    check_mail(folder_->CreateMessage(nullptr, 0, message.out()), "storing a message");
    MailStreamWriter bytes(message.get(), PR_CE_MIME_TEXT);
    Maker maker(message.get(), arrival, [&](const std::string& message_id) { return is_known(message_id, arrival); });
    const ReadFunction read = arrival.open();
    std::uint64_t size = 0;
    const int error = read_mime(
        [&](char* buffer, std::size_t room) {
            const ssize_t got = read(buffer, room);
            if (got > 0) {
                bytes.write({buffer, static_cast<std::size_t>(got)});
                size += static_cast<std::uint64_t>(got);
            }
            return got;
        },
        maker);
    if (error != 0) throw file_failure("a message", error);
    if (maker.result() != Filed::Stored) return maker.result();
    bytes.finish();
    maker.finish();
    order_.push_back(maker.message_id());
    identifiers_.insert(maker.message_id());
    batches_.add(std::move(message), size);
    return Filed::Stored;
}

void MailFiling::keep() {
    batches_.finish();
}

long MailFiling::newly_kept() {
    const long kept = batches_.kept();
    return kept - std::exchange(told_, kept);
}

}  // namespace zr
