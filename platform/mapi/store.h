#pragma once

// The message stores as one process sees them: one file with all accounts. Accounts and folders are kept in memory and
// read again when the change log names one; messages are read when they are asked for.

#include <algorithm>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "columns.h"
#include "entry_id.h"
#include "last_error.h"
#include "schema.h"
#include "store/shared_store.h"
#include "value.h"

namespace zr::platform::mapi {

class Notifier;

enum class ChangeKind : LONG { None = 0, Created = 1, Deleted = 2, Modified = 3, Moved = 4, Copied = 5, NewMail = 6 };

// A row of the log. `type` is MAPI's object type; an account's parent is 0.
struct Change {
    LONGLONG seq = 0;
    ChangeKind kind = ChangeKind::None;
    ULONG type = 0;
    LONGLONG account = 0;
    LONGLONG id = 0;
    LONGLONG parent = 0;
    LONGLONG old_account = 0;  // of what was moved or copied
    LONGLONG old_id = 0;
    LONGLONG old_parent = 0;
    std::u16string message_class;  // of new mail
    ULONG flags = 0;
};

struct Account {
    LONGLONG id = 0;
    AccountUid uid{};
    std::u16string name;
    LONGLONG created = 0;
    LONGLONG roles[kRoles] = {};  // the folders that have them
};
struct Folder {
    LONGLONG id = 0;
    LONGLONG account = 0;
    LONGLONG parent = 0;  // 0: the top
    Role role = Role::None;
    std::u16string name;
    LONGLONG created = 0;
    LONGLONG modified = 0;
};
struct MessageRow {
    MessageRow() = default;
    MessageRow(const MessageRow&) = delete;
    MessageRow& operator=(const MessageRow&) = delete;

    LONGLONG id = 0;
    LONGLONG folder = 0;
    LONGLONG version = 0;
    LONGLONG next_attachment = 0;
    bool present[kColumns] = {};
    LONGLONG numbers[kFirstText] = {};
    std::string_view texts[kColumns - kFirstText];
    std::string units;  // what the texts are parts of

    LONGLONG number(Column column) const { return numbers[index_of(column)]; }
    ColumnView view(Column column) const;
    void clear() {
        id = 0;
        std::fill(std::begin(present), std::end(present), false);
    }
};

class MailStore final : public StoreFamily {
public:
    // The store below the present ZR_HOME, with an account in it; each join is taken back with leave(). Stores stay.
    static HRESULT join(MailStore*& store);
    void leave();
    // Makes the default account where there is none: at first, and where a damaged store was set aside.
    HRESULT ensure_account();

    explicit MailStore(std::string path);
    ~MailStore();
    MailStore(const MailStore&) = delete;
    MailStore& operator=(const MailStore&) = delete;

    SharedStore& shared() { return shared_; }
    Notifier& notifier() { return *notifier_; }
    // Where its file lies; the folder of files that are made for a while.
    std::string folder_path() const { return shared_.path().substr(0, shared_.path().rfind('/')); }

    // --- reading; all of these with the lock held ---
    std::unique_lock<std::mutex> lock() { return shared_.lock(); }
    // Takes notice of every commit up to now.
    HRESULT refresh();
    LONGLONG seq() const { return shared_.position(); }
    // Counts the files that were the store.
    ULONG generation() const { return generation_; }
    HRESULT failure();
    Use use(const char* sql) { return shared_.reader().use(sql); }
    // A statement of a text that is put together.
    Use use_text(const std::string& sql) { return use(texts_.insert(sql).first->c_str()); }

    // Null when there is none (any more). After refresh().
    const std::map<LONGLONG, Account>& accounts() const { return accounts_; }
    const std::map<LONGLONG, Folder>& folders() const { return folders_; }
    const Account* account(LONGLONG id) const;
    const Account* account(const AccountUid& uid) const;
    const Account* default_account() const { return accounts_.empty() ? nullptr : &accounts_.begin()->second; }
    const Folder* folder(LONGLONG id) const;
    // A folder's own, or all below it, in order.
    void folders_below(LONGLONG id, bool deep, std::vector<LONGLONG>& folders) const;
    HRESULT message(LONGLONG id, MessageRow& row);  // MAPI_E_NOT_FOUND
    HRESULT count_messages(LONGLONG folder, bool unread, LONGLONG& count);
    HRESULT properties(LONGLONG owner, LONGLONG part, Values& values);
    HRESULT property(LONGLONG owner, LONGLONG part, WORD id, Value& value);  // type PT_NULL: none
    HRESULT parts(LONGLONG owner, bool recipients, std::vector<LONGLONG>& parts);
    // Bytes of a long value; MAPI_E_OBJECT_CHANGED when it is not there any more.
    HRESULT read_blob(const Value& value, ULONGLONG at, std::span<BYTE> bytes, std::size_t& got);
    HRESULT logged(LONGLONG seq, int limit, std::vector<Change>& changes);

    EntryId entry_of(ULONG type, LONGLONG account, LONGLONG number) const;
    // Accounts or folders were changed.
    void forget_accounts() noexcept { accounts_known_ = false; }

    void opened(bool another) override;
    DWORD follow(LONGLONG position) override;
    void forget() noexcept override;
    void failed(std::string_view sentence) noexcept override { fail(S_OK, sentence); }
    void was_set_aside(std::string_view sentence) noexcept override { fail(S_OK, sentence); }

private:
    friend class Forks;

    HRESULT read_accounts();

    SharedStore shared_;
    std::unique_ptr<Notifier> notifier_;
    int joined_ = 0;  // guarded by the list of all stores

    // Guarded by the reading lock.
    std::set<std::string> texts_;
    ULONG generation_ = 0;
    bool accounts_known_ = false;
    std::map<LONGLONG, Account> accounts_;
    std::map<LONGLONG, Folder> folders_;
};

Value read_stored(const Statement& row, int type, int value, int blob);

}  // namespace zr::platform::mapi
