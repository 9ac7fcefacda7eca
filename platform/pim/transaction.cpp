#include <algorithm>
#include <span>
#include <vector>

#include "file_as.h"
#include "last_error.h"
#include "notifier.h"
#include "series.h"
#include "store.h"

namespace zr::platform::pim {
namespace {

constexpr const char* kInsertContact =
    "INSERT INTO contact(file_as, title, first_name, middle_name, last_name, suffix, company, email1, email2, email3,"
    " job_title, own_file_as, oid, born) VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14)";
constexpr const char* kUpdateContact =
    "UPDATE contact SET file_as = ?1, title = ?2, first_name = ?3, middle_name = ?4, last_name = ?5, suffix = ?6,"
    " company = ?7, email1 = ?8, email2 = ?9, email3 = ?10, job_title = ?11, own_file_as = ?12 WHERE oid = ?13";
constexpr const char* kReadContact =
    "SELECT file_as, title, first_name, middle_name, last_name, suffix, company, email1, email2, email3, job_title,"
    " own_file_as FROM contact WHERE oid = ?1";

// Rows of properties, by as many as one statement takes: that is half the work of as many statements.
struct PutProperties {
    std::size_t rows;
    const char* sql;
};
constexpr PutProperties kPutProperties[] = {
    {8,
     "INSERT OR REPLACE INTO property(oid, id, value) VALUES(?1, ?2, ?3), (?1, ?4, ?5), (?1, ?6, ?7), (?1, ?8, ?9),"
     " (?1, ?10, ?11), (?1, ?12, ?13), (?1, ?14, ?15), (?1, ?16, ?17)"},
    {4, "INSERT OR REPLACE INTO property(oid, id, value) VALUES(?1, ?2, ?3), (?1, ?4, ?5), (?1, ?6, ?7), (?1, ?8, ?9)"},
    {1, "INSERT OR REPLACE INTO property(oid, id, value) VALUES(?1, ?2, ?3)"},
};

// A contact's columns with what is to be saved laid over them.
struct Columns {
    std::u16string_view texts[kColumns];
    bool own_file_as = false;
    std::u16string file_as;

    void lay_over(const Values& values) {
        for (const auto& [id, value] : values.entries()) {
            if (!is_column(id)) continue;
            const auto* text = std::get_if<std::u16string>(&value);
            texts[column_of(id)] = text != nullptr ? std::u16string_view(*text) : std::u16string_view();
            if (id == field::FileAs) own_file_as = !texts[kFileAs].empty();
        }
        if (own_file_as) return;
        file_as = file_as_from(texts);
        texts[kFileAs] = file_as;
    }
    void bind(const Use& statement, LONG oid) const {
        for (unsigned i = 0; i < kColumns; ++i) {
            statement->bind_text(static_cast<int>(i) + 1, texts[i]);
        }
        statement->bind(static_cast<int>(kColumns) + 1, own_file_as ? 1 : 0);
        statement->bind(static_cast<int>(kColumns) + 2, oid);
    }
};

void bind_value(const Use& statement, int index, const Value& value) {
    if (const auto* integer = std::get_if<LONGLONG>(&value)) {
        statement->bind(index, *integer);
    } else if (const auto* real = std::get_if<double>(&value)) {
        statement->bind(index, *real);
    } else if (const auto* text = std::get_if<std::u16string>(&value)) {
        statement->bind_text(index, *text);
    } else if (const auto* bytes = std::get_if<std::vector<BYTE>>(&value)) {
        statement->bind_blob(index, bytes->data(), bytes->size());
    }
}

}  // namespace

HRESULT Transaction::begin(Store& store) {
    const HRESULT result = store_result(writing_.begin(store.shared()));
    if (FAILED(result)) return result;
    store_ = &store;
    db_.emplace(writing_.connection());
    full_folder_ = 0;
    next_folder_ = 0;
    changes_.clear();
    failed_ = false;
    return S_OK;
}

HRESULT Transaction::checked(HRESULT result) {
    if (FAILED(result)) failed_ = true;
    return result;
}

HRESULT Transaction::commit() {
    if (failed_) {
        rollback();
        return fail(E_ABORT, "A change of the batch failed; nothing of the batch was kept.");
    }
    HRESULT result = write_next();
    if (FAILED(result)) {
        rollback();
        return result;
    }
    // When nobody else wrote meanwhile, nobody has to read in the log what is known here.
    result = store_result(writing_.commit([this] { store_->apply(changes_); }));
    if (FAILED(result) || changes_.empty()) return result;
    {
        const auto lock = store_->lock();
        store_->own_commits().note(changes_.front().seq, changes_.back().seq);
    }
    store_->notifier().dispatch();
    return S_OK;
}

HRESULT Transaction::next_seq(LONGLONG& seq) {
    return store_result(writing_.next_seq(seq));
}

HRESULT Transaction::log(ChangeKind kind, LONG oid) {
    LONGLONG seq = 0;
    const HRESULT result = next_seq(seq);
    return SUCCEEDED(result) ? log(kind, oid, seq) : result;
}

HRESULT Transaction::log(ChangeKind kind, LONG oid, LONGLONG seq) {
    Use statement = db_->use("INSERT INTO change(seq, kind, oid, origin) VALUES(?1, ?2, ?3, ?4)");
    if (!statement) return db_->result();
    statement->bind(1, seq);
    statement->bind(2, static_cast<LONG>(kind));
    statement->bind(3, oid);
    statement->bind(4, writing_.origin());
    try {
        changes_.push_back({seq, kind, oid, writing_.origin()});
    } catch (const std::bad_alloc&) {
        return fail(E_OUTOFMEMORY);  // what was written before is not to be kept
    }
    return db_->run(statement);
}

HRESULT Transaction::take_oid(INT folder, LONG& oid) {
    if (full_folder_ != folder) {
        const Use lowest = db_->use("SELECT min(oid) FROM free_oid WHERE oid BETWEEN ?1 AND ?2");
        if (!lowest) return db_->result();
        lowest->bind(1, first_oid(folder));
        lowest->bind(2, last_oid(folder));
        if (lowest->step() != SQLITE_ROW) return db_->result();
        if (!lowest->is_null(0)) {
            oid = static_cast<LONG>(lowest->integer(0));
            Use taken = db_->use("DELETE FROM free_oid WHERE oid = ?1");
            if (!taken) return db_->result();
            taken->bind(1, oid);
            return db_->run(taken);
        }
        full_folder_ = folder;
    }
    if (next_folder_ != folder) {
        const HRESULT result = read_next(folder);
        if (FAILED(result)) return result;
    }
    if (next_ > last_oid(folder)) return fail(E_OUTOFMEMORY, "The folder has no identifier left for another item.");
    oid = next_++;
    return S_OK;
}

// The lowest identifier never used is counted on here and written once, before the commit.
HRESULT Transaction::read_next(INT folder) {
    const HRESULT written = write_next();
    if (FAILED(written)) return written;
    const Use next = db_->use("SELECT next FROM folder WHERE id = ?1");
    if (!next) return db_->result();
    next->bind(1, folder);
    const int code = next->step();
    if (code == SQLITE_DONE) return fail(E_OUTOFMEMORY, "The folder has no identifier left for another item.");
    if (code != SQLITE_ROW) return db_->result();
    next_ = read_next_ = static_cast<LONG>(next->integer(0));
    next_folder_ = folder;
    return S_OK;
}

HRESULT Transaction::write_next() {
    if (next_folder_ == 0 || next_ == read_next_) return S_OK;
    Use next = db_->use("UPDATE folder SET next = ?2 WHERE id = ?1");
    if (!next) return db_->result();
    next->bind(1, next_folder_);
    next->bind(2, next_);
    const HRESULT result = db_->run(next);
    if (SUCCEEDED(result)) read_next_ = next_;
    return result;
}

HRESULT Transaction::insert(INT folder, const Values& values, LONG& oid) {
    LONG fresh = 0;
    LONGLONG born = 0;
    HRESULT result = take_oid(folder, fresh);
    if (SUCCEEDED(result)) result = next_seq(born);
    if (SUCCEEDED(result)) {
        if (folder == olFolderContacts) {
            result = insert_contact(fresh, values, born);
        } else {
            Use entry = db_->use("INSERT INTO entry(oid, born) VALUES(?1, ?2)");
            if (entry) entry->bind(1, fresh);
            if (entry) entry->bind(2, born);
            result = db_->run(entry);
        }
    }
    if (SUCCEEDED(result)) result = write_properties(fresh, values);
    if (SUCCEEDED(result)) result = log(ChangeKind::Created, fresh, born);
    if (SUCCEEDED(result)) oid = fresh;
    return checked(result);
}

HRESULT Transaction::insert_contact(LONG oid, const Values& values, LONGLONG born) {
    Columns columns;
    columns.lay_over(values);
    Use statement = db_->use(kInsertContact);
    if (!statement) return db_->result();
    columns.bind(statement, oid);
    statement->bind(static_cast<int>(kColumns) + 3, born);
    return db_->run(statement);
}

HRESULT Transaction::update_contact(LONG oid, const Values& values) {
    const Use present = db_->use(kReadContact);
    if (!present) return db_->result();
    present->bind(1, oid);
    const int code = present->step();
    if (code == SQLITE_DONE) return kGone;
    if (code != SQLITE_ROW) return db_->result();
    Columns columns;
    std::u16string kept[kColumns];  // the row goes away while the statement writes
    for (unsigned i = 0; i < kColumns; ++i) {
        kept[i] = present->text(static_cast<int>(i));
        columns.texts[i] = kept[i];
    }
    columns.own_file_as = present->integer(kColumns) != 0;
    present->reset();
    columns.lay_over(values);
    Use statement = db_->use(kUpdateContact);
    if (!statement) return db_->result();
    columns.bind(statement, oid);
    return db_->run(statement);
}

HRESULT Transaction::update(LONG oid, const Values& values) {
    HRESULT result = S_OK;
    if (folder_of(oid) == olFolderContacts) {
        result = update_contact(oid, values);
    } else {
        const Use entry = db_->use("SELECT 1 FROM entry WHERE oid = ?1");
        if (!entry) return checked(db_->result());
        entry->bind(1, oid);
        const int code = entry->step();
        result = code == SQLITE_ROW ? S_OK : code == SQLITE_DONE ? kGone : db_->result();
    }
    if (result == kGone) return fail(kGone);  // nothing was written: the transaction is as good as before
    if (SUCCEEDED(result)) result = write_properties(oid, values);
    if (SUCCEEDED(result)) result = log(ChangeKind::Changed, oid);
    return checked(result);
}

HRESULT Transaction::write_properties(LONG oid, const Values& values) {
    std::vector<const Values::Entry*> put;
    for (const Values::Entry& entry : values.entries()) {
        if (is_column(entry.first)) continue;
        if (!std::holds_alternative<std::monostate>(entry.second)) {
            put.push_back(&entry);
            continue;
        }
        Use statement = db_->use("DELETE FROM property WHERE oid = ?1 AND id = ?2");
        if (!statement) return db_->result();
        statement->bind(1, oid);
        statement->bind(2, entry.first);
        const HRESULT result = db_->run(statement);
        if (FAILED(result)) return result;
    }
    for (std::span<const Values::Entry* const> rest = put; !rest.empty();) {
        const auto& [rows, sql] =
            *std::ranges::find_if(kPutProperties, [&](const PutProperties& each) { return each.rows <= rest.size(); });
        Use statement = db_->use(sql);
        if (!statement) return db_->result();
        statement->bind(1, oid);
        for (int i = 0; i < static_cast<int>(rows); ++i) {
            const auto& [id, value] = *rest[static_cast<std::size_t>(i)];
            statement->bind(2 * i + 2, id);
            bind_value(statement, 2 * i + 3, value);
        }
        const HRESULT result = db_->run(statement);
        if (FAILED(result)) return result;
        rest = rest.subspan(rows);
    }
    return S_OK;
}

HRESULT Transaction::remove(LONG oid) {
    const bool contact = folder_of(oid) == olFolderContacts;
    Use statement = db_->use(contact ? "DELETE FROM contact WHERE oid = ?1" : "DELETE FROM entry WHERE oid = ?1");
    if (statement) statement->bind(1, oid);
    HRESULT result = db_->run(statement);
    if (SUCCEEDED(result) && db_->changes() == 0) return fail(kGone);
    if (SUCCEEDED(result) && !contact) result = drop_exceptions(oid);
    for (const char* sql : {"DELETE FROM property WHERE oid = ?1", "INSERT INTO free_oid(oid) VALUES(?1)"}) {
        if (FAILED(result)) break;
        Use step = db_->use(sql);
        if (step) step->bind(1, oid);
        result = db_->run(step);
    }
    if (SUCCEEDED(result)) result = log(ChangeKind::Deleted, oid);
    full_folder_ = 0;
    return checked(result);
}

// Nothing is written before it is known that the day still is one of the series'.
HRESULT Transaction::check_occurrence(LONG oid, LONG day) {
    Values values;
    ExceptionFields exception;
    HRESULT result = read_values(*db_, oid, true, values);
    if (SUCCEEDED(result)) result = read_exception(*db_, oid, day, exception);
    if (FAILED(result)) return checked(result);
    const Rule rule = Series::from(values).rule;
    if (rule.recurs() && Occurrences(rule).on(day) && !exception.deleted) return S_OK;
    return fail(kGone, "The series no longer occurs on that day.");
}

HRESULT Transaction::write_exception(LONG oid, LONG day, CEPROPID id, const Value& value) {
    Use statement = db_->use("INSERT OR REPLACE INTO exception(oid, day, id, value) VALUES(?1, ?2, ?3, ?4)");
    if (!statement) return db_->result();
    statement->bind(1, oid);
    statement->bind(2, day);
    statement->bind(3, id);
    statement->bind_null(4);
    bind_value(statement, 4, value);
    return db_->run(statement);
}

HRESULT Transaction::save_occurrence(LONG oid, LONG day, const Values& values) {
    HRESULT result = check_occurrence(oid, day);
    if (FAILED(result)) return result;
    result = write_exception(oid, day, 0, Value(LONGLONG{0}));
    for (const auto& [id, value] : values.entries()) {
        if (SUCCEEDED(result)) result = write_exception(oid, day, id, value);
    }
    if (SUCCEEDED(result)) result = log(ChangeKind::Changed, oid);
    return checked(result);
}

HRESULT Transaction::remove_occurrence(LONG oid, LONG day) {
    HRESULT result = check_occurrence(oid, day);
    if (FAILED(result)) return result;
    {
        Use statement = db_->use("DELETE FROM exception WHERE oid = ?1 AND day = ?2");
        if (statement) statement->bind(1, oid);
        if (statement) statement->bind(2, day);
        result = db_->run(statement);
    }
    if (SUCCEEDED(result)) result = write_exception(oid, day, 0, Value(LONGLONG{1}));
    if (SUCCEEDED(result)) result = log(ChangeKind::Changed, oid);
    return checked(result);
}

HRESULT Transaction::drop_exceptions(LONG oid) {
    Use statement = db_->use("DELETE FROM exception WHERE oid = ?1");
    if (statement) statement->bind(1, oid);
    return checked(db_->run(statement));
}

HRESULT Transaction::update_folder(INT folder, const Values& values) {
    HRESULT result = write_properties(folder_oid(folder), values);
    if (SUCCEEDED(result)) result = log(ChangeKind::Folder, folder_oid(folder));
    return checked(result);
}

}  // namespace zr::platform::pim
