#pragma once

// A change of the stores, all of it or nothing.

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "store.h"

namespace zr::platform::mapi {

// What is to become of a set of properties.
struct Edit {
    Values set;
    std::vector<WORD> removed;
    bool empty() const { return set.empty() && removed.empty(); }
};

struct AttachmentEdit {
    bool deleted = false;
    Edit edit;
};

// A message with what is to be saved of it.
struct MessageEdit {
    Edit edit;                                       // without the columns
    std::map<Column, Value> columns;                 // PT_NULL: removed
    std::map<LONGLONG, AttachmentEdit> attachments;  // by their numbers
    bool replaces_recipients = false;
    std::vector<Values> recipients;
    LONGLONG next_attachment = 0;
};

class Transaction {
public:
    Transaction() = default;
    ~Transaction() { rollback(); }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    HRESULT begin(MailStore& store);
    bool is_open() const { return writing_.is_open(); }
    // Keeps everything and tells. On failure nothing is kept.
    HRESULT commit();
    void rollback() { writing_.roll_back(); }
    // A call failed behind its first write: nothing of the transaction can be kept.
    bool is_broken() const { return broken_; }

    HRESULT lacks_accounts(bool& lacks);
    HRESULT create_account(std::u16string_view name, LONGLONG& id);
    HRESULT delete_account(LONGLONG id);

    HRESULT create_folder(LONGLONG parent, std::u16string_view name, LONGLONG& id);
    // MAPI_E_COLLISION, MAPI_E_FOLDER_CYCLE, MAPI_E_NO_ACCESS, MAPI_E_NOT_FOUND.
    HRESULT move_folder(LONGLONG id, LONGLONG parent, std::u16string_view name);
    HRESULT copy_folder(LONGLONG id, LONGLONG parent, std::u16string_view name, bool deep);
    HRESULT delete_folder(LONGLONG id, bool messages, bool folders);
    HRESULT find_folder(LONGLONG parent, std::u16string_view name, LONGLONG& id);  // 0: there is none
    HRESULT edit_folder(LONGLONG id, const Edit& edit, const Value* name);
    HRESULT edit_account(LONGLONG id, const Edit& edit, const Value* name);

    // `id` 0: a new one. `version`: the one that is known; MAPI_E_OBJECT_CHANGED, MAPI_E_OBJECT_DELETED.
    HRESULT save_message(LONGLONG folder, MessageEdit& edit, LONGLONG& id, LONGLONG& version, bool force);
    // Of messages in the folder; *missed: some were not there.
    HRESULT move_messages(LONGLONG from, std::span<const LONGLONG> messages, LONGLONG to, bool& missed);
    HRESULT copy_messages(LONGLONG from, std::span<const LONGLONG> messages, LONGLONG to, bool& missed);
    HRESULT delete_messages(LONGLONG from, std::span<const LONGLONG> messages, bool& missed);
    // Of those messages, or all of the folder.
    HRESULT mark_read(LONGLONG folder, std::span<const LONGLONG> messages, bool all, bool read, bool& missed);

private:
    struct FolderFacts {
        LONGLONG account = 0;
        LONGLONG parent = 0;
        Role role = Role::None;
        std::u16string name;
    };

    // What is found of a message.
    struct Words {
        std::u16string subject;
        std::u16string addresses;
        std::string text;  // units
    };

    HRESULT failure();
    HRESULT run(Use& statement);
    HRESULT checked(HRESULT result);
    HRESULT log(ChangeKind kind, ULONG type, LONGLONG account, LONGLONG id, LONGLONG parent, LONGLONG old_account = 0,
                LONGLONG old_id = 0, LONGLONG old_parent = 0, std::u16string_view message_class = {}, ULONG flags = 0);
    LONGLONG last_id();
    HRESULT numbers(Use& rows, std::vector<LONGLONG>& numbers);

    HRESULT facts(LONGLONG folder, FolderFacts& facts);
    HRESULT folder_row(LONGLONG account, LONGLONG parent, Role role, std::u16string_view name, LONGLONG& id);
    HRESULT folders_of(LONGLONG parent, std::vector<LONGLONG>& folders);
    HRESULT subtree(LONGLONG folder, std::vector<LONGLONG>& folders);
    HRESULT messages_of(LONGLONG folder, std::vector<LONGLONG>& messages);
    HRESULT check_target(LONGLONG id, LONGLONG parent, std::u16string_view& name, bool move);
    HRESULT remove_folder(LONGLONG id, const FolderFacts& facts);
    HRESULT take_messages(LONGLONG from, std::span<const LONGLONG> messages, bool& missed,
                          std::vector<LONGLONG>& there);
    HRESULT copy_messages_of(LONGLONG from, LONGLONG to);

    HRESULT add_values(LONGLONG owner, LONGLONG part, const Values& values);
    HRESULT write_values(LONGLONG owner, LONGLONG part, const Edit& edit);
    HRESULT write_value(LONGLONG owner, LONGLONG part, WORD id, const Value& value);
    HRESULT drop_value(LONGLONG owner, LONGLONG part, WORD id);
    HRESULT drop_values(LONGLONG owner);
    HRESULT drop_part(LONGLONG owner, LONGLONG part);
    HRESULT drop_blobs(Use& rows);
    HRESULT drop_blobs(const std::vector<LONGLONG>& blobs);
    HRESULT write_blob(const Value& value, LONGLONG& blob);
    HRESULT copy_values(LONGLONG from, LONGLONG to);
    HRESULT copy_blob(LONGLONG from, LONGLONG& to);

    HRESULT insert_message(LONGLONG folder, MessageEdit& edit, LONGLONG& id, LONGLONG& version);
    HRESULT update_message(MessageEdit& edit, LONGLONG id, LONGLONG& version, bool force);
    static void bind_column(Use& row, int at, const Value& value);
    HRESULT write_columns(const MessageEdit& edit, LONGLONG id);
    HRESULT add_parts(const MessageEdit& edit, LONGLONG id);
    HRESULT write_parts(const MessageEdit& edit, LONGLONG id);
    HRESULT replace_recipients(const std::vector<Values>& recipients, LONGLONG owner);
    HRESULT settle(LONGLONG id);
    HRESULT index_words(LONGLONG id);
    HRESULT index_words_of(const MessageEdit& edit, LONGLONG id);
    HRESULT add_words(LONGLONG id, const Words& words);
    HRESULT drop_words(LONGLONG id);
    HRESULT text_of(LONGLONG id, std::string& text);
    HRESULT text_of(const Value& value, std::string& text);
    HRESULT read_chunks(LONGLONG blob, ULONGLONG size, std::string& text);
    HRESULT copy_message(LONGLONG id, LONGLONG to, LONGLONG& copy);
    HRESULT remove_message(LONGLONG id);

    MailStore* store_ = nullptr;
    StoreWriting writing_;
    bool accounts_changed_ = false;  // or folders
    bool broken_ = false;
};

LONGLONG now();

}  // namespace zr::platform::mapi
