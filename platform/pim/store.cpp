#include "store.h"

#include <algorithm>

#include "base/forks.h"
#include "in_call.h"
#include "last_error.h"
#include "notifier.h"
#include "schema.h"

namespace zr::platform::pim {
namespace {

std::mutex stores_mutex;

// Lives for ever: sessions may end in a static object's destructor.
std::vector<std::weak_ptr<Store>>& stores() {
    static auto* all = new std::vector<std::weak_ptr<Store>>;
    return *all;
}

}  // namespace

Value read_value(const Statement& row, int column, CEPROPID id) {
    switch (type_of(id)) {
        case CEVT_R8:
            return row.real(column);
        case CEVT_LPWSTR:
            return std::u16string(row.text(column));
        case CEVT_BLOB: {
            const std::string_view bytes = row.blob(column);
            return std::vector<BYTE>(bytes.begin(), bytes.end());
        }
        default:
            return row.integer(column);
    }
}

Store::Store(std::string path)
    : shared_(kContactStore, *this, std::move(path)), notifier_(std::make_unique<Notifier>(*this)) {}

Store::~Store() {
    notifier_.reset();
}

// A fork finds the family's locks free: nobody is inside a call, no store comes or goes, nobody is being told anything.
class Forks {
public:
    static void prepare() noexcept {
        calls_gate().close();
        stores_mutex.lock();
        held().clear();
        for (const auto& each : stores()) {
            if (auto store = each.lock()) held().push_back(std::move(store));
        }
        for (const auto& store : held()) {
            store->notifier().before_fork();
        }
    }
    static void in_parent() noexcept {
        unlock();
        held().clear();
        calls_gate().open();
    }
    // The references stay until the next look: a child frees nothing.
    static void in_child() noexcept {
        unlock();
        calls_gate().open_in_child();
    }
    static void make_room(std::size_t stores) { held().reserve(stores); }
    static void let_go() noexcept {
        std::vector<std::shared_ptr<Store>> gone;
        const std::lock_guard lock(stores_mutex);
        gone.reserve(held().size());
        for (auto& store : held()) {
            gone.push_back(std::move(store));
        }
        held().clear();  // and keeps its room
    }

private:
    static void unlock() {
        for (const auto& store : held()) {
            store->notifier().after_fork();
        }
        stores_mutex.unlock();
    }
    // The stores that are there; they do not end while their locks are taken.
    static std::vector<std::shared_ptr<Store>>& held() {
        static auto* const all = new std::vector<std::shared_ptr<Store>>;
        return *all;
    }
};

const AtFork at_fork{ForkRank::Pim, {&Forks::prepare, &Forks::in_parent, &Forks::in_child, &Forks::let_go}};

HRESULT Store::join(std::shared_ptr<Store>& store) {
    const std::lock_guard lock(stores_mutex);
    auto& all = stores();
    std::erase_if(all, [](const auto& each) { return each.expired(); });
    std::string path;
    std::string trouble;
    if (const DWORD error = SharedStore::path_of(kContactStore, path, trouble); error != ERROR_SUCCESS)
        return fail(HRESULT_FROM_WIN32(error), trouble);
    for (const auto& each : all) {
        store = each.lock();
        if (store && store->shared_.path() == path) break;
        store.reset();
    }
    if (!store) {
        store = std::make_shared<Store>(path);
        all.push_back(store);
        Forks::make_room(all.size());
    }
    const HRESULT result = store_result(store->shared_.join());
    if (FAILED(result)) store.reset();
    return result;
}

void Store::failed(std::string_view sentence) noexcept {
    fail(S_OK, sentence);
}

void Store::opened(bool another) {
    if (!another) return;
    generation_.fetch_add(1, std::memory_order_relaxed);
    forget();
}

DWORD Store::follow(LONGLONG position) {
    std::vector<Change> changes;
    if (FAILED(logged(position, -1, changes))) return shared_.reader().error();
    apply(changes);
    return ERROR_SUCCESS;
}

void Store::apply(const std::vector<Change>& changes) {
    for (const Change& change : changes) {
        rows_.drop(change.oid);
        recent_.push_back(change);
        if (recent_.size() > kRecentChanges) recent_.pop_front();
        if (change.kind == ChangeKind::Folder) notifier_->folder_changed();
    }
}

void Store::forget() noexcept {
    rows_.clear();
    recent_.clear();
    notifier_->folder_changed();
}

bool Store::recent(LONGLONG seq, std::vector<Change>& changes) const {
    const LONGLONG first = this->seq() - static_cast<LONGLONG>(recent_.size()) + 1;
    if (seq + 1 < first || seq > this->seq()) return false;
    changes.assign(recent_.begin() + static_cast<std::ptrdiff_t>(seq + 1 - first), recent_.end());
    return true;
}

bool Store::deleted_since(LONGLONG seq, LONG oid) const {
    for (auto change = recent_.rbegin(); change != recent_.rend() && change->seq > seq; ++change) {
        if (change->oid == oid && change->kind == ChangeKind::Deleted) return true;
    }
    return false;
}

HRESULT Store::logged(LONGLONG seq, int limit, std::vector<Change>& changes) {
    const Use rows = reader_.use("SELECT seq, kind, oid, origin FROM change WHERE seq > ?1 ORDER BY seq LIMIT ?2");
    if (!rows) return reader_.result();
    rows->bind(1, seq);
    rows->bind(2, limit);
    int code;
    while ((code = rows->step()) == SQLITE_ROW) {
        changes.push_back({rows->integer(0), static_cast<ChangeKind>(rows->integer(1)),
                           static_cast<LONG>(rows->integer(2)), static_cast<DWORD>(rows->integer(3))});
    }
    return code == SQLITE_DONE ? S_OK : reader_.result();
}

HRESULT Store::oids(INT folder, std::vector<LONG>& oids, LONGLONG& seq) {
    // Identifiers in use are those below the next new one that are not free.
    return at_once([&]() -> HRESULT {
        {
            const Use head = reader_.use("SELECT max(seq) FROM change");
            if (!head || head->step() != SQLITE_ROW) return reader_.result();
            seq = head->integer(0);
        }
        const Use next = reader_.use("SELECT next FROM folder WHERE id = ?1");
        if (!next) return reader_.result();
        next->bind(1, folder);
        if (next->step() != SQLITE_ROW) return reader_.result();
        const auto end = static_cast<LONG>(next->integer(0));
        const Use free = reader_.use("SELECT oid FROM free_oid WHERE oid BETWEEN ?1 AND ?2 ORDER BY oid");
        if (!free) return reader_.result();
        free->bind(1, first_oid(folder));
        free->bind(2, last_oid(folder));
        oids.reserve(static_cast<std::size_t>(end - first_oid(folder)));
        LONG oid = first_oid(folder);
        int code;
        while ((code = free->step()) == SQLITE_ROW) {
            for (const auto hole = static_cast<LONG>(free->integer(0)); oid < hole; ++oid) {
                oids.push_back(oid);
            }
            ++oid;
        }
        for (; code == SQLITE_DONE && oid < end; ++oid) {
            oids.push_back(oid);
        }
        return code == SQLITE_DONE ? S_OK : reader_.result();
    });
}

HRESULT Store::key(LONG oid, CEPROPID id, std::u16string& key) {
    if (is_column(id) && folder_of(oid) == olFolderContacts) {
        RowRef found;
        const HRESULT result = rows_.read(oid, 1u << column_of(id), found);
        if (SUCCEEDED(result)) key = text_key(found->text_of(column_of(id)));
        return result;
    }
    Value found;
    const HRESULT result = value(oid, id, found);
    if (SUCCEEDED(result)) key = key_of(id, &found);
    return result;
}

HRESULT Store::exists(LONG oid) {
    if (folder_of(oid) == 0) return fail(kGone);
    if (folder_of(oid) == olFolderContacts) {
        RowRef found;
        return rows_.read(oid, 0, found);
    }
    const Use entry = reader_.use("SELECT 1 FROM entry WHERE oid = ?1");
    if (!entry) return reader_.result();
    entry->bind(1, oid);
    const int code = entry->step();
    return code == SQLITE_ROW ? S_OK : code == SQLITE_DONE ? fail(kGone) : reader_.result();
}

HRESULT Store::with_uid(INT folder, std::u16string_view uid, LONG after, LONG& oid) {
    const bool contacts = folder == olFolderContacts;
    const char* sql = contacts ? "SELECT oid FROM property WHERE id = 2097479711 AND value = ?3 AND oid BETWEEN ?1 + 1"
                                 " AND ?2 ORDER BY oid LIMIT 1"
                               : "SELECT oid FROM property WHERE id = 2097348639 AND value = ?3 AND oid BETWEEN ?1 + 1"
                                 " AND ?2 ORDER BY oid LIMIT 1";
    if (uid.empty())
        sql = contacts
                  ? "SELECT oid FROM contact WHERE oid BETWEEN ?1 + 1 AND ?2 AND NOT EXISTS(SELECT 1 FROM property"
                    " WHERE property.oid = contact.oid AND id = 2097479711 AND value IS NOT NULL) ORDER BY oid LIMIT 1"
                  : "SELECT oid FROM entry WHERE oid BETWEEN ?1 + 1 AND ?2 AND NOT EXISTS(SELECT 1 FROM property"
                    " WHERE property.oid = entry.oid AND id = 2097348639 AND value IS NOT NULL) ORDER BY oid LIMIT 1";
    const Use rows = reader_.use(sql);
    if (!rows) return reader_.result();
    rows->bind(1, std::max(after, first_oid(folder) - 1));
    rows->bind(2, last_oid(folder));
    if (!uid.empty()) rows->bind_text(3, uid);
    const int code = rows->step();
    oid = code == SQLITE_ROW ? static_cast<LONG>(rows->integer(0)) : 0;
    return code == SQLITE_ROW || code == SQLITE_DONE ? S_OK : reader_.result();
}

HRESULT Store::with_email(std::u16string_view address, LONG after, LONG& oid) {
    oid = 0;
    if (address.empty()) return S_OK;
    const std::u16string wanted = text_key(address);
    // A letter of ASCII and one of the others are never the same one in two cases.
    const bool ascii = std::ranges::all_of(wanted, [](char16_t unit) { return unit >= u' ' && unit <= u'~'; });
    const Use rows = reader_.use(
        ascii ? "SELECT min(oid) FROM ("
                "SELECT * FROM (SELECT oid FROM contact WHERE email1 <> '' AND lower(email1) = ?2 AND oid > ?1"
                " ORDER BY oid LIMIT 1) UNION ALL "
                "SELECT * FROM (SELECT oid FROM contact WHERE email2 <> '' AND lower(email2) = ?2 AND oid > ?1"
                " ORDER BY oid LIMIT 1) UNION ALL "
                "SELECT * FROM (SELECT oid FROM contact WHERE email3 <> '' AND lower(email3) = ?2 AND oid > ?1"
                " ORDER BY oid LIMIT 1)) HAVING min(oid) IS NOT NULL"
              : "SELECT oid, email1, email2, email3 FROM contact WHERE (email1 GLOB '*[^ -~]*'"
                " OR email2 GLOB '*[^ -~]*' OR email3 GLOB '*[^ -~]*') AND oid > ?1 ORDER BY oid");
    if (!rows) return reader_.result();
    rows->bind(1, after);
    if (ascii) rows->bind_text(2, wanted);
    int code;
    while ((code = rows->step()) == SQLITE_ROW) {
        if (!ascii && text_key(rows->text(1)) != wanted && text_key(rows->text(2)) != wanted &&
            text_key(rows->text(3)) != wanted) {
            continue;
        }
        oid = static_cast<LONG>(rows->integer(0));
        return S_OK;
    }
    return code == SQLITE_DONE ? S_OK : reader_.result();
}

HRESULT Store::born(LONG oid, LONGLONG& seq) {
    const Use rows = reader_.use(folder_of(oid) == olFolderContacts ? "SELECT born FROM contact WHERE oid = ?1"
                                                                    : "SELECT born FROM entry WHERE oid = ?1");
    if (!rows) return reader_.result();
    rows->bind(1, oid);
    const int code = rows->step();
    if (code == SQLITE_ROW) seq = rows->integer(0);
    return code == SQLITE_ROW ? S_OK : code == SQLITE_DONE ? fail(kGone) : reader_.result();
}

HRESULT Store::value(LONG oid, CEPROPID id, Value& value) {
    const Use rows = reader_.use("SELECT value FROM property WHERE oid = ?1 AND id = ?2");
    if (!rows) return reader_.result();
    rows->bind(1, oid);
    rows->bind(2, id);
    const int code = rows->step();
    if (code == SQLITE_ROW) value = read_value(*rows, 0, id);
    return code == SQLITE_ROW || code == SQLITE_DONE ? S_OK : reader_.result();
}

HRESULT Store::values(LONG oid, bool named, Values& values) {
    return read_values(reader_, oid, named, values);
}

HRESULT Store::exceptions(LONG oid, std::vector<ExceptionDay>& exceptions) {
    const Use rows = reader_.use("SELECT day, value FROM exception WHERE oid = ?1 AND id = 0 ORDER BY day");
    if (!rows) return reader_.result();
    rows->bind(1, oid);
    int code;
    while ((code = rows->step()) == SQLITE_ROW) {
        exceptions.push_back({static_cast<LONG>(rows->integer(0)), rows->integer(1) != 0});
    }
    return code == SQLITE_DONE ? S_OK : reader_.result();
}

HRESULT Store::exception(LONG oid, LONG day, ExceptionFields& exception) {
    return read_exception(reader_, oid, day, exception);
}

HRESULT read_values(Database& database, LONG oid, bool named, Values& values) {
    const Use rows = database.use("SELECT id, value FROM property WHERE oid = ?1 ORDER BY id");
    if (!rows) return database.result();
    rows->bind(1, oid);
    int code;
    while ((code = rows->step()) == SQLITE_ROW) {
        const auto id = static_cast<CEPROPID>(rows->integer(0));
        if (named || !is_named_field(id)) values.set(id, read_value(*rows, 1, id));
    }
    return code == SQLITE_DONE ? S_OK : database.result();
}

HRESULT read_exception(Database& database, LONG oid, LONG day, ExceptionFields& exception) {
    const Use rows = database.use("SELECT id, value FROM exception WHERE oid = ?1 AND day = ?2 ORDER BY id");
    if (!rows) return database.result();
    rows->bind(1, oid);
    rows->bind(2, day);
    int code;
    while ((code = rows->step()) == SQLITE_ROW) {
        const auto id = static_cast<CEPROPID>(rows->integer(0));
        if (id == 0) {
            exception.exists = true;
            exception.deleted = rows->integer(1) != 0;
        } else {
            exception.values.set(id, rows->is_null(1) ? Value() : read_value(*rows, 1, id));
        }
    }
    return code == SQLITE_DONE ? S_OK : database.result();
}

}  // namespace zr::platform::pim
