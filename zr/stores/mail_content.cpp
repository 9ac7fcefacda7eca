#include "zr/stores/mail_content.h"

#include <map>

#include "zr/mail/html_source.h"
#include "zr/mail/message_writer.h"

namespace zr {
namespace {

ComPtr<IAttach> open_attachment(IMessage* message, const MailAttachment& attachment) {
    ComPtr<IAttach> opened;
    check_mail(message->OpenAttach(static_cast<ULONG>(attachment.number), nullptr, 0, opened.out()),
               "reading an attachment");
    return opened;
}

Header header_of(IMessage* message) {
    const MailValues values(
        message, {PR_SENT_REPRESENTING_NAME_W, PR_SENT_REPRESENTING_EMAIL_ADDRESS_W, PR_SENDER_NAME_W,
                  PR_SENDER_EMAIL_ADDRESS_W, PR_SUBJECT_W, PR_INTERNET_MESSAGE_ID_W, PR_IN_REPLY_TO_ID_W,
                  PR_INTERNET_REFERENCES_W, PR_CLIENT_SUBMIT_TIME, PR_MESSAGE_DELIVERY_TIME, PR_CREATION_TIME});
    Header header;
    Sender from = {values.text(PR_SENT_REPRESENTING_NAME_W), values.text(PR_SENT_REPRESENTING_EMAIL_ADDRESS_W)};
    if (from.address.empty()) from = {values.text(PR_SENDER_NAME_W), values.text(PR_SENDER_EMAIL_ADDRESS_W)};
    if (from.address.empty()) from.address = std::exchange(from.name, {});
    if (!from.address.empty()) header.from.push_back(from);
    for (const MailRecipient& recipient : recipients_of(message)) {
        const bool named = !recipient.address.empty();
        const Sender person = {named ? recipient.name : "", named ? recipient.address : recipient.name};
        if (person.address.empty()) continue;
        (recipient.type == MAPI_CC ? header.cc : recipient.type == MAPI_BCC ? header.bcc : header.to).push_back(person);
    }
    header.subject = values.text(PR_SUBJECT_W);
    header.message_id = values.text(PR_INTERNET_MESSAGE_ID_W);
    header.in_reply_to = values.text(PR_IN_REPLY_TO_ID_W);
    header.references = values.text(PR_INTERNET_REFERENCES_W);
    for (const ULONG tag : {PR_CLIENT_SUBMIT_TIME, PR_MESSAGE_DELIVERY_TIME, PR_CREATION_TIME}) {
        if (!header.sent) header.sent = values.time(tag);
    }
    const MailValues importance(message, {PR_IMPORTANCE});
    if (importance.has(PR_IMPORTANCE)) header.importance = importance.number(PR_IMPORTANCE);
    return header;
}

void compose(IMessage* message, const TakeBytes& take) {
    MessageWriter writer(header_of(message));
    for (const auto& text : {std::pair{PR_BODY_W, "text/plain"}, {PR_BODY_HTML_W, "text/html"}}) {
        const ULONG tag = text.first;
        // Nothing is no text.
        bool any = false;
        read_mail_stream(message, tag, [&](const char*, std::size_t) { any = true; });
        if (!any) continue;
        PartHeader part;
        part.type = text.second;
        writer.add(part, [&](const TakeBytes& piece) { read_mail_text(message, tag, piece); });
    }
    for (const MailAttachment& attachment : attachments_of(message)) {
        const ComPtr<IAttach> opened = open_attachment(message, attachment);
        PartHeader part;
        part.type = attachment.type;
        part.name = attachment.name;
        part.content_id = MailValues(opened.get(), {PR_ATTACH_CONTENT_ID_W}).text(PR_ATTACH_CONTENT_ID_W);
        part.is_attachment = true;
        writer.add(part, [&](const TakeBytes& piece) {
            read_mail_stream(opened.get(), PR_ATTACH_DATA_BIN, [&](const char* bytes, std::size_t size) {
                piece({bytes, size});
            });
        });
    }
    writer.write(take);
}

constexpr std::size_t kMostInPage = std::size_t{64} << 20;

std::string bare_id(std::string id) {
    if (id.starts_with('<') && id.ends_with('>')) id = id.substr(1, id.size() - 2);
    return id;
}

using PartsById = std::map<std::string, MailAttachment>;

PartsById parts_by_id(IMessage* message) {
    PartsById parts;
    for (const MailAttachment& attachment : attachments_of(message)) {
        const ComPtr<IAttach> opened = open_attachment(message, attachment);
        const std::string id = MailValues(opened.get(), {PR_ATTACH_CONTENT_ID_W}).text(PR_ATTACH_CONTENT_ID_W);
        if (!id.empty()) parts.emplace(bare_id(id), attachment);
    }
    return parts;
}

HtmlPart part_with_id(IMessage* message, const PartsById& parts, const std::string& id) {
    const auto found = parts.find(id);
    if (found == parts.end()) return {};
    HtmlPart part{found->second.type, {}};
    read_mail_stream(open_attachment(message, found->second).get(), PR_ATTACH_DATA_BIN,
                     [&](const char* bytes, std::size_t size) { part.bytes.append(bytes, size); });
    return part;
}

}  // namespace

std::vector<MailRecipient> recipients_of(IMessage* message) {
    ComPtr<IMAPITable> table;
    check_mail(message->GetRecipientTable(0, table.out()), "reading the recipients");
    std::vector<MailRecipient> all;
    each_row(table.get(), {PR_RECIPIENT_TYPE, PR_DISPLAY_NAME_W, PR_EMAIL_ADDRESS_W}, [&](const MailCells& row) {
        all.push_back({row.number(0), row.text(1), row.text(2)});
        return true;
    });
    return all;
}

std::vector<MailAttachment> attachments_of(IMessage* message) {
    constexpr const char* reading = "reading the attachments";
    ComPtr<IMAPITable> table;
    check_mail(message->GetAttachmentTable(0, table.out()), reading);
    std::vector<MailAttachment> all;
    each_row(table.get(),
             {PR_ATTACH_NUM, PR_ATTACH_LONG_FILENAME_W, PR_ATTACH_FILENAME_W, PR_DISPLAY_NAME_W, PR_ATTACH_MIME_TAG_W,
              PR_ATTACH_SIZE},
             [&](const MailCells& row) {
                 std::string name;
                 for (const ULONG column : {1, 2, 3}) {
                     if (name.empty()) name = row.text(column);
                 }
                 all.push_back({row.number(0), name, row.text(4), row.number(5)});
                 return true;
             });
    return all;
}

std::string mail_page(IMessage* message) {
    std::string html;
    read_mail_text(message, PR_BODY_HTML_W, [&](std::string_view piece) { html += piece; });
    if (html.empty()) {
        std::string text;
        read_mail_text(message, PR_BODY_W, [&](std::string_view piece) { text += piece; });
        return text_page(text);
    }
    const PartsById parts = parts_by_id(message);
    return with_parts(
        html, [&](const std::string& id) { return part_with_id(message, parts, id); }, kMostInPage);
}

void read_message_bytes(IMessage* message, const std::function<void(std::string_view)>& take) {
    const bool kept = read_mail_stream(message, PR_CE_MIME_TEXT, [&](const char* bytes, std::size_t size) {
        take({bytes, size});
    });
    if (!kept) compose(message, take);
}

}  // namespace zr
