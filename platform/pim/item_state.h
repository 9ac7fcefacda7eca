#pragma once

// What every item has behind its interface: where it is in the store, what was read of it, what is to be saved.

#include <memory>
#include <string_view>

#include "session.h"

namespace zr::platform::pim {

class ItemState {
public:
    // An item of the store, or with oid 0 a new one.
    ItemState(const SessionRef& session, INT folder, LONG oid, RowRef row);
    ~ItemState();
    ItemState(const ItemState&) = delete;
    ItemState& operator=(const ItemState&) = delete;

    Session& session() const { return *session_; }
    INT folder() const { return folder_; }
    HRESULT oid(LONG* oid);

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
    HRESULT load(ColumnMask mask);
    HRESULT column_text(unsigned column, std::u16string& text);
    HRESULT file_as(std::u16string& text);
    HRESULT value(CEPROPID id, Value& value);
    HRESULT stored_value(CEPROPID id, Value& value);
    void put(CEPROPID id, Value value);
    void settle();
    // What the store has of the item now, its named fields only on request.
    HRESULT stored_values(bool named_too, Values& values);

    SessionRef session_;
    INT folder_;
    LONG oid_;
    RowRef row_;
    ColumnMask reads_ = 0;
    std::unique_ptr<Values> pending_;  // what was put and is not in the store yet
    BatchMark batch_;                  // of the batch in which the item was saved last
    bool fresh_;                       // not in the store yet
    bool dirty_ = false;               // something was put since the last save
};

}  // namespace zr::platform::pim
