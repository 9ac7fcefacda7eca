#include "zr/commands/mail_rows.h"

#include <ctime>

#include "zr/base/text.h"

namespace zr {

// Empty when nobody has the address, or several have.
std::string SenderNames::contact_name(const std::string& address) {
    if (failed_) return {};
    try {
        if (!contacts_) contacts_.emplace();
        const LONG oid = contacts_->with_email(address);
        if (oid == 0 || contacts_->with_email(address, oid) != 0) return {};
        const ComPtr<IContact> contact = contacts_->with_oid(oid);
        return contact ? display_name(read_contact(contact.get(), Extent::Line)) : "";
    } catch (const Failure& failure) {
        complain("warning: the names of contacts are left out: " + failure.text);
        contacts_.reset();
        failed_ = true;
        return {};
    }
}

std::string SenderNames::name_of(const MailRow& row) {
    const std::string& given = row.sender.empty() ? row.address : row.sender;
    if (row.address.empty()) return given;
    auto known = known_.find(row.address);
    if (known == known_.end()) {
        if (known_.size() >= kMostKept) known_.clear();
        known = known_.emplace(row.address, contact_name(row.address)).first;
    }
    return known->second.empty() ? given : known->second;
}

std::string local_time(const std::optional<std::int64_t>& seconds) {
    if (!seconds) return {};
    const std::time_t time = *seconds;
    std::tm parts = {};
    char text[64];
    if (::localtime_r(&time, &parts) == nullptr) return {};
    return {text, std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", &parts)};
}

std::string utc_time(const std::optional<std::int64_t>& seconds) {
    if (!seconds) return {};
    const std::time_t time = *seconds;
    std::tm parts = {};
    char text[64];
    if (::gmtime_r(&time, &parts) == nullptr) return {};
    return {text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

std::string mail_line(const MailSession& mail, const MailRow& row, SenderNames& names) {
    return mail.id_of(row.entry) + "\t" + local_time(row.time) + "\t" + (row.is_read() ? "" : "N") + "\t" +
           printable(names.name_of(row)) + "\t" + printable(row.subject) + "\n";
}

Json mail_json(const MailSession& mail, const MailRow& row, SenderNames& names) {
    Json json;
    json.set("id", mail.id_of(row.entry));
    json.set("entryId", hexadecimal(row.entry));
    json.set("date", row.time ? Json(utc_time(row.time)) : Json(nullptr));
    json.set("from", {{"name", names.name_of(row)}, {"address", row.address}});
    json.set("subject", row.subject);
    json.set("class", row.message_class);
    json.set("read", row.is_read());
    json.set("attachments", row.has_attachments());
    json.set("size", row.size);
    return json;
}

std::vector<Column> mail_columns() {
    return {{"ID", Column::Kind::Reference},
            {"DATE"},
            {"NEW"},
            {"SENDER", Column::Kind::Text},
            {"SUBJECT", Column::Kind::Text}};
}

}  // namespace zr
