#include "zr/commands/mail_rows.h"

#include <ctime>

#include "zr/base/text.h"

namespace zr {

Answer SenderNames::answer(const std::string& address) {
    try {
        if (!failed_ && !directory_) directory_.emplace();
        if (directory_) return directory_->answer(address);
    } catch (const Failure& failure) {
        complain("warning: the names of contacts are left out: " + failure.text);
        directory_.reset();
        failed_ = true;
    }
    return {Exit::None, {}, {}};
}

std::string SenderNames::name_of(const MailRow& row) {
    const std::string& given = row.sender.empty() ? row.address : row.sender;
    if (row.address.empty()) return given;
    auto known = known_.find(row.address);
    if (known == known_.end()) {
        if (known_.size() >= kMostKept) known_.clear();
        const Answer found = answer(row.address);
        known = known_.emplace(row.address, found.code == Exit::Ok ? display_name(found.card) : "").first;
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
