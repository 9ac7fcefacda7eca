#include "row_source.h"

#include <algorithm>

#include "prop_object.h"
#include "rows.h"

namespace zr::platform::mapi {
namespace {

constexpr ULONG kStoreColumns[] = {PR_ENTRYID, PR_DISPLAY_NAME_W, PR_DEFAULT_STORE, PR_RESOURCE_TYPE, PR_MDB_PROVIDER};
constexpr ULONG kHierarchyColumns[] = {PR_ENTRYID,     PR_DISPLAY_NAME_W, PR_PARENT_ENTRYID, PR_DEPTH,
                                       PR_FOLDER_TYPE, PR_CONTENT_COUNT,  PR_CONTENT_UNREAD, PR_SUBFOLDERS};
constexpr ULONG kContentsColumns[] = {
    PR_ENTRYID,       PR_PARENT_ENTRYID,         PR_MESSAGE_CLASS_W,       PR_SUBJECT_W,
    PR_SENDER_NAME_W, PR_SENDER_EMAIL_ADDRESS_W, PR_MESSAGE_DELIVERY_TIME, PR_MESSAGE_FLAGS,
    PR_MESSAGE_SIZE};

class StoresSource final : public RowSource {
public:
    explicit StoresSource(MailStore& store) : store_(store) {}

    std::span<const ULONG> columns() const override { return kStoreColumns; }
    HRESULT keys(const Restriction*, std::vector<LONGLONG>& keys) override {
        for (const auto& [id, account] : store_.accounts()) {
            keys.push_back(id);
        }
        return S_OK;
    }
    HRESULT fill(LONGLONG key, std::span<const ULONG> tags, Row& row) override {
        const Account* const account = store_.account(key);
        if (account == nullptr) return S_FALSE;
        for (const ULONG tag : tags) {
            if (const HRESULT result = fill_account(store_, *account, true, tag, row); FAILED(result)) return result;
        }
        return S_OK;
    }

private:
    MailStore& store_;
};

class HierarchySource final : public RowSource {
public:
    HierarchySource(MailStore& store, LONGLONG folder, bool deep) : store_(store), folder_(folder), deep_(deep) {}

    std::span<const ULONG> columns() const override { return kHierarchyColumns; }
    HRESULT keys(const Restriction*, std::vector<LONGLONG>& keys) override {
        store_.folders_below(folder_, deep_, keys);
        return S_OK;
    }
    HRESULT fill(LONGLONG key, std::span<const ULONG> tags, Row& row) override {
        const Folder* const folder = store_.folder(key);
        if (folder == nullptr) return S_FALSE;
        for (const ULONG tag : tags) {
            if (id_of(tag) == id_of(PR_DEPTH)) {
                fill_number(tag, PT_LONG, depth_of(*folder), row);
            } else if (const HRESULT result = fill_folder(store_, *folder, true, tag, row); FAILED(result)) {
                return result;
            }
        }
        return S_OK;
    }

private:
    LONG depth_of(const Folder& folder) const {
        LONG depth = 1;
        for (const Folder* above = &folder; above != nullptr && above->parent != folder_ && above->parent != 0;) {
            above = store_.folder(above->parent);
            ++depth;
        }
        return depth;
    }

    MailStore& store_;
    LONGLONG folder_;
    bool deep_;
};

// What rows of messages with certain columns are read with.
class MessageRows {
public:
    MessageRows(MailStore& store, std::span<const ULONG> tags) : store_(store), tags_(tags.begin(), tags.end()) {
        needs(Column::Delivered);
        for (const ULONG tag : tags_) {
            tag_columns_.push_back(column_of(tag));
            if (const auto column = tag_columns_.back()) {
                needs(*column);
            } else if (id_of(tag) == id_of(PR_HASATTACH)) {
                needs(Column::Flags);
            }
        }
        select_ = "SELECT id, folder";
        for (const Column column : columns_) {
            (select_ += ", ") += kColumnInfo[index_of(column)].name;
        }
        select_ += " FROM message ";
    }

    bool is_for(std::span<const ULONG> tags) const {
        return std::equal(tags.begin(), tags.end(), tags_.begin(), tags_.end());
    }
    Use use(const char* rest) { return store_.use_text(select_ + rest); }

    static LONGLONG id(const Statement& row) { return row.integer(0); }
    // Of the row that was filled last.
    LONGLONG date() const { return views_[index_of(Column::Delivered)].number; }

    HRESULT fill(const Statement& source, Row& row) {
        for (std::size_t i = 0; i < columns_.size(); ++i) {
            views_[index_of(columns_[i])].read(source, static_cast<int>(i) + 2, columns_[i]);
        }
        for (std::size_t i = 0; i < tags_.size(); ++i) {
            if (const auto column = tag_columns_[i]) {
                fill_column(tags_[i], *column, views_[index_of(*column)], row);
            } else if (const HRESULT result = fill_other(source, tags_[i], row); FAILED(result)) {
                return result;
            }
        }
        return S_OK;
    }

private:
    HRESULT fill_other(const Statement& source, ULONG tag, Row& row) {
        const LONGLONG flags = views_[index_of(Column::Flags)].number;
        if (fill_message_identity(store_, id(source), source.integer(1), flags, true, tag, row)) return S_OK;
        Value value;
        const HRESULT result = store_.property(owner_of(MAPI_MESSAGE, id(source)), 0, id_of(tag), value);
        return SUCCEEDED(result) ? fill_value(store_, tag, &value, row) : result;
    }
    void needs(Column column) {
        if (std::find(columns_.begin(), columns_.end(), column) == columns_.end()) columns_.push_back(column);
    }

    MailStore& store_;
    std::vector<ULONG> tags_;
    std::vector<std::optional<Column>> tag_columns_;  // what column each of them is
    std::vector<Column> columns_;                     // the date first
    std::string select_;
    ColumnView views_[kColumns];
};

class MessagesSource : public RowSource {
public:
    explicit MessagesSource(MailStore& store) : store_(store) {}

    std::span<const ULONG> columns() const override { return kContentsColumns; }
    HRESULT fill(LONGLONG key, std::span<const ULONG> tags, Row& row) override {
        MessageRows& messages = rows(tags);
        const Use found = messages.use("WHERE id = ?1");
        if (!found) return store_.failure();
        found->bind(1, key);
        const int code = found->step();
        if (code == SQLITE_DONE) return S_FALSE;
        if (code != SQLITE_ROW) return store_.failure();
        if (!is_shown(found->integer(1))) return S_FALSE;
        const HRESULT result = messages.fill(*found, row);
        row.keep();
        return result;
    }

protected:
    virtual bool is_shown(LONGLONG folder) const = 0;

    MessageRows& rows(std::span<const ULONG> tags) {
        if (!rows_ || !rows_->is_for(tags)) rows_.emplace(store_, tags);
        return *rows_;
    }
    HRESULT take(const Use& found, std::vector<LONGLONG>& keys) {
        int code;
        while ((code = found->step()) == SQLITE_ROW) {
            keys.push_back(found->integer(0));
        }
        return code == SQLITE_DONE ? S_OK : store_.failure();
    }
    // Messages with the identifier that a restriction requires.
    HRESULT keys_by_id(const std::u16string& id, std::vector<LONGLONG>& keys) {
        const Use found = store_.use("SELECT id FROM message WHERE message_id = ?1 ORDER BY delivered, id");
        if (!found) return store_.failure();
        found->bind_units(1, id);
        return take(found, keys);
    }

    MailStore& store_;

private:
    std::optional<MessageRows> rows_;
};

class ContentsSource final : public MessagesSource {
public:
    ContentsSource(MailStore& store, LONGLONG folder) : MessagesSource(store), folder_(folder) {}

    HRESULT keys(const Restriction* restriction, std::vector<LONGLONG>& keys) override {
        if (restriction != nullptr) {
            if (const auto id = restriction->required_text(PR_INTERNET_MESSAGE_ID_W)) return keys_by_id(*id, keys);
        }
        const Use found = store_.use("SELECT id FROM message WHERE folder = ?1 ORDER BY delivered, id");
        if (!found) return store_.failure();
        found->bind(1, folder_);
        return take(found, keys);
    }
    bool is_dated() const override { return true; }
    HRESULT count(LONGLONG& count) override { return store_.count_messages(folder_, false, count); }
    HRESULT walk(const Place& from, bool backward, int limit, std::span<const ULONG> tags,
                 const Visit& visit) override {
        MessageRows& messages = rows(tags);
        const Use found = messages.use(
            backward ? "WHERE folder = ?1 AND (delivered, id) <= (?2, ?3) ORDER BY delivered DESC, id DESC LIMIT ?4"
                     : "WHERE folder = ?1 AND (delivered, id) > (?2, ?3) ORDER BY delivered, id LIMIT ?4");
        if (!found) return store_.failure();
        found->bind(1, folder_);
        found->bind(2, from.date);
        found->bind(3, from.id);
        found->bind(4, limit);
        int code;
        while ((code = found->step()) == SQLITE_ROW) {
            row_.clear();
            if (const HRESULT result = messages.fill(*found, row_); FAILED(result)) return result;
            if (!visit({messages.date(), MessageRows::id(*found)}, row_)) return S_OK;
        }
        return code == SQLITE_DONE ? S_OK : store_.failure();
    }

private:
    bool is_shown(LONGLONG folder) const override { return folder == folder_; }

    LONGLONG folder_;
    Row row_;
};

class FoundSource final : public MessagesSource {
public:
    FoundSource(MailStore& store, std::string query) : MessagesSource(store), query_(std::move(query)) {}

    HRESULT keys(const Restriction* restriction, std::vector<LONGLONG>& keys) override {
        if (query_.empty()) {
            if (restriction != nullptr) {
                if (const auto id = restriction->required_text(PR_INTERNET_MESSAGE_ID_W)) return keys_by_id(*id, keys);
            }
            return take(store_.use("SELECT id FROM message ORDER BY delivered DESC, id DESC"), keys);
        }
        const Use found = store_.use(
            "SELECT message.id FROM word_index JOIN message ON message.id = word_index.rowid"
            " WHERE word_index MATCH ?1 ORDER BY delivered DESC, message.id DESC");
        if (!found) return store_.failure();
        found->bind_utf8(1, query_);
        return take(found, keys);
    }

private:
    bool is_shown(LONGLONG) const override { return true; }

    const std::string query_;
};

class FixedSource final : public RowSource {
public:
    FixedSource(MailStore& store, std::vector<Values> rows, std::span<const ULONG> columns)
        : store_(store), rows_(std::move(rows)), columns_(columns) {}

    std::span<const ULONG> columns() const override { return columns_; }
    HRESULT keys(const Restriction*, std::vector<LONGLONG>& keys) override {
        for (std::size_t i = 0; i < rows_.size(); ++i) {
            keys.push_back(static_cast<LONGLONG>(i));
        }
        return S_OK;
    }
    HRESULT fill(LONGLONG key, std::span<const ULONG> tags, Row& row) override {
        const Values& values = rows_[static_cast<std::size_t>(key)];
        for (const ULONG tag : tags) {
            const auto found = values.find(id_of(tag));
            const HRESULT result = fill_value(store_, tag, found != values.end() ? &found->second : nullptr, row);
            if (FAILED(result)) return result;
        }
        return S_OK;
    }

private:
    MailStore& store_;
    const std::vector<Values> rows_;
    const std::span<const ULONG> columns_;
};

}  // namespace

std::unique_ptr<RowSource> stores_source(MailStore& store) {
    return std::make_unique<StoresSource>(store);
}

std::unique_ptr<RowSource> hierarchy_source(MailStore& store, LONGLONG folder, bool deep) {
    return std::make_unique<HierarchySource>(store, folder, deep);
}

std::unique_ptr<RowSource> contents_source(MailStore& store, LONGLONG folder) {
    return std::make_unique<ContentsSource>(store, folder);
}

std::unique_ptr<RowSource> found_source(MailStore& store, std::string query) {
    return std::make_unique<FoundSource>(store, std::move(query));
}

std::unique_ptr<RowSource> fixed_source(MailStore& store, std::vector<Values> rows, std::span<const ULONG> columns) {
    return std::make_unique<FixedSource>(store, std::move(rows), columns);
}

}  // namespace zr::platform::mapi
