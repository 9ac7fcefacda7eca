// Messages and their attachments: IMessage, IAttach.

#include "objects.h"
#include "prop_object.h"
#include "row_source.h"
#include "rows.h"
#include "table.h"

namespace zr::platform::mapi {
namespace {

constexpr ULONG kAttachmentColumns[] = {PR_ATTACH_NUM,  PR_ATTACH_LONG_FILENAME_W, PR_ATTACH_METHOD,
                                        PR_ATTACH_SIZE, PR_ATTACH_MIME_TAG_W,      PR_RENDERING_POSITION};
constexpr ULONG kRecipientColumns[] = {PR_ROWID, PR_RECIPIENT_TYPE, PR_DISPLAY_NAME_W, PR_ADDRTYPE_W,
                                       PR_EMAIL_ADDRESS_W};
constexpr std::size_t kMostColumn = 65536;  // bytes of a text that lists show

// An edit laid over another one.
void lay_over(Edit& under, Edit& over) {
    for (const WORD id : over.removed) {
        under.set.erase(id);
        under.removed.push_back(id);
    }
    for (auto& [id, value] : over.set) {
        std::erase(under.removed, id);
        under.set.insert_or_assign(id, std::move(value));
    }
}

bool is_removed(const Edit& edit, WORD id) {
    return std::find(edit.removed.begin(), edit.removed.end(), id) != edit.removed.end();
}

// Values with an edit laid over them.
void lay_over(Values& values, const Edit& edit) {
    for (const WORD id : edit.removed) {
        values.erase(id);
    }
    for (const auto& [id, value] : edit.set) {
        values.insert_or_assign(id, value);
    }
}

LONGLONG size_of(const Values& values) {
    ULONGLONG size = 0;
    for (const auto& [id, value] : values) {
        size += value.size();
    }
    return static_cast<LONGLONG>(std::min<ULONGLONG>(size, INT32_MAX));
}

std::u16string_view text_of(const Values& values, WORD id) {
    const auto found = values.find(id);
    if (found == values.end() || found->second.type != PT_UNICODE) return {};
    return as_text(found->second.bytes);
}

LONGLONG number_of(const Values& values, WORD id, LONGLONG otherwise) {
    const auto found = values.find(id);
    return found != values.end() && found->second.type == PT_LONG ? found->second.number : otherwise;
}

class MessageObject;

class AttachObject final : public PropObject<IAttach> {
public:
    AttachObject(SessionRef session, MessageObject& message, LONGLONG number, Values values, bool writable);

    HRESULT SaveChanges(ULONG flags) override;

private:
    ~AttachObject() override;

    bool is_kind(REFIID riid) const override {
        return riid == IID_IUnknown || riid == IID_IMAPIProp || riid == IID_IAttachment;
    }
    HRESULT look() override { return S_OK; }
    HRESULT list(std::vector<ULONG>& tags) override {
        tags = {PR_ATTACH_NUM, PR_ATTACH_SIZE, PR_OBJECT_TYPE};
        for (const auto& [id, value] : values_) {
            tags.push_back(PROP_TAG(value.type, id));
        }
        return S_OK;
    }
    HRESULT fill(ULONG tag, Row& row) override {
        switch (id_of(tag)) {
            case id_of(PR_ATTACH_NUM):
                fill_number(tag, PT_LONG, number_, row);
                return S_OK;
            case id_of(PR_ATTACH_SIZE):
                fill_number(tag, PT_LONG, size_of(values_), row);
                return S_OK;
            case id_of(PR_OBJECT_TYPE):
                fill_number(tag, PT_LONG, MAPI_ATTACH, row);
                return S_OK;
            default: {
                const auto found = values_.find(id_of(tag));
                return fill_value(store(), tag, found != values_.end() ? &found->second : nullptr, row);
            }
        }
    }
    HRESULT stored(WORD id, Value& value) override {
        const auto found = values_.find(id);
        value = found != values_.end() ? found->second : Value{};
        return S_OK;
    }
    SCODE settable(ULONG tag) override {
        const WORD id = id_of(tag);
        return id == id_of(PR_ATTACH_NUM) || id == id_of(PR_ATTACH_SIZE) || is_identity(id) ? MAPI_E_COMPUTED : S_OK;
    }
    HRESULT apply(Edit& edit) override {
        lay_over(values_, edit);
        lay_over(edit_, edit);
        return S_OK;
    }

    MessageObject& message_;
    const LONGLONG number_;
    Values values_;
    Edit edit_;  // what the message has not been handed yet
};

class MessageObject final : public PropObject<IMessage> {
public:
    // `id` 0: a new one.
    MessageObject(SessionRef session, LONGLONG folder, LONGLONG id, bool writable)
        : PropObject(std::move(session), writable), folder_(folder), id_(id) {}

    // Whether it is there, in that account.
    HRESULT open(const AccountUid& uid) {
        const auto reading = store().lock();
        const HRESULT result = look_all();
        if (FAILED(result)) return result == MAPI_E_OBJECT_DELETED ? fail(MAPI_E_NOT_FOUND) : result;
        const Folder* const folder = store().folder(folder_);
        const Account* const account = folder != nullptr ? store().account(folder->account) : nullptr;
        return account != nullptr && account->uid == uid ? S_OK : fail(MAPI_E_NOT_FOUND);
    }

    HRESULT SaveChanges(ULONG flags) override {
        return guarded([&] { return save(flags); });
    }
    HRESULT GetAttachmentTable(ULONG flags, LPMAPITABLE* table) override {
        return guarded([&] { return attachment_table(flags, table); });
    }
    HRESULT OpenAttach(ULONG number, LPCIID iid, ULONG flags, LPATTACH* attach) override {
        return guarded([&] { return open_attachment(number, iid, flags, attach); });
    }
    HRESULT CreateAttach(LPCIID iid, ULONG flags, ULONG* number, LPATTACH* attach) override {
        return guarded([&] { return create_attachment(iid, flags, number, attach); });
    }
    HRESULT DeleteAttach(ULONG number, ULONG_PTR, IMAPIProgress*, ULONG flags) override {
        return guarded([&] {
            HRESULT result = check_flags(flags, 0);
            if (SUCCEEDED(result)) result = check_writable();
            Values values;
            if (SUCCEEDED(result)) result = attachment(number, values);
            if (FAILED(result)) return result;
            AttachmentEdit& edit = edit_.attachments[number];
            edit = {};
            edit.deleted = true;
            dirty_ = true;
            return S_OK;
        });
    }
    HRESULT GetRecipientTable(ULONG flags, LPMAPITABLE* table) override {
        return guarded([&] {
            if (!cleared(table)) return fail(MAPI_E_INVALID_PARAMETER);
            std::vector<Values> rows;
            HRESULT result = check_flags(flags, MAPI_UNICODE | MAPI_DEFERRED_ERRORS);
            if (SUCCEEDED(result)) result = recipients(rows);
            if (FAILED(result)) return result;
            return make_table(session_, fixed_source(store(), std::move(rows), kRecipientColumns), table);
        });
    }
    HRESULT ModifyRecipients(ULONG flags, LPADRLIST list) override {
        return guarded([&] { return modify_recipients(flags, list); });
    }
    HRESULT SubmitMessage(ULONG) override { return unsupported(); }
    HRESULT SetReadFlag(ULONG flags) override {
        return guarded([&] { return set_read_flag(flags); });
    }

    // An attachment was changed.
    HRESULT take_attachment(LONGLONG number, Edit& edit) {
        AttachmentEdit& own = edit_.attachments[number];
        if (own.deleted) return fail(MAPI_E_OBJECT_DELETED);
        lay_over(own.edit, edit);
        dirty_ = true;
        return S_OK;
    }

private:
    bool is_kind(REFIID riid) const override {
        return riid == IID_IUnknown || riid == IID_IMAPIProp || riid == IID_IMessage;
    }
    HRESULT copy_parts(LPSPropTagArray excluded, IMessage* target, HRESULT so_far) override;

    // --- what is kept, with what is to be saved laid over it ---

    HRESULT look() override {
        if (id_ == 0) return S_OK;
        if (row_.id != 0 && row_seq_ == store().seq() && row_generation_ == store().generation()) return S_OK;
        if (mark_ != nullptr && mark_->load() == BatchOutcome::Dropped && made_in_batch_)
            return fail(MAPI_E_OBJECT_DELETED);
        const bool in_batch = mark_ != nullptr && mark_->load() == BatchOutcome::Open;
        if (mark_ != nullptr && !in_batch && !dirty_) edit_ = {};
        HRESULT result = store().message(id_, row_);
        if (result == MAPI_E_NOT_FOUND) {
            row_.clear();
            stored_known_ = false;
            return in_batch && made_in_batch_ ? S_OK : fail(MAPI_E_OBJECT_DELETED);
        }
        if (FAILED(result)) return result;
        row_seq_ = store().seq();
        row_generation_ = store().generation();
        stored_known_ = false;
        folder_ = row_.folder;
        if (version_ == 0) version_ = row_.version;
        return S_OK;
    }
    HRESULT load() {
        if (stored_known_) return S_OK;
        stored_.clear();
        if (row_.id != 0) {
            if (const HRESULT result = store().properties(owner_of(MAPI_MESSAGE, id_), 0, stored_); FAILED(result))
                return result;
        }
        stored_known_ = true;
        return S_OK;
    }
    const Value* find(WORD id) const {
        if (const auto found = edit_.edit.set.find(id); found != edit_.edit.set.end()) return &found->second;
        if (is_removed(edit_.edit, id)) return nullptr;
        const auto found = stored_.find(id);
        return found != stored_.end() ? &found->second : nullptr;
    }
    ColumnView column(Column column) const {
        const auto set = edit_.columns.find(column);
        if (set == edit_.columns.end()) return row_.view(column);
        const Value& value = set->second;
        return {value.type != PT_NULL, value.number, value.bytes};
    }

    HRESULT list(std::vector<ULONG>& tags) override {
        if (const HRESULT result = load(); FAILED(result)) return result;
        for (const ULONG tag : kMessageTags) {
            const bool named = tag == PR_ENTRYID || tag == PR_RECORD_KEY;
            if (id_ != 0 || !named) tags.push_back(tag);
        }
        for (unsigned i = 0; i < kColumns; ++i) {
            if (column(static_cast<Column>(i)).present) tags.push_back(kColumnInfo[i].tag);
        }
        for (const auto& [id, value] : stored_) {
            if (find(id) == &value) tags.push_back(PROP_TAG(value.type, id));
        }
        for (const auto& [id, value] : edit_.edit.set) {
            tags.push_back(PROP_TAG(value.type, id));
        }
        return S_OK;
    }
    HRESULT fill(ULONG tag, Row& row) override {
        if (const auto found = column_of(tag)) {
            fill_column(tag, *found, column(*found), row);
            return S_OK;
        }
        if (fill_message_identity(store(), id_, folder_, column(Column::Flags).number, writable_, tag, row))
            return S_OK;
        if (const HRESULT result = load(); FAILED(result)) return result;
        return fill_value(store(), tag, find(id_of(tag)), row);
    }
    HRESULT stored(WORD id, Value& value) override {
        value = {};
        if (const auto found = column_of(PROP_TAG(0, id))) {
            const ColumnView view = column(*found);
            if (!view.present) return S_OK;
            value = is_text(*found) ? Value::of_text(as_text(view.bytes))
                                    : Value::of_number(PROP_TYPE(kColumnInfo[index_of(*found)].tag), view.number);
            return S_OK;
        }
        if (const HRESULT result = load(); FAILED(result)) return result;
        if (const Value* const found = find(id)) value = *found;
        return S_OK;
    }
    SCODE settable(ULONG tag) override {
        const auto found = column_of(tag);
        if (!found) return is_computed_of_message(id_of(tag)) ? MAPI_E_COMPUTED : S_OK;
        const ColumnInfo& info = kColumnInfo[index_of(*found)];
        if (info.computed || (*found == Column::Flags && id_ != 0)) return MAPI_E_COMPUTED;
        return tag == info.tag ? S_OK : MAPI_E_UNEXPECTED_TYPE;
    }
    HRESULT apply(Edit& edit) override {
        Edit rest;
        for (const WORD id : edit.removed) {
            if (const auto found = column_of(PROP_TAG(0, id))) {
                set_column(*found, {});
            } else {
                rest.removed.push_back(id);
            }
        }
        for (auto& [id, value] : edit.set) {
            const auto found = column_of(PROP_TAG(0, id));
            if (!found) {
                rest.set.insert_or_assign(id, std::move(value));
                continue;
            }
            if (const HRESULT result = flatten(value); FAILED(result)) return result;
            set_column(*found, std::move(value));
        }
        lay_over(edit_.edit, rest);
        dirty_ = true;
        return S_OK;
    }
    void set_column(Column column, Value value) {
        // The date and the flags of a message cannot be missing.
        if (value.type == PT_NULL && (column == Column::Delivered || column == Column::Flags)) {
            edit_.columns.erase(column);
            return;
        }
        edit_.columns.insert_or_assign(column, std::move(value));
    }
    HRESULT flatten(Value& value) {
        if (value.size() > kMostColumn) return fail(MAPI_E_TOO_BIG, "The text is too long for a list.");
        if (!value.is_long()) return S_OK;
        std::string bytes(static_cast<std::size_t>(value.size()), 0);
        std::size_t got = 0;
        const auto reading = store().lock();
        const HRESULT result =
            read_value_bytes(store(), value, 0, {reinterpret_cast<BYTE*>(bytes.data()), bytes.size()}, got);
        value.spool = nullptr;
        value.blob = 0;
        value.bytes = std::move(bytes);
        return result;
    }
    HRESULT open_table(ULONG tag, IMAPITable** table) override {
        if (tag == PR_MESSAGE_RECIPIENTS) return GetRecipientTable(0, table);
        return tag == PR_MESSAGE_ATTACHMENTS ? GetAttachmentTable(0, table) : fail(MAPI_E_NOT_FOUND);
    }

    // --- saving ---

    HRESULT save(ULONG flags) {
        HRESULT result =
            check_flags(flags, KEEP_OPEN_READONLY | KEEP_OPEN_READWRITE | FORCE_SAVE | MAPI_DEFERRED_ERRORS);
        if (SUCCEEDED(result)) result = check_writable();
        if (SUCCEEDED(result)) result = refresh_row();
        if (FAILED(result)) return result;
        if (dirty_ || id_ == 0) result = write((flags & FORCE_SAVE) != 0);
        if (SUCCEEDED(result) && (flags & KEEP_OPEN_READONLY) != 0) writable_ = false;
        return result;
    }
    HRESULT refresh_row() {
        const auto reading = store().lock();
        return look_all();
    }
    HRESULT write(bool force) {
        const bool fresh = id_ == 0;
        BatchMark mark;
        LONGLONG id = id_;
        LONGLONG version = version_;
        const HRESULT result = session_->write(
            mark, [&](Transaction& change) { return change.save_message(folder_, edit_, id, version, force); });
        if (FAILED(result)) return fresh && result == MAPI_E_NOT_FOUND ? fail(MAPI_E_OBJECT_DELETED) : result;
        id_ = id;
        version_ = version;
        mark_ = std::move(mark);
        made_in_batch_ = fresh && mark_ != nullptr;
        dirty_ = false;
        row_.clear();
        stored_known_ = false;
        if (mark_ == nullptr) edit_ = {};
        return S_OK;
    }

    HRESULT set_read_flag(ULONG flags) {
        HRESULT result = check_flags(flags, SUPPRESS_RECEIPT | CLEAR_READ_FLAG | MAPI_DEFERRED_ERRORS);
        if (SUCCEEDED(result)) result = check_writable();
        if (SUCCEEDED(result)) result = refresh_row();
        if (FAILED(result)) return result;
        const bool read = (flags & CLEAR_READ_FLAG) == 0;
        if (id_ == 0) {
            const LONGLONG now = edit_.columns.contains(Column::Flags) ? column(Column::Flags).number
                                                                       : LONGLONG{MSGFLAG_UNSENT | MSGFLAG_READ};
            set_column(Column::Flags,
                       Value::of_number(PT_LONG, read ? now | MSGFLAG_READ : now & ~LONGLONG{MSGFLAG_READ}));
            return S_OK;
        }
        bool missed = false;
        const LONGLONG numbers[] = {id_};
        result = session_->write(
            [&](Transaction& change) { return change.mark_read(folder_, numbers, false, read, missed); });
        return SUCCEEDED(result) && missed ? fail(MAPI_E_OBJECT_DELETED) : result;
    }

    // --- attachments ---

    HRESULT attachment_numbers(std::vector<LONGLONG>& numbers) {
        std::vector<LONGLONG> parts;
        if (row_.id != 0) {
            if (const HRESULT result = store().parts(owner_of(MAPI_MESSAGE, id_), false, parts); FAILED(result))
                return result;
        }
        for (const LONGLONG part : parts) {
            if (!edit_.attachments.contains(part - attachment_part(0))) numbers.push_back(part - attachment_part(0));
        }
        for (const auto& [number, edit] : edit_.attachments) {
            if (!edit.deleted) numbers.push_back(number);
        }
        std::sort(numbers.begin(), numbers.end());
        return S_OK;
    }
    HRESULT attachment_values(LONGLONG number, Values& values) {
        if (row_.id != 0) {
            const HRESULT result = store().properties(owner_of(MAPI_MESSAGE, id_), attachment_part(number), values);
            if (FAILED(result)) return result;
        }
        const auto edit = edit_.attachments.find(number);
        if (edit == edit_.attachments.end()) return values.empty() ? fail(MAPI_E_NOT_FOUND) : S_OK;
        if (edit->second.deleted) return fail(MAPI_E_NOT_FOUND);
        lay_over(values, edit->second.edit);
        return S_OK;
    }
    HRESULT attachment(LONGLONG number, Values& values) {
        const auto reading = store().lock();
        const HRESULT result = look_all();
        return SUCCEEDED(result) ? attachment_values(number, values) : result;
    }
    HRESULT attachment_table(ULONG flags, LPMAPITABLE* table) {
        if (!cleared(table)) return fail(MAPI_E_INVALID_PARAMETER);
        HRESULT result = check_flags(flags, MAPI_UNICODE | MAPI_DEFERRED_ERRORS);
        std::vector<Values> rows;
        {
            const auto reading = store().lock();
            if (SUCCEEDED(result)) result = look_all();
            std::vector<LONGLONG> numbers;
            if (SUCCEEDED(result)) result = attachment_numbers(numbers);
            for (const LONGLONG number : numbers) {
                Values values;
                if (SUCCEEDED(result)) result = attachment_values(number, values);
                const LONGLONG size = size_of(values);
                values[id_of(PR_ATTACH_NUM)] = Value::of_number(PT_LONG, number);
                values[id_of(PR_ATTACH_SIZE)] = Value::of_number(PT_LONG, size);
                rows.push_back(std::move(values));
            }
        }
        if (FAILED(result)) return result;
        return make_table(session_, fixed_source(store(), std::move(rows), kAttachmentColumns), table);
    }
    HRESULT check_attachment_kind(LPCIID iid) const {
        const bool known = iid == nullptr || *iid == IID_IAttachment || *iid == IID_IMAPIProp;
        return known ? S_OK : fail(MAPI_E_INTERFACE_NOT_SUPPORTED);
    }
    HRESULT open_attachment(ULONG number, LPCIID iid, ULONG flags, LPATTACH* attach) {
        if (!cleared(attach)) return fail(MAPI_E_INVALID_PARAMETER);
        HRESULT result = check_flags(flags, MAPI_MODIFY | MAPI_BEST_ACCESS | MAPI_DEFERRED_ERRORS);
        const bool modify = (flags & MAPI_MODIFY) != 0;
        if (SUCCEEDED(result)) result = check_attachment_kind(iid);
        if (SUCCEEDED(result) && modify) result = check_writable();
        Values values;
        if (SUCCEEDED(result)) result = attachment(number, values);
        if (FAILED(result)) return result;
        const bool writable = modify || (writable_ && (flags & MAPI_BEST_ACCESS) != 0);
        *attach = new AttachObject(session_, *this, number, std::move(values), writable);
        return S_OK;
    }
    HRESULT create_attachment(LPCIID iid, ULONG flags, ULONG* number, LPATTACH* attach) {
        if (number != nullptr) *number = 0;
        if (!cleared(attach) || number == nullptr) return fail(MAPI_E_INVALID_PARAMETER);
        HRESULT result = check_flags(flags, MAPI_DEFERRED_ERRORS);
        if (SUCCEEDED(result)) result = check_attachment_kind(iid);
        if (SUCCEEDED(result)) result = check_writable();
        if (SUCCEEDED(result)) result = refresh_row();
        if (FAILED(result)) return result;
        edit_.next_attachment = std::max(edit_.next_attachment, row_.next_attachment);
        const LONGLONG fresh = edit_.next_attachment++;
        *attach = new AttachObject(session_, *this, fresh, {}, true);
        *number = static_cast<ULONG>(fresh);
        return S_OK;
    }

    // --- recipients ---

    HRESULT recipients(std::vector<Values>& rows) {
        const auto reading = store().lock();
        HRESULT result = look_all();
        if (FAILED(result)) return result;
        if (edit_.replaces_recipients) {
            rows = edit_.recipients;
            return S_OK;
        }
        if (row_.id == 0) return S_OK;
        const LONGLONG owner = owner_of(MAPI_MESSAGE, id_);
        std::vector<LONGLONG> parts;
        result = store().parts(owner, true, parts);
        for (const LONGLONG part : parts) {
            Values values;
            if (SUCCEEDED(result)) result = store().properties(owner, part, values);
            rows.push_back(std::move(values));
        }
        return result;
    }
    static HRESULT take_recipient(const ADRENTRY& entry, Values& values) {
        if (entry.rgPropVals == nullptr && entry.cValues != 0) return fail(MAPI_E_INVALID_PARAMETER);
        for (ULONG i = 0; i < entry.cValues; ++i) {
            const SPropValue& given = entry.rgPropVals[i];
            const ULONG type = PROP_TYPE(given.ulPropTag);
            if (type == PT_ERROR || type == PT_NULL || type == PT_OBJECT) continue;
            Value value;
            if (const SCODE code = take_value(given, value); code != S_OK) return fail(code);
            if (value.size() > kMostGiven) return fail(MAPI_E_TOO_BIG);
            values.insert_or_assign(id_of(given.ulPropTag), std::move(value));
        }
        return S_OK;
    }
    HRESULT modify_recipients(ULONG flags, LPADRLIST list) {
        if (list == nullptr) return fail(MAPI_E_INVALID_PARAMETER);
        if (flags != 0 && flags != MODRECIP_ADD && flags != MODRECIP_MODIFY && flags != MODRECIP_REMOVE)
            return fail(MAPI_E_UNKNOWN_FLAGS);
        HRESULT result = check_writable();
        std::vector<Values> rows;
        if (SUCCEEDED(result)) result = recipients(rows);
        if (FAILED(result)) return result;
        if (flags == 0) rows.clear();
        LONGLONG next = 0;
        for (const Values& row : rows) {
            next = std::max(next, number_of(row, id_of(PR_ROWID), -1) + 1);
        }
        for (ULONG i = 0; i < list->cEntries; ++i) {
            Values values;
            result = take_recipient(list->aEntries[i], values);
            if (FAILED(result)) return result;
            if (flags == 0 || flags == MODRECIP_ADD) {
                values[id_of(PR_ROWID)] = Value::of_number(PT_LONG, next++);
                rows.push_back(std::move(values));
                continue;
            }
            const LONGLONG number = number_of(values, id_of(PR_ROWID), -1);
            const auto row = std::find_if(rows.begin(), rows.end(), [number](const Values& each) {
                return number_of(each, id_of(PR_ROWID), -2) == number;
            });
            if (row == rows.end()) return fail(MAPI_E_INVALID_PARAMETER, "There is no recipient of that PR_ROWID.");
            if (flags == MODRECIP_REMOVE) {
                rows.erase(row);
            } else {
                *row = std::move(values);
            }
        }
        edit_.recipients = std::move(rows);
        edit_.replaces_recipients = true;
        dirty_ = true;
        show_recipients();
        return S_OK;
    }
    // PR_DISPLAY_TO and its like.
    void show_recipients() {
        const std::pair<Column, LONG> lines[] = {
            {Column::DisplayTo, MAPI_TO}, {Column::DisplayCc, MAPI_CC}, {Column::DisplayBcc, MAPI_BCC}};
        for (const auto& [column, type] : lines) {
            std::u16string line;
            for (const Values& row : edit_.recipients) {
                if (number_of(row, id_of(PR_RECIPIENT_TYPE), MAPI_TO) != type) continue;
                std::u16string_view name = text_of(row, id_of(PR_DISPLAY_NAME_W));
                if (name.empty()) name = text_of(row, id_of(PR_EMAIL_ADDRESS_W));
                if (!line.empty()) line += u"; ";
                line += name;
            }
            if (line.size() > kMostColumn / sizeof(WCHAR)) line.resize(kMostColumn / sizeof(WCHAR));
            set_column(column, Value::of_text(line));
        }
    }

    LONGLONG folder_;
    LONGLONG id_;
    LONGLONG version_ = 0;
    MessageRow row_;  // as of row_seq_; id 0: not read
    LONGLONG row_seq_ = 0;
    ULONG row_generation_ = 0;
    Values stored_;
    bool stored_known_ = false;
    MessageEdit edit_;
    bool dirty_ = false;  // edit_ has what was not saved
    BatchMark mark_;      // of the batch that it was saved in
    bool made_in_batch_ = false;
};

AttachObject::AttachObject(SessionRef session, MessageObject& message, LONGLONG number, Values values, bool writable)
    : PropObject(std::move(session), writable), message_(message), number_(number), values_(std::move(values)) {
    message_.AddRef();
}

AttachObject::~AttachObject() {
    message_.Release();
}

HRESULT AttachObject::SaveChanges(ULONG flags) {
    return guarded([&] {
        HRESULT result =
            check_flags(flags, KEEP_OPEN_READONLY | KEEP_OPEN_READWRITE | FORCE_SAVE | MAPI_DEFERRED_ERRORS);
        if (SUCCEEDED(result)) result = check_writable();
        if (FAILED(result)) return result;
        if (values_.empty())
            values_[id_of(PR_ATTACH_METHOD)] = edit_.set[id_of(PR_ATTACH_METHOD)] =
                Value::of_number(PT_LONG, NO_ATTACHMENT);
        result = message_.take_attachment(number_, edit_);
        edit_ = {};
        if (SUCCEEDED(result) && (flags & KEEP_OPEN_READONLY) != 0) writable_ = false;
        return result;
    });
}

HRESULT MessageObject::copy_parts(LPSPropTagArray excluded, IMessage* target, HRESULT so_far) {
    if (!is_excluded(excluded, PR_MESSAGE_RECIPIENTS)) {
        std::vector<Values> rows;
        if (const HRESULT result = recipients(rows); FAILED(result)) return result;
        Buffer<ADRLIST> list(sizeof(ADRLIST) + rows.size() * sizeof(ADRENTRY));
        if (!list) return fail(MAPI_E_NOT_ENOUGH_MEMORY);
        std::vector<Buffer<SPropValue>> buffers;
        list->cEntries = static_cast<ULONG>(rows.size());
        for (std::size_t i = 0; i < rows.size(); ++i) {
            Row row;
            const auto reading = store().lock();
            for (const auto& [id, value] : rows[i]) {
                const HRESULT result = fill_value(store(), PROP_TAG(value.type, id), &value, row);
                if (FAILED(result)) return result;
            }
            buffers.push_back(Buffer<SPropValue>(row.finish()));
            list.get()->aEntries[i] = {0, static_cast<ULONG>(row.size()), buffers.back().get()};
        }
        if (const HRESULT result = target->ModifyRecipients(0, list.get()); FAILED(result)) return result;
    }
    if (is_excluded(excluded, PR_MESSAGE_ATTACHMENTS)) return so_far;
    std::vector<LONGLONG> numbers;
    {
        const auto reading = store().lock();
        HRESULT result = look_all();
        if (SUCCEEDED(result)) result = attachment_numbers(numbers);
        if (FAILED(result)) return result;
    }
    for (const LONGLONG number : numbers) {
        LPATTACH from = nullptr;
        LPATTACH to = nullptr;
        ULONG fresh = 0;
        HRESULT result = open_attachment(static_cast<ULONG>(number), nullptr, 0, &from);
        if (SUCCEEDED(result)) result = target->CreateAttach(nullptr, 0, &fresh, &to);
        if (SUCCEEDED(result)) result = from->CopyTo(0, nullptr, nullptr, 0, nullptr, nullptr, to, 0, nullptr);
        if (SUCCEEDED(result)) result = to->SaveChanges(0);
        if (to != nullptr) to->Release();
        if (from != nullptr) from->Release();
        if (FAILED(result)) return result;
    }
    return so_far;
}

}  // namespace

HRESULT make_message(const SessionRef& session, const EntryId& id, bool writable, LPMESSAGE* object) {
    auto* const message = new MessageObject(session, 0, id.number, writable);
    const HRESULT result = message->open(id.account);
    if (SUCCEEDED(result)) {
        *object = message;
    } else {
        message->Release();
    }
    return result;
}

HRESULT make_new_message(const SessionRef& session, LONGLONG folder, LPMESSAGE* object) {
    *object = new MessageObject(session, folder, 0, true);
    return S_OK;
}

}  // namespace zr::platform::mapi
