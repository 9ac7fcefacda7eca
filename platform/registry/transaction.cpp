#include "transaction.h"

#include <algorithm>
#include <utility>

#include "last_error.h"

namespace zr::platform::registry {
namespace {

// Whether all of a path, of keys that are not there yet, can be made below a key.
bool has_room(const Place& key, LPCWSTR path) {
    std::size_t depth = key.parents.size();
    PathParts parts(path);
    std::u16string_view part;
    while (parts.next(part)) {
        if (!fits(part) || ++depth > kDeepest) return false;
    }
    return true;
}

}  // namespace

DWORD Transaction::failed() {
    broken_ = true;
    return fail(connection_);
}

DWORD Transaction::log(ChangeKind kind, const Place& key, std::u16string_view name) {
    LONGLONG seq = 0;
    if (const DWORD error = writing_.next_seq(seq); error != ERROR_SUCCESS) {
        broken_ = true;
        return registry_error(error);
    }
    Use statement =
        connection_.use("INSERT INTO change(kind, key, parents, name, seq, origin) VALUES(?1, ?2, ?3, ?4, ?5, ?6)");
    if (!statement) return failed();
    statement->bind(1, static_cast<LONG>(kind));
    statement->bind(2, key.id);
    statement->bind_blob(3, key.parents.data(), key.parents.size() * sizeof(KeyId));
    statement->bind_units(4, name);
    statement->bind(5, seq);
    statement->bind(6, writing_.origin());
    return connection_.run(statement) == ERROR_SUCCESS ? ERROR_SUCCESS : failed();
}

DWORD Transaction::log_key(ChangeKind kind, const Place& key, std::u16string_view name) {
    values_of_ = 0;
    if (tree_ != nullptr) tree_->note({0, kind, key.id, key.parents, std::u16string(name)});
    return log(kind, key, name);
}

// Of many values in a row the log names the first one only.
DWORD Transaction::log_value(ChangeKind kind, const Place& key, std::u16string_view name) {
    if (values_of_ != key.id) {
        values_of_ = key.id;
        several_ = false;
        return log(kind, key, name);
    }
    return std::exchange(several_, true) ? ERROR_SUCCESS : log(ChangeKind::ValuesChanged, key, {});
}

DWORD Transaction::log_values(const Place& key) {
    if (tree_ != nullptr) tree_->note({0, ChangeKind::ValuesChanged, key.id, key.parents, {}});
    if (values_of_ == key.id && several_) return ERROR_SUCCESS;
    values_of_ = key.id;
    several_ = true;
    return log(ChangeKind::ValuesChanged, key, {});
}

DWORD Transaction::check(const Place& key) {
    if (key.parents.empty() || key.id == trusted_ || (tree_ != nullptr && tree_->has(key.id))) return ERROR_SUCCESS;
    const Use row = connection_.use("SELECT 1 FROM key WHERE id = ?1");
    if (!row) return failed();
    row->bind(1, key.id);
    const int code = row->step();
    return code == SQLITE_ROW ? ERROR_SUCCESS : code == SQLITE_DONE ? ERROR_KEY_DELETED : failed();
}

DWORD Transaction::find_child(const Place& parent, std::u16string_view name, KeyId& id) {
    const FoldedName folded(name);
    if (!folded) return ERROR_FILE_NOT_FOUND;
    if (const auto known = tree_ != nullptr ? tree_->child(parent.id, folded.view()) : std::nullopt) {
        id = *known;
        return id != 0 ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND;
    }
    const std::size_t level = parent.parents.size();
    if (level < found_.size() && found_[level].parent == parent.id && found_[level].folded == folded.view()) {
        id = found_[level].id;
        return ERROR_SUCCESS;
    }
    const DWORD error = look_up(parent.id, folded.view(), id);
    if (error != ERROR_SUCCESS || level > found_.size()) return error;
    found_.resize(level);
    found_.push_back({parent.id, id, std::u16string(folded.view())});
    return ERROR_SUCCESS;
}

DWORD Transaction::look_up(KeyId parent, std::u16string_view folded, KeyId& id) {
    const Use row = connection_.use("SELECT id FROM key WHERE parent = ?1 AND folded = ?2");
    if (!row) return failed();
    row->bind(1, parent);
    row->bind_units(2, folded);
    const int code = row->step();
    if (code == SQLITE_DONE) return ERROR_FILE_NOT_FOUND;
    if (code != SQLITE_ROW) return failed();
    id = row->integer(0);
    return ERROR_SUCCESS;
}

DWORD Transaction::make_child(const Place& parent, std::u16string_view name, std::u16string_view key_class, KeyId& id) {
    const FoldedName folded(name);
    Use statement = connection_.use("INSERT INTO key(parent, folded, name, class) VALUES(?1, ?2, ?3, ?4)");
    if (!statement) return failed();
    statement->bind(1, parent.id);
    statement->bind_units(2, folded.view());
    statement->bind_units(3, name);
    statement->bind_units(4, key_class);
    if (connection_.run(statement) != 0) return failed();
    id = sqlite3_last_insert_rowid(connection_.handle());
    return ERROR_SUCCESS;
}

DWORD Transaction::walk(Place& key, LPCWSTR path) {
    DWORD error = check(key);
    PathParts parts(path);
    std::u16string_view part;
    while (error == ERROR_SUCCESS && parts.next(part)) {
        KeyId id = 0;
        error = find_child(key, part, id);
        key.parents.push_back(std::exchange(key.id, id));
    }
    return error;
}

DWORD Transaction::make(Place& key, LPCWSTR path, std::u16string_view key_class, bool& created) {
    created = false;
    DWORD error = check(key);
    PathParts parts(path);
    std::u16string_view part;
    std::u16string_view next;
    bool more = parts.next(part);
    for (; error == ERROR_SUCCESS && more; part = next) {
        more = parts.next(next);
        KeyId id = 0;
        error = created ? ERROR_FILE_NOT_FOUND : find_child(key, part, id);
        if (error == ERROR_FILE_NOT_FOUND) {
            if (!created && !has_room(key, part.data())) return ERROR_INVALID_PARAMETER;
            error = make_child(key, part, more ? std::u16string_view() : key_class, id);
            created = true;
        }
        key.parents.push_back(std::exchange(key.id, id));
        if (error == ERROR_SUCCESS && created) error = log_key(ChangeKind::KeyAdded, key, part);
    }
    return error;
}

DWORD Transaction::name_of(KeyId id, std::u16string& name) {
    if (const std::u16string* const known = tree_ != nullptr ? tree_->name_of(id) : nullptr) {
        name = *known;
        return ERROR_SUCCESS;
    }
    const Use row = connection_.use("SELECT name FROM key WHERE id = ?1");
    if (!row) return failed();
    row->bind(1, id);
    const int code = row->step();
    if (code == SQLITE_DONE) return ERROR_KEY_DELETED;
    if (code != SQLITE_ROW) return failed();
    name = row->text(0);
    return ERROR_SUCCESS;
}

// Appends what is below the keys, level by level.
DWORD Transaction::collect(std::vector<Doomed>& keys) {
    for (std::size_t i = 0; i < keys.size(); ++i) {
        std::vector<KeyId> parents = keys[i].place.parents;
        parents.push_back(keys[i].place.id);
        const Use rows = connection_.use("SELECT id, name FROM key WHERE parent = ?1");
        if (!rows) return failed();
        rows->bind(1, keys[i].place.id);
        int code;
        while ((code = rows->step()) == SQLITE_ROW) {
            const KeyId id = rows->integer(0);
            if (!can_be_below(id, keys[i].place.id)) {
                connection_.met_wrong_rows();
                return failed();
            }
            keys.push_back({{id, parents}, std::u16string(rows->text(1))});
        }
        if (code != SQLITE_DONE) return failed();
    }
    return ERROR_SUCCESS;
}

DWORD Transaction::delete_key(const Doomed& key) {
    for (const char* sql : {"DELETE FROM value WHERE key = ?1", "DELETE FROM key WHERE id = ?1"}) {
        Use statement = connection_.use(sql);
        if (statement) statement->bind(1, key.place.id);
        if (connection_.run(statement) != 0) return failed();
    }
    return log_key(ChangeKind::KeyRemoved, key.place, key.name);
}

DWORD Transaction::delete_tree(const Place& key) {
    if (key.parents.empty()) return ERROR_ACCESS_DENIED;
    found_.resize(std::min(found_.size(), key.parents.size() - 1));
    std::vector<Doomed> keys;
    keys.push_back({key, {}});
    DWORD error = name_of(key.id, keys.front().name);
    if (error == ERROR_SUCCESS) error = collect(keys);
    for (std::size_t i = keys.size(); i-- > 0 && error == ERROR_SUCCESS;) {
        error = delete_key(keys[i]);
    }
    return error;
}

DWORD Transaction::set_value(const Place& key, std::u16string_view name, DWORD type, const BYTE* data, DWORD size) {
    const FoldedName folded(name);
    if (!folded || size > kLargestData) return ERROR_INVALID_PARAMETER;
    Use statement = connection_.use(
        "INSERT INTO value(key, folded, name, type, data) VALUES(?1, ?2, ?3, ?4, ?5)"
        " ON CONFLICT(key, folded) DO UPDATE SET type = excluded.type, data = excluded.data"
        " WHERE type <> excluded.type OR data <> excluded.data");
    if (!statement) return failed();
    statement->bind(1, key.id);
    statement->bind_units(2, folded.view());
    statement->bind_units(3, name);
    statement->bind(4, type);
    statement->bind_blob(5, data, size);
    if (connection_.run(statement) != 0) return failed();
    // What is set to what it is has not changed.
    if (connection_.changes() == 0) return ERROR_SUCCESS;
    if (tree_ != nullptr) tree_->take_over({key.id, ChangeKind::ValueSet, name, type, data, size});
    return log_value(ChangeKind::ValueSet, key, name);
}

DWORD Transaction::delete_value(const Place& key, std::u16string_view name) {
    const FoldedName folded(name);
    if (!folded) return ERROR_FILE_NOT_FOUND;
    Use statement = connection_.use("DELETE FROM value WHERE key = ?1 AND folded = ?2");
    if (!statement) return failed();
    statement->bind(1, key.id);
    statement->bind_units(2, folded.view());
    if (connection_.run(statement) != 0) return failed();
    if (connection_.changes() == 0) return ERROR_FILE_NOT_FOUND;
    if (tree_ != nullptr) tree_->take_over({key.id, ChangeKind::ValueRemoved, name, 0, nullptr, 0});
    return log_value(ChangeKind::ValueRemoved, key, name);
}

DWORD Transaction::copy_values(const Place& from, const Place& to, DWORD most) {
    {
        const Use row = connection_.use("SELECT 1 FROM value WHERE key = ?1 AND length(data) > ?2 LIMIT 1");
        if (!row) return failed();
        row->bind(1, from.id);
        row->bind(2, most);
        const int code = row->step();
        if (code == SQLITE_ROW) return ERROR_MORE_DATA;
        if (code != SQLITE_DONE) return failed();
    }
    if (from.id == to.id) return ERROR_SUCCESS;
    Use statement = connection_.use(
        "INSERT INTO value(key, folded, name, type, data)"
        " SELECT ?2, folded, name, type, data FROM value WHERE key = ?1"
        " ON CONFLICT(key, folded) DO UPDATE SET type = excluded.type, data = excluded.data"
        " WHERE type <> excluded.type OR data <> excluded.data");
    if (!statement) return failed();
    statement->bind(1, from.id);
    statement->bind(2, to.id);
    if (connection_.run(statement) != 0) return failed();
    return connection_.changes() == 0 ? ERROR_SUCCESS : log_values(to);
}

}  // namespace zr::platform::registry
