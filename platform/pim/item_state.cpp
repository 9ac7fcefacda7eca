#include "item_state.h"

#include "file_as.h"
#include "property_block.h"
#include "series.h"

namespace zr::platform::pim {
namespace {

std::u16string as_text(const Value* value) {
    const auto* text = value != nullptr ? std::get_if<std::u16string>(value) : nullptr;
    return text != nullptr ? *text : std::u16string();
}

void lay_over(const Values& upper, Values& values) {
    for (const auto& [id, value] : upper.entries()) {
        values.set(id, value);
    }
}

}  // namespace

ItemState::ItemState(const SessionRef& session, INT folder, Given&& given)
    : session_(session),
      folder_(folder),
      oid_(given.oid),
      generation_(session->store().generation()),
      row_(std::move(given.row)),
      seq_(given.seq),
      listed_(given.listed),
      left_(given.left),
      fresh_(oid_ == 0) {
    if (fresh_) pending_ = std::make_unique<Values>();
}

ItemState::~ItemState() {
    session_->store().rows().note_reads(reads_);
}

void ItemState::settle() {
    if (!batch_) return;
    const BatchOutcome outcome = batch_->load();
    if (outcome == BatchOutcome::Open) return;
    batch_.reset();
    if (outcome == BatchOutcome::Dropped) {
        dirty_ = true;
        series_changed_ |= std::exchange(series_changed_in_batch_, false);
        if (fresh_) oid_ = 0;
        return;
    }
    series_changed_in_batch_ = false;
    note_saved();
}

// What was put is in the store now, except what was put since.
void ItemState::note_saved() {
    fresh_ = false;
    row_.reset();
    if (occurrence_) {
        occurrence_->own = std::move(occurrence_->saved);
        occurrence_->exception = true;
    }
    if (!dirty_) pending_.reset();
}

HRESULT ItemState::check_stored() {
    if (!session_->is_open()) return session_->check_open();
    Store& store = session_->store();
    const auto lock = store.lock();
    HRESULT result = check_here();
    if (SUCCEEDED(result)) result = store.exists(oid_);
    return SUCCEEDED(result) ? check_here() : result;
}

bool ItemState::series_changed() {
    settle();
    return series_changed_;
}

HRESULT ItemState::oid(LONG* oid) {
    if (oid == nullptr) return fail(E_POINTER);
    settle();
    *oid = oid_;
    return S_OK;
}

HRESULT ItemState::give(std::u16string_view text, BSTR* string) {
    *string = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
    return *string != nullptr ? S_OK : fail(E_OUTOFMEMORY);
}

HRESULT ItemState::check_here() {
    Store& store = session_->store();
    const HRESULT result = left_ ? S_OK : store.refresh();
    if (FAILED(result)) return result;
    if (generation_ != store.generation()) left_ = true;  // an identifier of another store is somebody else's here
    if (!left_ && seq_ != 0 && seq_ < store.seq()) {
        left_ = store.deleted_since(seq_, oid_);
        seq_ = store.seq();
    }
    return left_ ? fail(kGone) : S_OK;
}

HRESULT ItemState::check_here_locked() {
    const auto lock = session_->store().lock();
    return check_here();
}

bool ItemState::reads_on(HRESULT result) {
    if (result != kGone) return false;
    left_ = true;
    return listed_;
}

HRESULT ItemState::read_row(ColumnMask mask, RowRef& row) {
    Store& store = session_->store();
    const auto lock = store.lock();
    HRESULT result = check_here();
    if (SUCCEEDED(result)) result = store.rows().read(oid_, mask, row);
    return SUCCEEDED(result) ? check_here() : result;
}

HRESULT ItemState::load(ColumnMask mask) {
    if (row_ && row_->has(mask)) return S_OK;
    RowRef read;
    const HRESULT result = read_row(mask, read);
    if (reads_on(result)) {
        std::u16string_view texts[kColumns];
        for (unsigned i = 0; i < kColumns; ++i) {
            if (row_ && row_->has(1u << i)) texts[i] = row_->text_of(i);
        }
        read = RowRef::adopt(Row::make(oid_, kAllColumns, false, texts));
        if (!read) return fail(E_OUTOFMEMORY);
    } else if (FAILED(result)) {
        return result;
    }
    row_ = std::move(read);
    return S_OK;
}

HRESULT ItemState::column_text(unsigned column, std::u16string& text) {
    if (const Value* value = pending_ ? pending_->find(text_field(column)) : nullptr) {
        text = as_text(value);
        return S_OK;
    }
    if (fresh_) return S_OK;
    reads_ |= 1u << column;
    const HRESULT result = load(1u << column);
    if (SUCCEEDED(result)) text = row_->text_of(column);
    return result;
}

// The name as the next save would store it.
HRESULT ItemState::file_as(std::u16string& text) {
    const Value* put = pending_ ? pending_->find(field::FileAs) : nullptr;
    text = as_text(put);
    if (!text.empty() || !pending_) return text.empty() ? column_text(kFileAs, text) : S_OK;
    if (!fresh_) {
        const HRESULT result = load(kAllColumns);
        if (FAILED(result)) return result;
        if (put == nullptr && row_->own_file_as()) {
            text = row_->text_of(kFileAs);
            return S_OK;
        }
    }
    std::u16string texts[kColumns];
    std::u16string_view views[kColumns];
    for (unsigned i = kTitle; i < kColumns; ++i) {
        const HRESULT result = column_text(i, texts[i]);
        if (FAILED(result)) return result;
        views[i] = texts[i];
    }
    text = file_as_from(views);
    return S_OK;
}

HRESULT ItemState::get_column_slowly(unsigned column, BSTR* text) {
    if (!cleared_text(text)) return fail(E_POINTER);
    return guarded([&]() -> HRESULT {
        if (!session_->is_open()) return session_->check_open();
        settle();
        std::u16string found;
        const HRESULT result = column == kFileAs && pending_ ? file_as(found) : column_text(column, found);
        return SUCCEEDED(result) ? give(found, text) : result;
    });
}

// Whoever asks for a second property is likely to ask for more: then all are read at once.
HRESULT ItemState::stored_value(CEPROPID id, Value& value) {
    Store& store = session_->store();
    const auto lock = store.lock();
    if (std::exchange(read_before_, true) || left_) {
        const HRESULT result = read_stored();
        const Value* found = SUCCEEDED(result) ? stored_->find(id) : nullptr;
        if (found != nullptr) value = *found;
        return result;
    }
    Value read;
    HRESULT result = store.refresh();
    if (SUCCEEDED(result)) result = store.value(oid_, id, read);
    if (SUCCEEDED(result) && std::holds_alternative<std::monostate>(read)) result = store.exists(oid_);
    if (SUCCEEDED(result)) result = check_here();
    if (SUCCEEDED(result)) value = std::move(read);
    return reads_on(result) ? S_OK : result;
}

HRESULT ItemState::value(CEPROPID id, Value& value) {
    if (!session_->is_open()) return session_->check_open();
    settle();
    if (const Value* put = pending_ ? pending_->find(id) : nullptr) {
        value = *put;
        return S_OK;
    }
    if (occurrence_) {
        if (const Value* found = occurrence_->find(id)) value = *found;
        return S_OK;
    }
    return fresh_ ? S_OK : stored_value(id, value);
}

HRESULT ItemState::get_property_text(CEPROPID id, BSTR* text) {
    if (!cleared_text(text)) return fail(E_POINTER);
    return guarded([&]() -> HRESULT {
        Value found;
        const HRESULT result = value(id, found);
        return SUCCEEDED(result) ? give(as_text(&found), text) : result;
    });
}

void ItemState::put(CEPROPID id, Value value) {
    settle();
    if (!pending_) pending_ = std::make_unique<Values>();
    pending_->set(id, std::move(value));
    dirty_ = true;
}

void ItemState::put_values(const Values& values) {
    settle();
    auto pending = pending_ ? std::make_unique<Values>(*pending_) : std::make_unique<Values>();
    lay_over(values, *pending);
    pending_ = std::move(pending);
    dirty_ = true;
}

HRESULT ItemState::put_text(CEPROPID id, const WCHAR* text) {
    return guarded([&]() -> HRESULT {
        if (!session_->is_open()) return session_->check_open();
        std::u16string copy = text != nullptr ? std::u16string(text) : std::u16string();
        const bool column = is_column(id) && folder_ == olFolderContacts;
        put(id, copy.empty() && !column ? Value() : Value(std::move(copy)));
        return S_OK;
    });
}

HRESULT ItemState::get_number(CEPROPID id, LONGLONG otherwise, LONGLONG& number) {
    return guarded([&]() -> HRESULT {
        Value found;
        const HRESULT result = value(id, found);
        const auto* integer = std::get_if<LONGLONG>(&found);
        number = integer != nullptr ? *integer : otherwise;
        return result;
    });
}

HRESULT ItemState::put_number(CEPROPID id, LONGLONG number) {
    return guarded([&]() -> HRESULT {
        if (!session_->is_open()) return session_->check_open();
        put(id, number);
        return S_OK;
    });
}

HRESULT ItemState::get_date(CEPROPID id, DATE* date) {
    if (date == nullptr) return fail(E_POINTER);
    *date = ZR_PIM_NO_DATE;
    return guarded([&]() -> HRESULT {
        Value found;
        const HRESULT result = value(id, found);
        if (const auto* real = std::get_if<double>(&found)) *date = *real;
        return result;
    });
}

HRESULT ItemState::put_date(CEPROPID id, DATE date) {
    return guarded([&]() -> HRESULT {
        if (!session_->is_open()) return session_->check_open();
        if (!is_date(date)) return fail(E_INVALIDARG, "The date is out of range.");
        put(id, date == ZR_PIM_NO_DATE ? Value() : Value(date));
        return S_OK;
    });
}

HRESULT ItemState::get_props(const CEPROPID* ids, ULONG flags, WORD count, CEPROPVAL** values, ULONG* size,
                             HANDLE heap) {
    return guarded([&]() -> HRESULT {
        std::vector<Values::Entry> found;
        if (count != 0 && ids == nullptr) return fail(E_POINTER);
        for (WORD i = 0; i < count; ++i) {
            if (is_named_field(ids[i])) return fail(E_INVALIDARG, "A named field is not read as a property.");
            Value read;
            const HRESULT result = value(ids[i], read);
            if (FAILED(result)) return result;
            found.emplace_back(ids[i], std::move(read));
        }
        if (count == 0) {
            if (!session_->is_open()) return session_->check_open();
            settle();
            Values all;
            const HRESULT result = everything(all);
            if (FAILED(result)) return result;
            for (const auto& entry : all.entries()) {
                if (!is_named_field(entry.first) && !std::holds_alternative<std::monostate>(entry.second))
                    found.push_back(entry);
            }
            if (found.empty()) return S_FALSE;
        }
        return write_property_block(found, flags, values, size, heap);
    });
}

HRESULT ItemState::set_props(WORD count, const CEPROPVAL* values) {
    return guarded([&]() -> HRESULT {
        if (!session_->is_open()) return session_->check_open();
        std::vector<Values::Entry> entries;
        const HRESULT result = read_property_values(count, values, entries);
        if (FAILED(result)) return result;
        for (auto& [id, value] : entries) {
            put(id, std::move(value));
        }
        return S_OK;
    });
}

HRESULT ItemState::save() {
    return guarded([&]() -> HRESULT {
        if (!session_->is_open()) return session_->check_open();
        settle();
        if (oid_ != 0 && !dirty_) return S_OK;
        if (occurrence_) {
            occurrence_->saved = occurrence_->own;
            lay_over(*pending_, occurrence_->saved);
        }
        LONG oid = oid_;
        BatchMark mark;
        const HRESULT result = session_->write(mark, [&](Transaction& transaction) { return write(transaction, oid); });
        if (FAILED(result)) return result;
        oid_ = oid;
        dirty_ = false;
        batch_ = mark;
        if (series_changed_ && mark) series_changed_in_batch_ = true;
        series_changed_ = false;
        if (!mark) note_saved();
        return S_OK;
    });
}

HRESULT ItemState::write(Transaction& transaction, LONG& oid) {
    if (oid_ == 0) {
        generation_ = session_->store().generation();
        left_ = false;
        return transaction.insert(folder_, *pending_, oid);
    }
    if (const HRESULT result = check_here_locked(); FAILED(result)) return result;
    if (occurrence_) return transaction.save_occurrence(oid_, occurrence_->day, *pending_);
    const HRESULT result = transaction.update(oid_, *pending_);
    return SUCCEEDED(result) && series_changed_ ? transaction.drop_exceptions(oid_) : result;
}

HRESULT ItemState::remove() {
    return guarded([&]() -> HRESULT {
        if (!session_->is_open()) return session_->check_open();
        settle();
        if (oid_ == 0) return fail(E_INVALIDARG, "An item that was never saved cannot be deleted.");
        BatchMark mark;
        return session_->write(mark, [&](Transaction& transaction) {
            if (const HRESULT result = check_here_locked(); FAILED(result)) return result;
            return occurrence_ ? transaction.remove_occurrence(oid_, occurrence_->day) : transaction.remove(oid_);
        });
    });
}

HRESULT ItemState::read_anew(std::unique_ptr<const Values>& read) {
    Store& store = session_->store();
    auto all = std::make_unique<Values>();
    HRESULT result = left_ ? kGone : store.exists(oid_);
    if (SUCCEEDED(result)) result = store.values(oid_, true, *all);
    read = std::move(all);
    return result;
}

HRESULT ItemState::read_stored() {
    HRESULT result = left_ ? S_OK : session_->store().refresh();
    if (FAILED(result)) return result;
    const LONGLONG seq = session_->store().seq();
    if (stored_ && (left_ || stored_seq_ == seq)) return S_OK;
    std::unique_ptr<const Values> read;
    result = read_anew(read);
    if (SUCCEEDED(result)) result = check_here();
    if (reads_on(result)) {
        if (!stored_) stored_ = std::make_unique<Values>();
        return S_OK;
    }
    if (FAILED(result)) return result;
    stored_ = std::move(read);
    stored_seq_ = seq;
    return S_OK;
}

HRESULT ItemState::everything(Values& values) {
    if (!session_->is_open()) return session_->check_open();
    settle();
    if (occurrence_) {
        lay_over(*occurrence_->series, values);
        lay_over(occurrence_->own, values);
    } else if (!fresh_) {
        const auto lock = session_->store().lock();
        const HRESULT result = read_stored();
        if (FAILED(result)) return result;
        values = *stored_;
    }
    if (pending_) lay_over(*pending_, values);
    return S_OK;
}

HRESULT ItemState::read_occurrence(LONG day, Values& series, ExceptionFields& exception) {
    if (!session_->is_open()) return session_->check_open();
    settle();
    Store& store = session_->store();
    const auto lock = store.lock();
    HRESULT result = check_here();
    const LONGLONG seq = store.seq();
    const bool known = fresh_ || (stored_ && stored_seq_ == seq);
    std::unique_ptr<const Values> read;
    if (SUCCEEDED(result)) {
        result = store.at_once([&]() -> HRESULT {
            const HRESULT anew = known ? S_OK : read_anew(read);
            return FAILED(anew) || series_changed_in_batch_ ? anew : store.exception(oid_, day, exception);
        });
    }
    if (SUCCEEDED(result)) result = check_here();
    if (FAILED(result)) return result;
    if (!known) {
        stored_ = std::move(read);
        stored_seq_ = seq;
    }
    if (!fresh_) series = *stored_;
    if (pending_) lay_over(*pending_, series);
    return S_OK;
}

HRESULT ItemState::exceptions(std::vector<ExceptionDay>& exceptions) {
    if (!session_->is_open()) return session_->check_open();
    settle();
    if (oid_ == 0 || series_changed_ || series_changed_in_batch_ || left_) return S_OK;
    Store& store = session_->store();
    const auto lock = store.lock();
    const HRESULT result = store.refresh();
    return SUCCEEDED(result) ? store.exceptions(oid_, exceptions) : result;
}

HRESULT ItemState::born(LONGLONG& seq) {
    if (!session_->is_open()) return session_->check_open();
    settle();
    if (oid_ == 0) return fail(kGone);
    Store& store = session_->store();
    const auto lock = store.lock();
    HRESULT result = check_here();
    if (SUCCEEDED(result)) result = store.born(oid_, seq);
    return SUCCEEDED(result) ? check_here() : result;
}

HRESULT ItemState::copy_to(ItemState& copy) {
    return guarded([&]() -> HRESULT {
        if (!session_->is_open()) return session_->check_open();
        settle();
        Values all;
        HRESULT result = everything(all);
        if (SUCCEEDED(result) && !fresh_ && folder_ == olFolderContacts) {
            row_.reset();
            result = load(kAllColumns);
        }
        if (SUCCEEDED(result) && left_) result = fail(kGone);
        if (FAILED(result)) return result;
        if (!fresh_ && folder_ == olFolderContacts) {
            for (unsigned i = row_->own_file_as() ? kFileAs : kTitle; i < kColumns; ++i) {
                if (!row_->text_of(i).empty()) copy.put(text_field(i), std::u16string(row_->text_of(i)));
            }
        }
        for (const auto& [id, value] : all.entries()) {
            if (!occurrence_ || !is_rule_field(id)) copy.put(id, value);
        }
        return S_OK;
    });
}

}  // namespace zr::platform::pim
