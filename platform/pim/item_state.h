#pragma once

// What every item has behind its interface: where it is in the store, what was read of it, what is to be saved.

#include <memory>
#include <string_view>

#include "session.h"

namespace zr::platform::pim {

// What an occurrence shows: its own fields over those of its series. A removed field of its own hides the series'.
struct Occurrence {
    LONG day;
    Values own;
    std::shared_ptr<const Values> series;
    bool exception;     // it was changed, in the store
    Values saved = {};  // its own fields once what was saved is in the store

    const Value* find(CEPROPID id) const {
        const Value* mine = own.find(id);
        return mine != nullptr ? mine : series->find(id);
    }
};

// An item of the store as it is handed out; or a new one.
struct Given {
    LONG oid = 0;
    RowRef row = {};      // what was read of it before
    LONGLONG seq = 0;     // the change up to which it was there; 0: not known
    bool listed = false;  // by a collection: once it is deleted, what was not read before is empty and no failure
    bool left = false;    // it is deleted, and its identifier may be somebody else's
};

class ItemState {
public:
    ItemState(const SessionRef& session, INT folder, Given&& given);
    ~ItemState();
    ItemState(const ItemState&) = delete;
    ItemState& operator=(const ItemState&) = delete;

    Session& session() const { return *session_; }
    INT folder() const { return folder_; }
    HRESULT oid(LONG* oid);
    bool has_left() const { return left_; }

    HRESULT get_text(CEPROPID id, BSTR* text) {
        return is_column(id) && folder_ == olFolderContacts ? get_column(column_of(id), text)
                                                            : get_property_text(id, text);
    }
    HRESULT put_text(CEPROPID id, const WCHAR* text);
    HRESULT get_number(CEPROPID id, LONGLONG otherwise, LONGLONG& number);
    HRESULT put_number(CEPROPID id, LONGLONG number);
    HRESULT get_date(CEPROPID id, DATE* date);
    HRESULT put_date(CEPROPID id, DATE date);

    HRESULT get_props(const CEPROPID* ids, ULONG flags, WORD count, CEPROPVAL** values, ULONG* size, HANDLE heap);
    HRESULT set_props(WORD count, const CEPROPVAL* values);

    HRESULT save();
    HRESULT remove();
    // Everything that the item has, to be saved as a new one.
    HRESULT copy_to(ItemState& copy);

    // --- for appointments ---
    // Takes notice of what became of the batch in which the item was saved.
    void settle();
    // kGone: the item, an occurrence's series, is not in the store.
    HRESULT check_stored();
    // Makes this the occurrence of a series, which `oid` names. It shows what was read when it was made.
    void become_occurrence(std::unique_ptr<Occurrence> occurrence) { occurrence_ = std::move(occurrence); }
    const Occurrence* occurrence() const { return occurrence_.get(); }
    // Everything of the item in hand; contacts without their columns.
    HRESULT everything(Values& values);
    // The fields of the stored occurrence on a day, over the series in hand.
    HRESULT read_occurrence(LONG day, Values& series, ExceptionFields& exception);
    HRESULT exceptions(std::vector<ExceptionDay>& exceptions);
    // The change in which the stored item was made; kGone for one that is not in the store.
    HRESULT born(LONGLONG& seq);
    bool is_new() const { return oid_ == 0; }
    bool has_put(CEPROPID id) const { return pending_ && pending_->find(id) != nullptr; }
    HRESULT value(CEPROPID id, Value& value);
    void put_values(const Values& values);  // all or, when memory is short, none
    // The next save drops the series' exceptions.
    void change_series() { series_changed_ = true; }
    bool series_changed();

private:
    HRESULT get_column(unsigned column, BSTR* text) {
        const ColumnMask bit = 1u << column;
        if (text != nullptr && !pending_ && row_ && row_->has(bit) && session_->is_open()) [[likely]] {
            reads_ |= bit;
            return give(row_->text_of(column), text);
        }
        return get_column_slowly(column, text);
    }
    static HRESULT give(std::u16string_view text, BSTR* string);
    HRESULT get_column_slowly(unsigned column, BSTR* text);
    HRESULT get_property_text(CEPROPID id, BSTR* text);
    // With the store's lock held: kGone when the item was deleted since it was handed out, or is another store's,
    // whoever has its identifier now. To be asked after a read, and before a change.
    HRESULT check_here();
    HRESULT check_here_locked();
    // Takes notice of a failure to read that says that the item is gone. True: it reads on as an empty one.
    bool reads_on(HRESULT result);
    HRESULT load(ColumnMask mask);
    HRESULT read_row(ColumnMask mask, RowRef& row);
    HRESULT column_text(unsigned column, std::u16string& text);
    HRESULT file_as(std::u16string& text);
    HRESULT stored_value(CEPROPID id, Value& value);
    HRESULT write(Transaction& transaction, LONG& oid);
    void note_saved();
    void put(CEPROPID id, Value value);
    // With the store's lock held: reads all of the item, unless what was read still holds.
    HRESULT read_stored();
    HRESULT read_anew(std::unique_ptr<const Values>& read);

    SessionRef session_;
    INT folder_;
    LONG oid_;
    LONG generation_;  // of the store that has the item
    RowRef row_;
    LONGLONG seq_;
    const bool listed_;
    bool left_;
    ColumnMask reads_ = 0;
    std::unique_ptr<const Values> stored_;  // what was read of its properties,
    LONGLONG stored_seq_ = 0;               // when the store was at this change
    bool read_before_ = false;              // a single property was
    std::unique_ptr<Values> pending_;       // what was put and is not in the store yet
    BatchMark batch_;                       // of the batch in which the item was saved last
    bool fresh_;                            // not in the store yet
    bool dirty_ = false;                    // something was put since the last save
    std::unique_ptr<Occurrence> occurrence_;
    bool series_changed_ = false;           // the exceptions no longer fit since the last save
    bool series_changed_in_batch_ = false;  // they were dropped in the batch
};

}  // namespace zr::platform::pim
