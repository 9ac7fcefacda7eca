#include "transaction.h"

#include <sys/random.h>

#include <algorithm>
#include <cstring>

#include "platform/time.h"

namespace zr::platform::mapi {
namespace {

constexpr std::size_t kMostName = 255;
constexpr std::u16string_view kRoleNames[kRoles] = {u"",           u"",       u"Inbox",        u"Outbox",
                                                    u"Sent Items", u"Drafts", u"Deleted Items"};

HRESULT check_name(std::u16string_view name) {
    if (!name.empty() && name.size() <= kMostName) return S_OK;
    return fail(MAPI_E_BAD_VALUE, name.empty() ? "The name is empty." : "The name is too long.");
}

void bind_units(Use& statement, int index, std::u16string_view text) {
    statement->bind_units(index, text);
}

}  // namespace

LONGLONG now() {
    FILETIME time = {};
    GetSystemTimeAsFileTime(&time);
    return static_cast<LONGLONG>(static_cast<ULONGLONG>(time.dwHighDateTime) << 32 | time.dwLowDateTime);
}

HRESULT Transaction::begin(MailStore& store) {
    store_ = &store;
    accounts_changed_ = false;
    broken_ = false;
    return store_result(writing_.begin(store.shared()));
}

HRESULT Transaction::commit() {
    if (broken_) {
        rollback();
        return fail(E_ABORT, "A change of the batch failed; nothing of the batch was kept.");
    }
    // When nobody else wrote meanwhile, nobody has to read in the log what is known here.
    return store_result(writing_.commit([this] {
        if (accounts_changed_) store_->forget_accounts();
    }));
}

HRESULT Transaction::failure() {
    const DWORD error = writing_.connection().error();
    return fail(store_result(error), writing_.connection().sentence(kMailStore.name));
}

HRESULT Transaction::run(Use& statement) {
    return writing_.connection().run(statement) == ERROR_SUCCESS ? S_OK : failure();
}

HRESULT Transaction::checked(HRESULT result) {
    if (FAILED(result)) broken_ = true;
    return result;
}

LONGLONG Transaction::last_id() {
    return sqlite3_last_insert_rowid(writing_.connection().handle());
}

HRESULT Transaction::numbers(Use& rows, std::vector<LONGLONG>& numbers) {
    if (!rows) return failure();
    int code;
    while ((code = rows->step()) == SQLITE_ROW) {
        numbers.push_back(rows->integer(0));
    }
    return code == SQLITE_DONE ? S_OK : failure();
}

HRESULT Transaction::log(ChangeKind kind, ULONG type, LONGLONG account, LONGLONG id, LONGLONG parent,
                         LONGLONG old_account, LONGLONG old_id, LONGLONG old_parent, std::u16string_view message_class,
                         ULONG flags) {
    LONGLONG seq = 0;
    if (const DWORD error = writing_.next_seq(seq); error != ERROR_SUCCESS) return store_result(error);
    Use row = writing_.connection().use("INSERT INTO change VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12)");
    if (!row) return failure();
    row->bind(1, seq);
    row->bind(2, writing_.origin());
    row->bind(3, static_cast<LONG>(kind));
    row->bind(4, type);
    row->bind(5, account);
    row->bind(6, id);
    row->bind(7, parent);
    row->bind(8, old_account);
    row->bind(9, old_id);
    row->bind(10, old_parent);
    if (message_class.empty()) {
        row->bind_null(11);
    } else {
        row->bind_units(11, message_class);
    }
    row->bind(12, flags);
    if (type != MAPI_MESSAGE) accounts_changed_ = true;
    return run(row);
}

// --- accounts and folders ---

HRESULT Transaction::lacks_accounts(bool& lacks) {
    LONGLONG count = 0;
    if (writing_.connection().scalar("SELECT count(*) FROM account", count) != ERROR_SUCCESS) return failure();
    lacks = count == 0;
    return S_OK;
}

HRESULT Transaction::create_account(std::u16string_view name, LONGLONG& id) {
    if (const HRESULT result = check_name(name); FAILED(result)) return result;
    const std::u16string key = folded(name);
    {
        const Use rows = writing_.connection().use("SELECT 1 FROM account WHERE folded = ?1");
        if (!rows) return failure();
        rows->bind_units(1, key);
        const int code = rows->step();
        if (code == SQLITE_ROW) return fail(MAPI_E_COLLISION);
        if (code != SQLITE_DONE) return failure();
    }
    AccountUid uid{};
    if (getrandom(uid.data(), uid.size(), 0) != static_cast<ssize_t>(uid.size())) return fail(MAPI_E_CALL_FAILED);
    {
        Use row = writing_.connection().use("INSERT INTO account(uid, name, folded, created) VALUES(?1, ?2, ?3, ?4)");
        if (!row) return failure();
        row->bind_blob(1, uid.data(), uid.size());
        bind_units(row, 2, name);
        bind_units(row, 3, key);
        row->bind(4, now());
        if (const HRESULT result = checked(run(row)); FAILED(result)) return result;
    }
    id = last_id();
    LONGLONG top = 0;
    HRESULT result = log(ChangeKind::Created, MAPI_STORE, id, id, 0);
    if (SUCCEEDED(result)) result = folder_row(id, -id, Role::Top, name, top);
    for (int role = static_cast<int>(Role::Inbox); role < kRoles && SUCCEEDED(result); ++role) {
        LONGLONG folder = 0;
        result = folder_row(id, top, static_cast<Role>(role), kRoleNames[role], folder);
    }
    return checked(result);
}

HRESULT Transaction::folder_row(LONGLONG account, LONGLONG parent, Role role, std::u16string_view name, LONGLONG& id) {
    {
        Use row = writing_.connection().use(
            "INSERT INTO folder(account, parent, role, name, folded, created, modified)"
            " VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?6)");
        if (!row) return failure();
        const std::u16string key = folded(name);
        row->bind(1, account);
        row->bind(2, parent);
        row->bind(3, static_cast<LONG>(role));
        bind_units(row, 4, name);
        bind_units(row, 5, key);
        row->bind(6, now());
        if (const HRESULT result = run(row); FAILED(result)) return result;
    }
    id = last_id();
    return log(ChangeKind::Created, MAPI_FOLDER, account, id, std::max<LONGLONG>(parent, 0));
}

HRESULT Transaction::delete_account(LONGLONG id) {
    std::vector<LONGLONG> tops;
    {
        Use rows = writing_.connection().use("SELECT id FROM folder WHERE account = ?1 AND parent < 0");
        if (rows) rows->bind(1, id);
        if (const HRESULT result = numbers(rows, tops); FAILED(result)) return result;
    }
    if (tops.empty()) return fail(MAPI_E_NOT_FOUND);
    HRESULT result = S_OK;
    for (const LONGLONG top : tops) {
        FolderFacts facts;
        if (SUCCEEDED(result)) result = this->facts(top, facts);
        if (SUCCEEDED(result)) result = remove_folder(top, facts);
    }
    if (SUCCEEDED(result)) result = drop_values(owner_of(MAPI_STORE, id));
    if (SUCCEEDED(result)) {
        Use row = writing_.connection().use("DELETE FROM account WHERE id = ?1");
        if (row) row->bind(1, id);
        result = run(row);
    }
    if (SUCCEEDED(result)) result = log(ChangeKind::Deleted, MAPI_STORE, id, id, 0);
    return checked(result);
}

HRESULT Transaction::facts(LONGLONG folder, FolderFacts& facts) {
    const Use rows = writing_.connection().use("SELECT account, parent, role, name FROM folder WHERE id = ?1");
    if (!rows) return failure();
    rows->bind(1, folder);
    const int code = rows->step();
    if (code == SQLITE_DONE) return fail(MAPI_E_NOT_FOUND, "The folder was deleted.");
    if (code != SQLITE_ROW) return failure();
    facts.account = rows->integer(0);
    facts.parent = rows->integer(1);
    facts.role = static_cast<Role>(rows->integer(2));
    facts.name = as_text(rows->blob(3));
    return S_OK;
}

HRESULT Transaction::find_folder(LONGLONG parent, std::u16string_view name, LONGLONG& id) {
    const Use rows = writing_.connection().use("SELECT id FROM folder WHERE parent = ?1 AND folded = ?2");
    if (!rows) return failure();
    const std::u16string key = folded(name);
    rows->bind(1, parent);
    rows->bind_units(2, key);
    const int code = rows->step();
    id = code == SQLITE_ROW ? rows->integer(0) : 0;
    return code == SQLITE_ROW || code == SQLITE_DONE ? S_OK : failure();
}

HRESULT Transaction::create_folder(LONGLONG parent, std::u16string_view name, LONGLONG& id) {
    FolderFacts facts;
    LONGLONG present = 0;
    HRESULT result = check_name(name);
    if (SUCCEEDED(result)) result = this->facts(parent, facts);
    if (SUCCEEDED(result)) result = find_folder(parent, name, present);
    if (SUCCEEDED(result) && present != 0) result = fail(MAPI_E_COLLISION);
    return SUCCEEDED(result) ? checked(folder_row(facts.account, parent, Role::None, name, id)) : result;
}

HRESULT Transaction::folders_of(LONGLONG parent, std::vector<LONGLONG>& folders) {
    Use rows = writing_.connection().use("SELECT id FROM folder WHERE parent = ?1 ORDER BY id");
    if (rows) rows->bind(1, parent);
    return numbers(rows, folders);
}

// The folder and all below it, each behind the one it is in.
HRESULT Transaction::subtree(LONGLONG folder, std::vector<LONGLONG>& folders) {
    folders.push_back(folder);
    for (std::size_t i = 0; i < folders.size(); ++i) {
        if (const HRESULT result = folders_of(folders[i], folders); FAILED(result)) return result;
    }
    return S_OK;
}

HRESULT Transaction::messages_of(LONGLONG folder, std::vector<LONGLONG>& messages) {
    Use rows = writing_.connection().use("SELECT id FROM message WHERE folder = ?1 ORDER BY id");
    if (rows) rows->bind(1, folder);
    return numbers(rows, messages);
}

// Whether a folder can be put into that one; gives it the name that it has when no other was asked for.
HRESULT Transaction::check_target(LONGLONG id, LONGLONG parent, std::u16string_view& name, bool move) {
    LONGLONG present = 0;
    HRESULT result = check_name(name);
    for (LONGLONG above = parent; SUCCEEDED(result) && above > 0;) {
        if (above == id) return fail(MAPI_E_FOLDER_CYCLE);
        FolderFacts facts;
        result = this->facts(above, facts);
        above = facts.parent;
    }
    if (SUCCEEDED(result)) result = find_folder(parent, name, present);
    if (SUCCEEDED(result) && present != 0 && !(move && present == id)) result = fail(MAPI_E_COLLISION);
    return result;
}

HRESULT Transaction::move_folder(LONGLONG id, LONGLONG parent, std::u16string_view name) {
    FolderFacts from;
    FolderFacts to;
    HRESULT result = facts(id, from);
    if (SUCCEEDED(result)) result = facts(parent, to);
    if (FAILED(result)) return result;
    if (from.role != Role::None) return fail(MAPI_E_NO_ACCESS, "The folder is one of the store's own.");
    if (name.empty()) name = from.name;
    std::vector<LONGLONG> folders;
    result = check_target(id, parent, name, true);
    if (SUCCEEDED(result)) result = subtree(id, folders);
    if (FAILED(result)) return result;
    {
        Use row = writing_.connection().use(
            "UPDATE folder SET parent = ?2, name = ?3, folded = ?4, modified = ?5 WHERE id = ?1");
        if (!row) return failure();
        const std::u16string key = folded(name);
        row->bind(1, id);
        row->bind(2, parent);
        bind_units(row, 3, name);
        bind_units(row, 4, key);
        row->bind(5, now());
        if (result = checked(run(row)); FAILED(result)) return result;
    }
    for (const LONGLONG folder : folders) {
        if (from.account == to.account || FAILED(result)) break;
        Use row = writing_.connection().use("UPDATE folder SET account = ?2 WHERE id = ?1");
        if (row) row->bind(1, folder);
        if (row) row->bind(2, to.account);
        result = run(row);
    }
    if (SUCCEEDED(result))
        result = log(ChangeKind::Moved, MAPI_FOLDER, to.account, id, parent, from.account, id,
                     std::max<LONGLONG>(from.parent, 0));
    return checked(result);
}

HRESULT Transaction::copy_folder(LONGLONG id, LONGLONG parent, std::u16string_view name, bool deep) {
    FolderFacts from;
    FolderFacts to;
    HRESULT result = facts(id, from);
    if (SUCCEEDED(result)) result = facts(parent, to);
    if (FAILED(result)) return result;
    if (name.empty()) name = from.name;
    result = check_target(id, parent, name, false);
    if (FAILED(result)) return result;
    struct Step {
        LONGLONG from;
        LONGLONG to;
        std::u16string name;
    };
    std::vector<Step> steps{{id, parent, std::u16string(name)}};
    while (!steps.empty() && SUCCEEDED(result)) {
        const Step step = std::move(steps.back());
        steps.pop_back();
        LONGLONG copy = 0;
        result = folder_row(to.account, step.to, Role::None, step.name, copy);
        if (SUCCEEDED(result)) result = copy_values(owner_of(MAPI_FOLDER, step.from), owner_of(MAPI_FOLDER, copy));
        if (SUCCEEDED(result)) result = copy_messages_of(step.from, copy);
        if (SUCCEEDED(result) && step.from == id)
            result = log(ChangeKind::Copied, MAPI_FOLDER, to.account, copy, parent, from.account, id,
                         std::max<LONGLONG>(from.parent, 0));
        std::vector<LONGLONG> below;
        if (SUCCEEDED(result) && deep) result = folders_of(step.from, below);
        for (const LONGLONG each : below) {
            FolderFacts facts;
            if (SUCCEEDED(result)) result = this->facts(each, facts);
            steps.push_back({each, copy, facts.name});
        }
    }
    return checked(result);
}

HRESULT Transaction::copy_messages_of(LONGLONG from, LONGLONG to) {
    std::vector<LONGLONG> messages;
    bool missed = false;
    const HRESULT result = messages_of(from, messages);
    return SUCCEEDED(result) ? copy_messages(from, messages, to, missed) : result;
}

HRESULT Transaction::delete_folder(LONGLONG id, bool messages, bool folders) {
    FolderFacts facts;
    HRESULT result = this->facts(id, facts);
    if (FAILED(result)) return result;
    if (facts.role != Role::None) return fail(MAPI_E_NO_ACCESS, "The folder is one of the store's own.");
    std::vector<LONGLONG> inside;
    if (!messages) result = messages_of(id, inside);
    if (SUCCEEDED(result) && !inside.empty()) return fail(MAPI_E_HAS_MESSAGES);
    if (SUCCEEDED(result) && !folders) result = folders_of(id, inside);
    if (SUCCEEDED(result) && !inside.empty()) return fail(MAPI_E_HAS_FOLDERS);
    return SUCCEEDED(result) ? checked(remove_folder(id, facts)) : result;
}

// With all that is in it and below it.
HRESULT Transaction::remove_folder(LONGLONG id, const FolderFacts& facts) {
    std::vector<LONGLONG> folders;
    HRESULT result = subtree(id, folders);
    for (auto folder = folders.rbegin(); folder != folders.rend() && SUCCEEDED(result); ++folder) {
        FolderFacts own;
        std::vector<LONGLONG> messages;
        bool missed = false;
        result = this->facts(*folder, own);
        if (SUCCEEDED(result)) result = messages_of(*folder, messages);
        if (SUCCEEDED(result)) result = delete_messages(*folder, messages, missed);
        if (SUCCEEDED(result)) result = drop_values(owner_of(MAPI_FOLDER, *folder));
        if (SUCCEEDED(result)) {
            Use row = writing_.connection().use("DELETE FROM folder WHERE id = ?1");
            if (row) row->bind(1, *folder);
            result = run(row);
        }
        if (SUCCEEDED(result))
            result = log(ChangeKind::Deleted, MAPI_FOLDER, facts.account, *folder, std::max<LONGLONG>(own.parent, 0));
    }
    return result;
}

HRESULT Transaction::edit_folder(LONGLONG id, const Edit& edit, const Value* name) {
    FolderFacts facts;
    HRESULT result = this->facts(id, facts);
    if (FAILED(result)) return result;
    std::u16string_view text = facts.name;
    if (name != nullptr) {
        text = as_text(name->bytes);
        LONGLONG present = 0;
        result = check_name(text);
        if (SUCCEEDED(result)) result = find_folder(facts.parent, text, present);
        if (SUCCEEDED(result) && present != 0 && present != id) result = fail(MAPI_E_COLLISION);
        if (FAILED(result)) return result;
    }
    {
        Use row = writing_.connection().use("UPDATE folder SET name = ?2, folded = ?3, modified = ?4 WHERE id = ?1");
        if (!row) return failure();
        const std::u16string key = folded(text);
        row->bind(1, id);
        bind_units(row, 2, text);
        bind_units(row, 3, key);
        row->bind(4, now());
        result = run(row);
    }
    if (SUCCEEDED(result)) result = write_values(owner_of(MAPI_FOLDER, id), 0, edit);
    if (SUCCEEDED(result))
        result = log(ChangeKind::Modified, MAPI_FOLDER, facts.account, id, std::max<LONGLONG>(facts.parent, 0));
    return checked(result);
}

HRESULT Transaction::edit_account(LONGLONG id, const Edit& edit, const Value* name) {
    {
        const Use rows = writing_.connection().use("SELECT 1 FROM account WHERE id = ?1");
        if (!rows) return failure();
        rows->bind(1, id);
        const int code = rows->step();
        if (code == SQLITE_DONE) return fail(MAPI_E_NOT_FOUND);
        if (code != SQLITE_ROW) return failure();
    }
    HRESULT result = S_OK;
    if (name != nullptr) {
        const std::u16string_view text = as_text(name->bytes);
        const std::u16string key = folded(text);
        result = check_name(text);
        if (FAILED(result)) return result;
        {
            const Use rows = writing_.connection().use("SELECT 1 FROM account WHERE folded = ?1 AND id <> ?2");
            if (!rows) return failure();
            rows->bind_units(1, key);
            rows->bind(2, id);
            if (rows->step() == SQLITE_ROW) return fail(MAPI_E_COLLISION);
        }
        Use row = writing_.connection().use("UPDATE account SET name = ?2, folded = ?3 WHERE id = ?1");
        if (!row) return failure();
        row->bind(1, id);
        bind_units(row, 2, text);
        bind_units(row, 3, key);
        result = run(row);
    }
    if (SUCCEEDED(result)) result = write_values(owner_of(MAPI_STORE, id), 0, edit);
    if (SUCCEEDED(result)) result = log(ChangeKind::Modified, MAPI_STORE, id, id, 0);
    return checked(result);
}

}  // namespace zr::platform::mapi
