#pragma once

// Where a table's rows come from. With the store's lock held, after refresh(), unless stated.

#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "restriction.h"
#include "session.h"

namespace zr::platform::mapi {

// A place in a table whose rows are in the order of their dates: behind the row with these numbers.
struct Place {
    LONGLONG date = 0;
    LONGLONG id = 0;
    friend bool operator==(const Place&, const Place&) = default;
};
inline constexpr Place kBeforeAll = {INT64_MIN, INT64_MIN};
inline constexpr Place kBehindAll = {INT64_MAX, INT64_MAX};

class RowSource {
public:
    virtual ~RowSource() = default;

    // Which columns a table has at first.
    virtual std::span<const ULONG> columns() const = 0;
    // The rows in the table's own order. What the restriction requires may be used to leave some out that do not fit.
    virtual HRESULT keys(const Restriction* restriction, std::vector<LONGLONG>& keys) = 0;
    // One entry per tag; S_FALSE: the row is gone.
    virtual HRESULT fill(LONGLONG key, std::span<const ULONG> tags, Row& row) = 0;

    // Whether the rows are in the order of a date and can be walked by it, as they are at each moment.
    virtual bool is_dated() const { return false; }
    // Visits at most `limit` rows behind a place, or before it and at it (backward), until `visit` returns false.
    using Visit = std::function<bool(const Place& place, Row& row)>;
    virtual HRESULT walk(const Place& from, bool backward, int limit, std::span<const ULONG> tags, const Visit& visit) {
        static_cast<void>(from);
        static_cast<void>(backward);
        static_cast<void>(limit);
        static_cast<void>(tags);
        static_cast<void>(visit);
        return E_NOTIMPL;
    }
    virtual HRESULT count(LONGLONG& count) {
        static_cast<void>(count);
        return E_NOTIMPL;
    }
};

std::unique_ptr<RowSource> stores_source(MailStore& store);
std::unique_ptr<RowSource> hierarchy_source(MailStore& store, LONGLONG folder, bool deep);
std::unique_ptr<RowSource> contents_source(MailStore& store, LONGLONG folder);
// `query`: of the full-text index; empty: all messages.
std::unique_ptr<RowSource> found_source(MailStore& store, std::string query);
// Rows that are at hand; what is long among them is read from the store.
std::unique_ptr<RowSource> fixed_source(MailStore& store, std::vector<Values> rows, std::span<const ULONG> columns);

}  // namespace zr::platform::mapi
