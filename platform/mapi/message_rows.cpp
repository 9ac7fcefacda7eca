// What a transaction does to messages and to values.

#include <algorithm>
#include <array>
#include <cstring>

#include "base/utf.h"
#include "chunk.h"
#include "transaction.h"

namespace zr::platform::mapi {
namespace {

constexpr std::size_t kMostWords = 1048576;  // characters of a text that are found
constexpr ULONG kNewFlags = MSGFLAG_UNSENT | MSGFLAG_READ;
constexpr std::u16string_view kNewClass = u"IPM.Note";

// UTF-8 as SQLite keeps it as text: no NUL, no half of a pair.
std::string as_words(std::u16string_view text) {
    std::u16string words(text.substr(0, kMostWords));
    for (std::size_t i = 0; i < words.size(); ++i) {
        const WCHAR unit = words[i];
        const bool high = unit >= 0xD800 && unit < 0xDC00;
        if (high && i + 1 < words.size() && words[i + 1] >= 0xDC00 && words[i + 1] < 0xE000) {
            ++i;
        } else if (unit == 0 || unit == 0xFEFF || unit == 0xFFFE || (unit >= 0xD800 && unit < 0xE000)) {
            words[i] = u' ';
        }
    }
    return wide_to_host(words);
}

bool is_inline_text(const Value& value) {
    return value.type == PT_UNICODE && !value.is_long() && value.bytes.size() <= kMostInline;
}

// --- what a message's values come to, as settle() computes it of those that are kept ---

LONGLONG size_of_values(const Values& values) {
    LONGLONG size = 0;
    for (const auto& [id, value] : values) {
        size += static_cast<LONGLONG>(value.size());
    }
    return size;
}

LONGLONG size_of_values(const MessageEdit& edit) {
    LONGLONG size = size_of_values(edit.edit.set);
    for (const auto& [number, attachment] : edit.attachments) {
        if (!attachment.deleted) size += size_of_values(attachment.edit.set);
    }
    for (const Values& recipient : edit.recipients) {
        size += size_of_values(recipient);
    }
    return size;
}

bool has_attachments(const MessageEdit& edit) {
    return std::any_of(edit.attachments.begin(), edit.attachments.end(),
                       [](const auto& each) { return !each.second.deleted && !each.second.edit.set.empty(); });
}

bool changes_words(const MessageEdit& edit) {
    constexpr WORD kBody = id_of(PR_BODY_W);
    if (edit.replaces_recipients || edit.edit.set.contains(kBody)) return true;
    if (std::find(edit.edit.removed.begin(), edit.edit.removed.end(), kBody) != edit.edit.removed.end()) return true;
    return edit.columns.contains(Column::Subject) || edit.columns.contains(Column::SenderName) ||
           edit.columns.contains(Column::SenderAddress);
}

void append(std::u16string& words, std::string_view text) {
    if (text.empty()) return;
    if (!words.empty()) words += u'\n';
    words += as_text(text);
}

}  // namespace

// --- values ---

HRESULT Transaction::add_values(LONGLONG owner, LONGLONG part, const Values& values) {
    for (const auto& [id, value] : values) {
        if (const HRESULT result = write_value(owner, part, id, value); FAILED(result)) return result;
    }
    return S_OK;
}

HRESULT Transaction::write_values(LONGLONG owner, LONGLONG part, const Edit& edit) {
    HRESULT result = S_OK;
    for (const WORD id : edit.removed) {
        if (SUCCEEDED(result)) result = drop_value(owner, part, id);
    }
    for (const auto& [id, value] : edit.set) {
        if (SUCCEEDED(result)) result = drop_value(owner, part, id);
        if (SUCCEEDED(result)) result = write_value(owner, part, id, value);
    }
    return result;
}

HRESULT Transaction::write_value(LONGLONG owner, LONGLONG part, WORD id, const Value& value) {
    LONGLONG blob = 0;
    const bool long_value = value.is_long() || value.bytes.size() > kMostInline;
    if (long_value) {
        if (const HRESULT result = write_blob(value, blob); FAILED(result)) return result;
    }
    Use row = writing_.connection().use("INSERT INTO property VALUES(?1, ?2, ?3, ?4, ?5, ?6)");
    if (!row) return failure();
    row->bind(1, owner);
    row->bind(2, part);
    row->bind(3, LONG{id});
    row->bind(4, value.type);
    if (long_value) {
        row->bind(5, static_cast<LONGLONG>(value.size()));
        row->bind(6, blob);
    } else {
        if (has_bytes(value.type)) {
            row->bind_blob(5, value.bytes.data(), value.bytes.size());
        } else {
            row->bind(5, value.number);
        }
        row->bind_null(6);
    }
    return run(row);
}

HRESULT Transaction::write_blob(const Value& value, LONGLONG& blob) {
    if (value.blob != 0) return copy_blob(value.blob, blob);
    const ULONGLONG size = value.size();
    {
        Use row = writing_.connection().use("INSERT INTO blob(size) VALUES(?1)");
        if (!row) return failure();
        row->bind(1, static_cast<LONGLONG>(size));
        if (const HRESULT result = run(row); FAILED(result)) return result;
    }
    blob = last_id();
    std::array<BYTE, kChunkSize> buffer;
    std::array<char, kChunkSize / 2> narrow;
    LONGLONG number = blob << kChunkBits;
    for (ULONGLONG at = 0; at < size; ++number) {
        auto got = static_cast<std::size_t>(std::min<ULONGLONG>(kChunkSize, size - at));
        const void* bytes = value.bytes.data() + at;
        if (value.spool != nullptr) {
            if (const HRESULT result = value.spool->read(at, buffer, got); FAILED(result)) return result;
            bytes = buffer.data();
        }
        Use row = writing_.connection().use("INSERT INTO chunk VALUES(?1, ?2)");
        if (!row) return failure();
        row->bind(1, number);
        std::string_view kept(static_cast<const char*>(bytes), got);
        if (value.type == PT_UNICODE) kept = narrowed(kept, narrow);
        row->bind_blob(2, kept.data(), kept.size());
        if (const HRESULT result = run(row); FAILED(result)) return result;
        at += got;
    }
    return S_OK;
}

HRESULT Transaction::copy_blob(LONGLONG from, LONGLONG& to) {
    for (const char* sql : {"INSERT INTO blob(size) SELECT size FROM blob WHERE id = ?1",
                            "INSERT INTO chunk SELECT ?2 << 24 | (id & 16777215), bytes FROM chunk"
                            " WHERE id BETWEEN ?1 << 24 AND (?1 << 24 | 16777215)"}) {
        Use row = writing_.connection().use(sql);
        if (!row) return failure();
        row->bind(1, from);
        if (to != 0) row->bind(2, to);
        if (const HRESULT result = run(row); FAILED(result)) return result;
        if (writing_.connection().changes() == 0) return fail(MAPI_E_OBJECT_CHANGED);
        if (to == 0) to = last_id();
    }
    return S_OK;
}

HRESULT Transaction::drop_blobs(Use& rows) {
    std::vector<LONGLONG> blobs;
    const HRESULT result = numbers(rows, blobs);
    return SUCCEEDED(result) ? drop_blobs(blobs) : result;
}

HRESULT Transaction::drop_blobs(const std::vector<LONGLONG>& blobs) {
    HRESULT result = S_OK;
    for (const LONGLONG blob : blobs) {
        for (const char* sql : {"DELETE FROM chunk WHERE id BETWEEN ?1 << 24 AND (?1 << 24 | 16777215)",
                                "DELETE FROM blob WHERE id = ?1"}) {
            if (FAILED(result)) return result;
            Use row = writing_.connection().use(sql);
            if (row) row->bind(1, blob);
            result = run(row);
        }
    }
    return result;
}

HRESULT Transaction::drop_value(LONGLONG owner, LONGLONG part, WORD id) {
    HRESULT result = S_OK;
    {
        Use rows = writing_.connection().use(
            "SELECT blob FROM property WHERE owner = ?1 AND part = ?2 AND id = ?3 AND blob IS NOT NULL");
        if (rows) {
            rows->bind(1, owner);
            rows->bind(2, part);
            rows->bind(3, LONG{id});
        }
        result = drop_blobs(rows);
    }
    if (FAILED(result)) return result;
    Use row = writing_.connection().use("DELETE FROM property WHERE owner = ?1 AND part = ?2 AND id = ?3");
    if (!row) return failure();
    row->bind(1, owner);
    row->bind(2, part);
    row->bind(3, LONG{id});
    return run(row);
}

HRESULT Transaction::drop_values(LONGLONG owner) {
    HRESULT result = S_OK;
    {
        Use rows = writing_.connection().use("SELECT blob FROM property WHERE owner = ?1 AND blob IS NOT NULL");
        if (rows) rows->bind(1, owner);
        result = drop_blobs(rows);
    }
    if (FAILED(result)) return result;
    Use row = writing_.connection().use("DELETE FROM property WHERE owner = ?1");
    if (row) row->bind(1, owner);
    return run(row);
}

HRESULT Transaction::drop_part(LONGLONG owner, LONGLONG part) {
    HRESULT result = S_OK;
    {
        Use rows =
            writing_.connection().use("SELECT blob FROM property WHERE owner = ?1 AND part = ?2 AND blob IS NOT NULL");
        if (rows) rows->bind(1, owner);
        if (rows) rows->bind(2, part);
        result = drop_blobs(rows);
    }
    if (FAILED(result)) return result;
    Use row = writing_.connection().use("DELETE FROM property WHERE owner = ?1 AND part = ?2");
    if (row) row->bind(1, owner);
    if (row) row->bind(2, part);
    return run(row);
}

HRESULT Transaction::copy_values(LONGLONG from, LONGLONG to) {
    {
        Use row = writing_.connection().use(
            "INSERT INTO property SELECT ?2, part, id, type, value, blob FROM property WHERE owner = ?1");
        if (!row) return failure();
        row->bind(1, from);
        row->bind(2, to);
        if (const HRESULT result = run(row); FAILED(result)) return result;
    }
    std::vector<LONGLONG> blobs;
    {
        Use rows = writing_.connection().use("SELECT blob FROM property WHERE owner = ?1 AND blob IS NOT NULL");
        if (rows) rows->bind(1, to);
        if (const HRESULT result = numbers(rows, blobs); FAILED(result)) return result;
    }
    for (const LONGLONG blob : blobs) {
        LONGLONG copy = 0;
        if (const HRESULT result = copy_blob(blob, copy); FAILED(result)) return result;
        Use row = writing_.connection().use("UPDATE property SET blob = ?3 WHERE owner = ?1 AND blob = ?2");
        if (!row) return failure();
        row->bind(1, to);
        row->bind(2, blob);
        row->bind(3, copy);
        if (const HRESULT result = run(row); FAILED(result)) return result;
    }
    return S_OK;
}

// --- saving ---

HRESULT Transaction::save_message(LONGLONG folder, MessageEdit& edit, LONGLONG& id, LONGLONG& version, bool force) {
    return id == 0 ? insert_message(folder, edit, id, version) : update_message(edit, id, version, force);
}

HRESULT Transaction::insert_message(LONGLONG folder, MessageEdit& edit, LONGLONG& id, LONGLONG& version) {
    FolderFacts facts;
    if (const HRESULT result = this->facts(folder, facts); FAILED(result)) return result;
    const LONGLONG time = now();
    const Value none;
    const Value usual_class = Value::of_text(kNewClass);
    const auto value = [&](Column column) -> const Value& {
        if (const auto set = edit.columns.find(column); set != edit.columns.end()) return set->second;
        return column == Column::Class ? usual_class : none;
    };
    const auto number = [&](Column column, LONGLONG otherwise) {
        return value(column).type != PT_NULL ? value(column).number : otherwise;
    };
    constexpr ULONG kKept = ~MSGFLAG_HASATTACH;
    const LONGLONG flags = (number(Column::Flags, kNewFlags) & kKept) | (has_attachments(edit) ? MSGFLAG_HASATTACH : 0);
    LONGLONG size = size_of_values(edit) + 32;
    for (const Column column :
         {Column::Class, Column::Subject, Column::SenderName, Column::SenderAddress, Column::MessageId}) {
        size += static_cast<LONGLONG>(value(column).bytes.size());
    }
    {
        Use row = writing_.connection().use(
            "INSERT INTO message(folder, delivered, submitted, flags, size, version, created, modified,"
            " next_attachment, class, subject, sender_name, sender_address, display_to, display_cc, display_bcc,"
            " message_id) VALUES(?1, ?2, ?3, ?4, ?15, 1, ?5, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14)");
        if (!row) return failure();
        row->bind(1, folder);
        row->bind(2, number(Column::Delivered, time));
        bind_column(row, 3, value(Column::Submitted));
        row->bind(4, flags);
        row->bind(5, time);
        row->bind(6, edit.next_attachment);
        for (unsigned i = kFirstText; i < kColumns; ++i) {
            bind_column(row, 7 + static_cast<int>(i - kFirstText), value(static_cast<Column>(i)));
        }
        row->bind(15, std::min<LONGLONG>(size, INT32_MAX));
        if (const HRESULT result = checked(run(row)); FAILED(result)) return result;
    }
    const LONGLONG fresh = last_id();
    HRESULT result = add_values(owner_of(MAPI_MESSAGE, fresh), 0, edit.edit.set);
    if (SUCCEEDED(result)) result = add_parts(edit, fresh);
    if (SUCCEEDED(result)) result = index_words_of(edit, fresh);
    if (SUCCEEDED(result)) result = log(ChangeKind::Created, MAPI_MESSAGE, facts.account, fresh, folder);
    if (SUCCEEDED(result) && facts.role == Role::Inbox && (flags & kNewFlags) == 0)
        result = log(ChangeKind::NewMail, MAPI_MESSAGE, facts.account, fresh, folder, 0, 0, 0,
                     as_text(value(Column::Class).bytes), static_cast<ULONG>(flags & kKept));
    if (SUCCEEDED(result)) {
        id = fresh;
        version = 1;
    }
    return checked(result);
}

void Transaction::bind_column(Use& row, int at, const Value& value) {
    if (value.type == PT_NULL) {
        row->bind_null(at);
    } else if (has_bytes(value.type)) {
        row->bind_blob(at, value.bytes.data(), value.bytes.size());
    } else {
        row->bind(at, value.number);
    }
}

HRESULT Transaction::update_message(MessageEdit& edit, LONGLONG id, LONGLONG& version, bool force) {
    LONGLONG folder = 0;
    LONGLONG present = 0;
    FolderFacts facts;
    {
        const Use rows = writing_.connection().use("SELECT folder, version FROM message WHERE id = ?1");
        if (!rows) return failure();
        rows->bind(1, id);
        const int code = rows->step();
        if (code == SQLITE_DONE) return fail(MAPI_E_OBJECT_DELETED);
        if (code != SQLITE_ROW) return failure();
        folder = rows->integer(0);
        present = rows->integer(1);
    }
    if (present != version && !force) return fail(MAPI_E_OBJECT_CHANGED);
    HRESULT result = this->facts(folder, facts);
    if (FAILED(result)) return result;
    result = write_columns(edit, id);
    if (SUCCEEDED(result)) result = write_values(owner_of(MAPI_MESSAGE, id), 0, edit.edit);
    if (SUCCEEDED(result)) result = write_parts(edit, id);
    if (SUCCEEDED(result)) {
        Use row = writing_.connection().use(
            "UPDATE message SET version = ?2, modified = ?3, next_attachment = max(next_attachment, ?4) WHERE id = ?1");
        if (!row) return checked(failure());
        row->bind(1, id);
        row->bind(2, present + 1);
        row->bind(3, now());
        row->bind(4, edit.next_attachment);
        result = run(row);
    }
    if (SUCCEEDED(result)) result = settle(id);
    if (SUCCEEDED(result) && changes_words(edit)) {
        result = drop_words(id);
        if (SUCCEEDED(result)) result = index_words(id);
    }
    if (SUCCEEDED(result)) result = log(ChangeKind::Modified, MAPI_MESSAGE, facts.account, id, folder);
    if (SUCCEEDED(result)) version = present + 1;
    return checked(result);
}

HRESULT Transaction::write_columns(const MessageEdit& edit, LONGLONG id) {
    static const std::array<std::string, kColumns> kUpdates = [] {
        std::array<std::string, kColumns> updates;
        for (unsigned i = 0; i < kColumns; ++i) {
            updates[i] = std::string("UPDATE message SET ") + kColumnInfo[i].name + " = ?2 WHERE id = ?1";
        }
        return updates;
    }();
    HRESULT result = S_OK;
    for (const auto& [column, value] : edit.columns) {
        if (FAILED(result)) return result;
        Use row = writing_.connection().use(kUpdates[index_of(column)].c_str());
        if (!row) return failure();
        row->bind(1, id);
        bind_column(row, 2, value);
        result = run(row);
    }
    return result;
}

// The parts of a message that has none yet.
HRESULT Transaction::add_parts(const MessageEdit& edit, LONGLONG id) {
    const LONGLONG owner = owner_of(MAPI_MESSAGE, id);
    for (const auto& [number, attachment] : edit.attachments) {
        if (attachment.deleted) continue;
        const HRESULT result = add_values(owner, attachment_part(number), attachment.edit.set);
        if (FAILED(result)) return result;
    }
    LONGLONG number = 0;
    for (const Values& recipient : edit.recipients) {
        if (const HRESULT result = add_values(owner, recipient_part(number++), recipient); FAILED(result))
            return result;
    }
    return S_OK;
}

HRESULT Transaction::write_parts(const MessageEdit& edit, LONGLONG id) {
    const LONGLONG owner = owner_of(MAPI_MESSAGE, id);
    HRESULT result = S_OK;
    for (const auto& [number, attachment] : edit.attachments) {
        if (FAILED(result)) return result;
        result = attachment.deleted ? drop_part(owner, attachment_part(number))
                                    : write_values(owner, attachment_part(number), attachment.edit);
    }
    return SUCCEEDED(result) && edit.replaces_recipients ? replace_recipients(edit.recipients, owner) : result;
}

// Long values of recipients that stay are copied before those that were there go.
HRESULT Transaction::replace_recipients(const std::vector<Values>& recipients, LONGLONG owner) {
    std::vector<LONGLONG> blobs;
    {
        Use rows =
            writing_.connection().use("SELECT blob FROM property WHERE owner = ?1 AND part < 0 AND blob IS NOT NULL");
        if (rows) rows->bind(1, owner);
        if (const HRESULT result = numbers(rows, blobs); FAILED(result)) return result;
    }
    {
        Use row = writing_.connection().use("DELETE FROM property WHERE owner = ?1 AND part < 0");
        if (row) row->bind(1, owner);
        if (const HRESULT result = run(row); FAILED(result)) return result;
    }
    LONGLONG number = 0;
    for (const Values& recipient : recipients) {
        if (const HRESULT result = add_values(owner, recipient_part(number++), recipient); FAILED(result))
            return result;
    }
    return drop_blobs(blobs);
}

// What is computed from the message's values, as insert_message computes it.
HRESULT Transaction::settle(LONGLONG id) {
    Use row = writing_.connection().use(
        "UPDATE message SET size = min(2147483647, (SELECT coalesce(sum(CASE WHEN blob IS NOT NULL THEN value"
        " WHEN type IN (31, 72, 258) THEN length(value) ELSE 8 END), 0) FROM property WHERE owner = ?2)"
        " + coalesce(length(class), 0) + coalesce(length(subject), 0) + coalesce(length(sender_name), 0)"
        " + coalesce(length(sender_address), 0) + coalesce(length(message_id), 0) + 32),"
        " flags = flags & ~16 | 16 * EXISTS(SELECT 1 FROM property WHERE owner = ?2 AND part > 0) WHERE id = ?1");
    if (!row) return failure();
    row->bind(1, id);
    row->bind(2, owner_of(MAPI_MESSAGE, id));
    return run(row);
}

// --- words ---

HRESULT Transaction::read_chunks(LONGLONG blob, ULONGLONG size, std::string& text) {
    const Use rows = writing_.connection().use("SELECT bytes FROM chunk WHERE id >= ?1 AND id <= ?2 ORDER BY id");
    if (!rows) return failure();
    rows->bind(1, blob << kChunkBits);
    rows->bind(2, blob << kChunkBits | ((LONGLONG{1} << kChunkBits) - 1));
    int code;
    for (ULONGLONG number = 0; (code = rows->step()) == SQLITE_ROW && text.size() < kMostWords * sizeof(WCHAR);
         ++number) {
        const Chunk chunk(rows->blob(0), chunk_size(size, number));
        const std::size_t at = text.size();
        text.resize(at + chunk.size());
        chunk.copy(0, {reinterpret_cast<BYTE*>(text.data()) + at, chunk.size()});
    }
    return code == SQLITE_DONE || code == SQLITE_ROW ? S_OK : failure();
}

HRESULT Transaction::text_of(const Value& value, std::string& text) {
    if (value.blob != 0) return read_chunks(value.blob, value.blob_size, text);
    if (value.spool == nullptr) {
        text = value.bytes;
        return S_OK;
    }
    text.resize(static_cast<std::size_t>(std::min<ULONGLONG>(value.size(), kMostWords * sizeof(WCHAR))));
    std::size_t got = 0;
    return value.spool->read(0, {reinterpret_cast<BYTE*>(text.data()), text.size()}, got);
}

HRESULT Transaction::text_of(LONGLONG id, std::string& text) {
    const Use rows = writing_.connection().use(
        "SELECT value, blob FROM property WHERE owner = ?1 AND part = 0 AND id = 4096 AND type = 31");
    if (!rows) return failure();
    rows->bind(1, owner_of(MAPI_MESSAGE, id));
    const int code = rows->step();
    if (code != SQLITE_ROW) return code == SQLITE_DONE ? S_OK : failure();
    if (!rows->is_null(1)) return read_chunks(rows->integer(1), static_cast<ULONGLONG>(rows->integer(0)), text);
    text = rows->blob(0);
    return S_OK;
}

// Of a message that is kept.
HRESULT Transaction::index_words(LONGLONG id) {
    Words words;
    {
        const Use rows =
            writing_.connection().use("SELECT subject, sender_name, sender_address FROM message WHERE id = ?1");
        if (!rows) return failure();
        rows->bind(1, id);
        if (rows->step() != SQLITE_ROW) return failure();
        append(words.subject, rows->blob(0));
        append(words.addresses, rows->blob(1));
        append(words.addresses, rows->blob(2));
    }
    {
        const Use rows = writing_.connection().use(
            "SELECT value FROM property WHERE owner = ?1 AND part < 0 AND id IN (12289, 12291) AND type = 31"
            " AND blob IS NULL ORDER BY part DESC, id");
        if (!rows) return failure();
        rows->bind(1, owner_of(MAPI_MESSAGE, id));
        int code;
        while ((code = rows->step()) == SQLITE_ROW) {
            append(words.addresses, rows->blob(0));
        }
        if (code != SQLITE_DONE) return failure();
    }
    const HRESULT result = text_of(id, words.text);
    return SUCCEEDED(result) ? add_words(id, words) : result;
}

// Of a new one, without reading it back.
HRESULT Transaction::index_words_of(const MessageEdit& edit, LONGLONG id) {
    Words words;
    const auto take = [&](Column column, std::u16string& to) {
        if (const auto set = edit.columns.find(column); set != edit.columns.end()) append(to, set->second.bytes);
    };
    take(Column::Subject, words.subject);
    take(Column::SenderName, words.addresses);
    take(Column::SenderAddress, words.addresses);
    for (const Values& recipient : edit.recipients) {
        for (const ULONG tag : {PR_DISPLAY_NAME_W, PR_EMAIL_ADDRESS_W}) {
            const auto found = recipient.find(id_of(tag));
            if (found != recipient.end() && is_inline_text(found->second)) append(words.addresses, found->second.bytes);
        }
    }
    const auto body = edit.edit.set.find(id_of(PR_BODY_W));
    if (body != edit.edit.set.end() && body->second.type == PT_UNICODE) {
        if (const HRESULT result = text_of(body->second, words.text); FAILED(result)) return result;
    }
    return add_words(id, words);
}

HRESULT Transaction::add_words(LONGLONG id, const Words& words) {
    const std::string columns[] = {as_words(words.subject), as_words(words.addresses), as_words(as_text(words.text))};
    for (const char* sql : {"INSERT INTO words VALUES(?1, ?2, ?3, ?4)",
                            "INSERT INTO word_index(rowid, subject, addresses, text) VALUES(?1, ?2, ?3, ?4)"}) {
        Use row = writing_.connection().use(sql);
        if (!row) return failure();
        row->bind(1, id);
        int at = 2;
        for (const std::string& column : columns) {
            if (!column.empty()) row->bind_utf8(at, column);
            if (column.empty()) row->bind_null(at);
            ++at;
        }
        if (const HRESULT result = run(row); FAILED(result)) return result;
    }
    return S_OK;
}

// The index reads in `words` what to forget.
HRESULT Transaction::drop_words(LONGLONG id) {
    HRESULT result = S_OK;
    for (const char* sql : {"DELETE FROM word_index WHERE rowid = ?1", "DELETE FROM words WHERE message = ?1"}) {
        if (FAILED(result)) return result;
        Use row = writing_.connection().use(sql);
        if (row) row->bind(1, id);
        result = run(row);
    }
    return result;
}

// --- moving, copying, deleting, marking ---

// Which of the messages are in the folder.
HRESULT Transaction::take_messages(LONGLONG from, std::span<const LONGLONG> messages, bool& missed,
                                   std::vector<LONGLONG>& there) {
    for (const LONGLONG message : messages) {
        const Use rows = writing_.connection().use("SELECT folder FROM message WHERE id = ?1");
        if (!rows) return failure();
        rows->bind(1, message);
        const int code = rows->step();
        if (code != SQLITE_ROW && code != SQLITE_DONE) return failure();
        if (code == SQLITE_ROW && rows->integer(0) == from) {
            there.push_back(message);
        } else {
            missed = true;
        }
    }
    return S_OK;
}

HRESULT Transaction::move_messages(LONGLONG from, std::span<const LONGLONG> messages, LONGLONG to, bool& missed) {
    FolderFacts source;
    FolderFacts target;
    HRESULT result = facts(from, source);
    if (SUCCEEDED(result)) result = facts(to, target);
    if (FAILED(result)) return result;
    for (const LONGLONG message : messages) {
        if (FAILED(result)) return checked(result);
        Use row = writing_.connection().use("UPDATE message SET folder = ?2 WHERE id = ?1 AND folder = ?3");
        if (!row) return checked(failure());
        row->bind(1, message);
        row->bind(2, to);
        row->bind(3, from);
        result = run(row);
        if (FAILED(result)) continue;
        if (writing_.connection().changes() == 0) {
            missed = true;
        } else if (from != to) {
            result = log(ChangeKind::Moved, MAPI_MESSAGE, target.account, message, to, source.account, message, from);
        }
    }
    return checked(result);
}

HRESULT Transaction::copy_messages(LONGLONG from, std::span<const LONGLONG> messages, LONGLONG to, bool& missed) {
    FolderFacts source;
    FolderFacts target;
    std::vector<LONGLONG> there;
    HRESULT result = facts(from, source);
    if (SUCCEEDED(result)) result = facts(to, target);
    if (SUCCEEDED(result)) result = take_messages(from, messages, missed, there);
    if (FAILED(result)) return result;
    for (const LONGLONG message : there) {
        LONGLONG copy = 0;
        if (SUCCEEDED(result)) result = copy_message(message, to, copy);
        if (SUCCEEDED(result))
            result = log(ChangeKind::Copied, MAPI_MESSAGE, target.account, copy, to, source.account, message, from);
    }
    return checked(result);
}

HRESULT Transaction::copy_message(LONGLONG id, LONGLONG to, LONGLONG& copy) {
    {
        Use row = writing_.connection().use(
            "INSERT INTO message(folder, delivered, submitted, flags, size, version, created, modified,"
            " next_attachment, class, subject, sender_name, sender_address, display_to, display_cc, display_bcc,"
            " message_id) SELECT ?2, delivered, submitted, flags, size, 1, ?3, ?3, next_attachment, class, subject,"
            " sender_name, sender_address, display_to, display_cc, display_bcc, message_id FROM message WHERE id = ?1");
        if (!row) return failure();
        row->bind(1, id);
        row->bind(2, to);
        row->bind(3, now());
        if (const HRESULT result = run(row); FAILED(result)) return result;
    }
    copy = last_id();
    HRESULT result = copy_values(owner_of(MAPI_MESSAGE, id), owner_of(MAPI_MESSAGE, copy));
    for (const char* sql :
         {"INSERT INTO words SELECT ?2, subject, addresses, text FROM words WHERE message = ?1",
          "INSERT INTO word_index(rowid, subject, addresses, text) SELECT ?2, subject, addresses, text FROM words"
          " WHERE message = ?1"}) {
        if (FAILED(result)) return result;
        Use row = writing_.connection().use(sql);
        if (row) row->bind(1, id);
        if (row) row->bind(2, copy);
        result = run(row);
    }
    return result;
}

HRESULT Transaction::delete_messages(LONGLONG from, std::span<const LONGLONG> messages, bool& missed) {
    FolderFacts source;
    std::vector<LONGLONG> there;
    HRESULT result = facts(from, source);
    if (SUCCEEDED(result)) result = take_messages(from, messages, missed, there);
    if (FAILED(result)) return result;
    for (const LONGLONG message : there) {
        if (SUCCEEDED(result)) result = remove_message(message);
        if (SUCCEEDED(result)) result = log(ChangeKind::Deleted, MAPI_MESSAGE, source.account, message, from);
    }
    return checked(result);
}

HRESULT Transaction::remove_message(LONGLONG id) {
    HRESULT result = drop_words(id);
    if (SUCCEEDED(result)) result = drop_values(owner_of(MAPI_MESSAGE, id));
    if (FAILED(result)) return result;
    Use row = writing_.connection().use("DELETE FROM message WHERE id = ?1");
    if (row) row->bind(1, id);
    return run(row);
}

HRESULT Transaction::mark_read(LONGLONG folder, std::span<const LONGLONG> messages, bool all, bool read, bool& missed) {
    FolderFacts facts;
    std::vector<LONGLONG> there;
    HRESULT result = this->facts(folder, facts);
    if (SUCCEEDED(result)) result = all ? messages_of(folder, there) : take_messages(folder, messages, missed, there);
    if (FAILED(result)) return result;
    for (const LONGLONG message : there) {
        if (FAILED(result)) break;
        Use row =
            writing_.connection().use("UPDATE message SET flags = flags & ~1 | ?2 WHERE id = ?1 AND flags & 1 <> ?2");
        if (!row) return checked(failure());
        row->bind(1, message);
        row->bind(2, read ? 1 : 0);
        result = run(row);
        if (SUCCEEDED(result) && writing_.connection().changes() != 0)
            result = log(ChangeKind::Modified, MAPI_MESSAGE, facts.account, message, folder);
    }
    return checked(result);
}

}  // namespace zr::platform::mapi
