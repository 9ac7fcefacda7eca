#include "store.h"

#include <algorithm>
#include <cstring>

#include "base/forks.h"
#include "chunk.h"
#include "notifier.h"
#include "transaction.h"

namespace zr::platform::mapi {
namespace {

std::mutex stores_mutex;

// Live for ever: objects may be released in a static object's destructor.
std::vector<std::unique_ptr<MailStore>>& stores() {
    static auto* all = new std::vector<std::unique_ptr<MailStore>>;
    return *all;
}

constexpr std::u16string_view kDefaultName = u"Mail";

}  // namespace

// A fork finds the family's locks free: no store comes or goes, nobody is being told anything. What a StoreWriting
// holds is the foundation's.
class Forks {
public:
    static void prepare() noexcept {
        stores_mutex.lock();
        for (const auto& store : stores()) {
            store->notifier().before_fork();
        }
    }
    static void after() noexcept {
        for (const auto& store : stores()) {
            store->notifier().after_fork();
        }
        stores_mutex.unlock();
    }
};

const AtFork at_fork{ForkRank::Mapi, {&Forks::prepare, &Forks::after, &Forks::after}};

Value read_stored(const Statement& row, int type, int value, int blob) {
    Value result;
    result.type = static_cast<ULONG>(row.integer(type));
    if (!row.is_null(blob)) {
        result.blob = row.integer(blob);
        result.blob_size = static_cast<ULONGLONG>(row.integer(value));
    } else if (has_bytes(result.type)) {
        result.bytes = row.blob(value);
    } else {
        result.number = row.integer(value);
    }
    return result;
}

ColumnView MessageRow::view(Column column) const {
    ColumnView view;
    const unsigned index = index_of(column);
    view.present = present[index];
    if (is_text(column)) {
        view.bytes = texts[index - kFirstText];
    } else {
        view.number = numbers[index];
    }
    return view;
}

MailStore::MailStore(std::string path)
    : shared_(kMailStore, *this, std::move(path)), notifier_(std::make_unique<Notifier>(*this)) {}

MailStore::~MailStore() = default;

HRESULT MailStore::join(MailStore*& store) {
    store = nullptr;
    std::string path;
    std::string trouble;
    if (const DWORD error = SharedStore::path_of(kMailStore, path, trouble); error != ERROR_SUCCESS)
        return fail(store_result(error), trouble);
    MailStore* found = nullptr;
    {
        const std::lock_guard lock(stores_mutex);
        for (const auto& each : stores()) {
            if (each->shared_.path() == path) found = each.get();
        }
        if (found == nullptr) {
            stores().push_back(std::make_unique<MailStore>(path));
            found = stores().back().get();
        }
        ++found->joined_;
    }
    HRESULT result = store_result(found->shared_.join());
    if (SUCCEEDED(result)) result = found->ensure_account();
    if (SUCCEEDED(result)) {
        store = found;
    } else {
        found->leave();
    }
    return result;
}

void MailStore::leave() {
    const std::lock_guard lock(stores_mutex);
    if (--joined_ == 0) shared_.rest();
}

// Also where a damaged store was set aside while sessions are open.
HRESULT MailStore::ensure_account() {
    {
        const auto reading = lock();
        if (const HRESULT result = refresh(); FAILED(result)) return result;
        if (!accounts_.empty()) return S_OK;
    }
    Transaction transaction;
    HRESULT result = transaction.begin(*this);
    bool needed = false;
    if (SUCCEEDED(result)) result = transaction.lacks_accounts(needed);
    if (FAILED(result) || !needed) return result;
    LONGLONG account = 0;
    result = transaction.create_account(kDefaultName, account);
    return SUCCEEDED(result) ? transaction.commit() : result;
}

HRESULT MailStore::failure() {
    const DWORD error = shared_.reader().error();
    return fail(store_result(error), shared_.reader().sentence(kMailStore.name));
}

HRESULT MailStore::refresh() {
    if (const DWORD error = shared_.refresh(); error != ERROR_SUCCESS) return store_result(error);
    return accounts_known_ ? S_OK : read_accounts();
}

HRESULT MailStore::read_accounts() {
    std::map<LONGLONG, Account> accounts;
    std::map<LONGLONG, Folder> folders;
    {
        const Use rows = use("SELECT id, uid, name, created FROM account");
        if (!rows) return failure();
        int code;
        while ((code = rows->step()) == SQLITE_ROW) {
            Account account;
            account.id = rows->integer(0);
            const std::string_view uid = rows->blob(1);
            std::memcpy(account.uid.data(), uid.data(), std::min(uid.size(), account.uid.size()));
            account.name = as_text(rows->blob(2));
            account.created = rows->integer(3);
            accounts.emplace(account.id, account);
        }
        if (code != SQLITE_DONE) return failure();
    }
    const Use rows = use("SELECT id, account, parent, role, name, created, modified FROM folder");
    if (!rows) return failure();
    int code;
    while ((code = rows->step()) == SQLITE_ROW) {
        Folder folder;
        folder.id = rows->integer(0);
        folder.account = rows->integer(1);
        folder.parent = std::max<LONGLONG>(rows->integer(2), 0);
        folder.role = static_cast<Role>(std::clamp<LONGLONG>(rows->integer(3), 0, kRoles - 1));
        folder.name = as_text(rows->blob(4));
        folder.created = rows->integer(5);
        folder.modified = rows->integer(6);
        const auto account = accounts.find(folder.account);
        if (account != accounts.end()) account->second.roles[static_cast<LONG>(folder.role)] = folder.id;
        folders.emplace(folder.id, std::move(folder));
    }
    if (code != SQLITE_DONE) return failure();
    accounts_ = std::move(accounts);
    folders_ = std::move(folders);
    accounts_known_ = true;
    return S_OK;
}

const Account* MailStore::account(LONGLONG id) const {
    const auto found = accounts_.find(id);
    return found != accounts_.end() ? &found->second : nullptr;
}

const Account* MailStore::account(const AccountUid& uid) const {
    for (const auto& [id, account] : accounts_) {
        if (account.uid == uid) return &account;
    }
    return nullptr;
}

const Folder* MailStore::folder(LONGLONG id) const {
    const auto found = folders_.find(id);
    return found != folders_.end() ? &found->second : nullptr;
}

void MailStore::folders_below(LONGLONG id, bool deep, std::vector<LONGLONG>& folders) const {
    std::map<LONGLONG, std::vector<LONGLONG>> below;
    for (const auto& [number, folder] : folders_) {
        below[folder.parent].push_back(number);
    }
    // Deep ones without recursion: the store may be of any depth.
    std::vector<LONGLONG> open(below[id].rbegin(), below[id].rend());
    while (!open.empty()) {
        const LONGLONG next = open.back();
        open.pop_back();
        folders.push_back(next);
        if (deep) open.insert(open.end(), below[next].rbegin(), below[next].rend());
    }
}

HRESULT MailStore::message(LONGLONG id, MessageRow& row) {
    static const std::string sql =
        std::string("SELECT ") + kAllColumns + ", folder, version, next_attachment FROM message WHERE id = ?1";
    const Use rows = use(sql.c_str());
    if (!rows) return failure();
    rows->bind(1, id);
    const int code = rows->step();
    if (code == SQLITE_DONE) return fail(MAPI_E_NOT_FOUND);
    if (code != SQLITE_ROW) return failure();
    row.id = id;
    ColumnView views[kColumns];
    std::size_t size = 0;
    for (unsigned i = 0; i < kColumns; ++i) {
        views[i].read(*rows, static_cast<int>(i), static_cast<Column>(i));
        row.present[i] = views[i].present;
        if (i < kFirstText) row.numbers[i] = views[i].number;
        size += views[i].bytes.size();
    }
    row.units.clear();
    row.units.reserve(size);
    for (unsigned i = kFirstText; i < kColumns; ++i) {
        const std::size_t at = row.units.size();
        row.units += views[i].bytes;
        row.texts[i - kFirstText] = std::string_view(row.units).substr(at);
    }
    row.folder = rows->integer(kColumns);
    row.version = rows->integer(kColumns + 1);
    row.next_attachment = rows->integer(kColumns + 2);
    return S_OK;
}

HRESULT MailStore::count_messages(LONGLONG folder, bool unread, LONGLONG& count) {
    const Use rows = use(unread ? "SELECT count(*) FROM message WHERE folder = ?1 AND flags & 1 = 0"
                                : "SELECT count(*) FROM message WHERE folder = ?1");
    if (!rows) return failure();
    rows->bind(1, folder);
    if (rows->step() != SQLITE_ROW) return failure();
    count = rows->integer(0);
    return S_OK;
}

HRESULT MailStore::properties(LONGLONG owner, LONGLONG part, Values& values) {
    const Use rows = use("SELECT id, type, value, blob FROM property WHERE owner = ?1 AND part = ?2");
    if (!rows) return failure();
    rows->bind(1, owner);
    rows->bind(2, part);
    int code;
    while ((code = rows->step()) == SQLITE_ROW) {
        values[static_cast<WORD>(rows->integer(0))] = read_stored(*rows, 1, 2, 3);
    }
    return code == SQLITE_DONE ? S_OK : failure();
}

HRESULT MailStore::property(LONGLONG owner, LONGLONG part, WORD id, Value& value) {
    const Use rows = use("SELECT type, value, blob FROM property WHERE owner = ?1 AND part = ?2 AND id = ?3");
    if (!rows) return failure();
    rows->bind(1, owner);
    rows->bind(2, part);
    rows->bind(3, LONG{id});
    value = {};
    const int code = rows->step();
    if (code == SQLITE_ROW) value = read_stored(*rows, 0, 1, 2);
    return code == SQLITE_ROW || code == SQLITE_DONE ? S_OK : failure();
}

HRESULT MailStore::parts(LONGLONG owner, bool recipients, std::vector<LONGLONG>& parts) {
    const Use rows =
        use(recipients ? "SELECT DISTINCT part FROM property WHERE owner = ?1 AND part < 0 ORDER BY part DESC"
                       : "SELECT DISTINCT part FROM property WHERE owner = ?1 AND part > 0 ORDER BY part");
    if (!rows) return failure();
    rows->bind(1, owner);
    int code;
    while ((code = rows->step()) == SQLITE_ROW) {
        parts.push_back(rows->integer(0));
    }
    return code == SQLITE_DONE ? S_OK : failure();
}

HRESULT MailStore::read_blob(const Value& value, ULONGLONG at, std::span<BYTE> bytes, std::size_t& got) {
    got = 0;
    while (got != bytes.size()) {
        const Use rows = use("SELECT bytes FROM chunk WHERE id = ?1");
        if (!rows) return failure();
        const ULONGLONG number = (at + got) / kChunkSize;
        rows->bind(1, value.blob << kChunkBits | static_cast<LONGLONG>(number));
        const int code = rows->step();
        if (code == SQLITE_DONE) return fail(MAPI_E_OBJECT_CHANGED);
        if (code != SQLITE_ROW) return failure();
        const Chunk chunk(rows->blob(0), chunk_size(value.blob_size, number));
        const auto skip = static_cast<std::size_t>((at + got) % kChunkSize);
        if (skip >= chunk.size()) return fail(MAPI_E_OBJECT_CHANGED);
        const std::size_t size = std::min(chunk.size() - skip, bytes.size() - got);
        chunk.copy(skip, bytes.subspan(got, size));
        got += size;
    }
    return S_OK;
}

HRESULT MailStore::logged(LONGLONG seq, int limit, std::vector<Change>& changes) {
    const Use rows =
        use("SELECT seq, kind, type, account, id, parent, old_account, old_id, old_parent, class, flags FROM change"
            " WHERE seq > ?1 ORDER BY seq LIMIT ?2");
    if (!rows) return failure();
    rows->bind(1, seq);
    rows->bind(2, limit);
    int code;
    while ((code = rows->step()) == SQLITE_ROW) {
        changes.push_back({rows->integer(0), static_cast<ChangeKind>(rows->integer(1)),
                           static_cast<ULONG>(rows->integer(2)), rows->integer(3), rows->integer(4), rows->integer(5),
                           rows->integer(6), rows->integer(7), rows->integer(8), std::u16string(as_text(rows->blob(9))),
                           static_cast<ULONG>(rows->integer(10))});
    }
    return code == SQLITE_DONE ? S_OK : failure();
}

EntryId MailStore::entry_of(ULONG type, LONGLONG account, LONGLONG number) const {
    const Account* const found = this->account(account);
    return {found != nullptr ? found->uid : AccountUid{}, type, number};
}

void MailStore::opened(bool another) {
    if (!another) return;
    ++generation_;
    forget();
}

DWORD MailStore::follow(LONGLONG position) {
    const Use rows = use("SELECT 1 FROM change WHERE seq > ?1 AND type <> 5 LIMIT 1");
    if (!rows) return shared_.reader().error();
    rows->bind(1, position);
    const int code = rows->step();
    if (code == SQLITE_ROW) accounts_known_ = false;
    return code == SQLITE_ROW || code == SQLITE_DONE ? ERROR_SUCCESS : shared_.reader().error();
}

void MailStore::forget() noexcept {
    accounts_known_ = false;
}

}  // namespace zr::platform::mapi
