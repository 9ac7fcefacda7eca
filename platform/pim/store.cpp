#include "store.h"

#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "base/state_folder.h"
#include "base/utf.h"
#include "last_error.h"
#include "notifier.h"
#include "schema.h"
#include "store/store_file.h"

namespace zr::platform::pim {
namespace {

constexpr std::chrono::seconds kWriteRightTimeout{5};

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

Store::Store() : notifier_(std::make_unique<Notifier>(*this)) {
    // A process is told apart from others by chance, not by number: numbers are used again.
    if (getrandom(&origin_, sizeof origin_, 0) != sizeof origin_) origin_ = static_cast<DWORD>(getpid());
    origin_ &= 0x7FFFFFFF;
}

Store::~Store() {
    notifier_.reset();
}

HRESULT Store::join(std::shared_ptr<Store>& store) {
    const Folder folder = state_folder();
    if (!folder) return fail(HRESULT_FROM_WIN32(folder.error), folder.message);
    const std::string path = folder.path + "/pim.db";
    const std::lock_guard lock(stores_mutex);
    auto& all = stores();
    std::erase_if(all, [](const auto& each) { return each.expired(); });
    if (access(suspicion(path).c_str(), F_OK) != 0) {
        for (const auto& each : all) {
            store = each.lock();
            if (store && store->path_ == path) return S_OK;
        }
    }
    store = std::make_shared<Store>();
    const HRESULT result = store->open(path);
    if (FAILED(result)) {
        store.reset();
        return result;
    }
    all.push_back(store);
    return S_OK;
}

HRESULT Store::open(const std::string& path) {
    path_ = path;
    HRESULT result = open_store(path, reader_);
    if (SUCCEEDED(result)) result = signal_.open(path + ".signal");
    if (FAILED(result)) return result;
    LONGLONG seq = 0;
    result = reader_.scalar("SELECT max(seq) FROM change", seq);
    if (FAILED(result)) return result;
    seq_ = seq;
    commits_.attach(reader_);
    return S_OK;
}

HRESULT Store::refresh() {
    CommitWatch::Stamp now;
    const bool known = commits_.look(now);  // if it does not, every refresh looks at the log
    if (known && stamp_known_ && now == stamp_) return S_OK;
    std::vector<Change> changes;
    const HRESULT result = logged(seq_, static_cast<int>(kRecentChanges) + 1, changes);
    if (FAILED(result)) return result;
    if (changes.size() > kRecentChanges || (!changes.empty() && changes.front().seq != seq_ + 1)) {
        LONGLONG seq = 0;
        const HRESULT read = reader_.scalar("SELECT max(seq) FROM change", seq);
        if (FAILED(read)) return read;
        forget_all(seq);
    } else {
        for (const Change& change : changes) {
            apply(change);
        }
    }
    // The stamp from before the reading: what came after it will show next time.
    stamp_ = now;
    stamp_known_ = known;
    return S_OK;
}

void Store::apply(const Change& change) {
    rows_.drop(change.oid);
    recent_.push_back(change);
    if (recent_.size() > kRecentChanges) recent_.pop_front();
    seq_ = change.seq;
    if (change.kind == ChangeKind::Folder) notifier_->folder_changed();
}

void Store::forget_all(LONGLONG seq) {
    rows_.clear();
    recent_.clear();
    seq_ = seq;
    notifier_->folder_changed();
}

bool Store::recent(LONGLONG seq, std::vector<Change>& changes) const {
    const LONGLONG first = seq_ - static_cast<LONGLONG>(recent_.size()) + 1;
    if (seq + 1 < first || seq > seq_) return false;
    changes.assign(recent_.begin() + static_cast<std::ptrdiff_t>(seq + 1 - first), recent_.end());
    return true;
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
        const HRESULT head = reader_.scalar("SELECT max(seq) FROM change", seq);
        if (FAILED(head)) return head;
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

HRESULT Store::take_write_right() {
    std::unique_lock lock(write_mutex_);
    if (writing_ && writing_thread_ == std::this_thread::get_id())
        return fail(kBusy, "Another session of this thread has a batch open in the contact store.");
    if (!write_free_.wait_for(lock, kWriteRightTimeout, [this] { return !writing_; })) return fail(kBusy);
    if (!writer_) {
        auto writer = std::make_unique<Database>();
        const HRESULT result = open_connection(path_, *writer);
        if (FAILED(result)) return result;
        writer_ = std::move(writer);
    }
    writing_ = true;
    writing_thread_ = std::this_thread::get_id();
    return S_OK;
}

void Store::give_write_right() {
    {
        const std::lock_guard lock(write_mutex_);
        writing_ = false;
    }
    write_free_.notify_one();
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
