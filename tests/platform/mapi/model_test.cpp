// Random calls of three processes on the folders and messages of two stores, with kills, forks and races in between,
// held against a plain map; and a watcher that must have been told of all of it. ZR_MODEL_STEPS says how many calls
// (250).

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <sstream>

#include "mail_support.h"
#include "platform/stores.h"
#include "platform/windowing.h"
#include "support/child.h"
#include "support/forked.h"
#include "support/instrumented.h"

namespace zr::test {
namespace {

constexpr int kMailActors = 3;
constexpr std::size_t kMostMessages = 40;
constexpr std::size_t kMostFolders = 14;
constexpr const char16_t* kOtherStore = u"Other";
constexpr const char16_t* kModelFolder = u"Model";

std::u16string widened(const std::string& text) {
    return {text.begin(), text.end()};
}
std::string narrowed(const std::u16string& text) {
    return {text.begin(), text.end()};
}

// What a message of that number holds: the body may be short or of several pieces, the attachment likewise.
std::string body_of(int number) {
    return std::to_string(number) + std::string(static_cast<std::size_t>(number * 37 % 3000), 'x');
}
std::string data_of(int number) {
    return std::to_string(number) + std::string(static_cast<std::size_t>(number * 7919 % 70000), 'y');
}

// --- the stores, as one of the processes uses them ---

HRESULT write_stream(IMAPIProp* object, ULONG tag, const std::string& bytes) {
    Ptr<IStream> stream;
    HRESULT result = object->OpenProperty(tag, &IID_IStream, 0, MAPI_CREATE | MAPI_MODIFY, stream.unknown());
    if (SUCCEEDED(result)) result = stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), nullptr);
    return SUCCEEDED(result) ? stream->Commit(0) : result;
}

std::string read_stream(IMAPIProp* object, ULONG tag) {
    Ptr<IStream> stream;
    if (object->OpenProperty(tag, &IID_IStream, 0, 0, stream.unknown()) != S_OK) return "none";
    std::string bytes(200000, 0);
    ULONG got = 0;
    if (FAILED(stream->Read(bytes.data(), static_cast<ULONG>(bytes.size()), &got))) return "none";
    bytes.resize(got);
    return bytes;
}

class MailUser {
public:
    MailUser() {
        open_other();
        for (const char* path : {"1", "2"}) {
            Ptr<IMAPIFolder> made;
            folder_of(path, true)
                ->CreateFolder(FOLDER_GENERIC, wide(kModelFolder), nullptr, nullptr, OPEN_IF_EXISTS, made.out());
        }
        Ptr<IMAPIFolder> folder = folder_of("1");
        gone_ = mail_.add(folder.get(), u"gone");
        EXPECT_EQ(folder->DeleteMessages(EntryList({gone_}), 0, nullptr, 0), S_OK);
    }

    std::string carry_out(const std::string& line) {
        std::istringstream words(line);
        std::vector<std::string> arguments;
        for (std::string word; words >> word;) {
            arguments.push_back(word);
        }
        arguments.resize(std::max<std::size_t>(arguments.size(), 6));
        return carry_out(arguments);
    }

private:
    static std::string told(HRESULT result) {
        if (result == S_OK) return "ok";
        if (result == MAPI_W_PARTIAL_COMPLETION) return "partial";
        char text[32];
        std::snprintf(text, sizeof text, "error %08X", static_cast<unsigned>(result));
        return text;
    }

    std::string carry_out(const std::vector<std::string>& words) {
        const std::string& what = words[0];
        if (what == "all") return all();
        Ptr<IMAPIFolder> folder = folder_of(words[1]);
        if (!folder) return "no folder " + words[1];
        if (what == "make") {
            Ptr<IMAPIFolder> made;
            return told(folder->CreateFolder(FOLDER_GENERIC, wide(widened(words[2])), nullptr, nullptr, 0, made.out()));
        }
        if (what == "name") return told(set(folder.get(), text_prop(PR_DISPLAY_NAME_W, widened(words[2]))));
        if (what == "put" || what == "copy") return put_folder(folder.get(), words);
        if (what == "remove") {
            const Bytes id = id_of(folder.get());
            return told(above(words[1])->DeleteFolder(size_of(id), entry(id), 0, nullptr,
                                                      static_cast<ULONG>(std::stoi(words[2]))));
        }
        if (what == "add") return told(add(folder.get(), std::stoi(words[2])));
        if (what == "import") return import(folder.get(), std::stoi(words[2]), std::stoi(words[3]));
        if (what == "edit") return told(edit(folder.get(), words[2], std::stoi(words[3])));
        if (what == "fork") return fork_and_add(words);
        return with_messages(folder.get(), words);
    }

    std::string put_folder(IMAPIFolder* folder, const std::vector<std::string>& words) {
        const std::u16string name = widened(words[3]);
        const Bytes id = id_of(folder);
        Ptr<IMAPIFolder> to = folder_of(words[2]);
        if (!to) return "no folder " + words[2];
        const auto flags = words[0] == "put" ? FOLDER_MOVE : static_cast<ULONG>(std::stoi(words[4]));
        return told(
            above(words[1])->CopyFolder(size_of(id), entry(id), nullptr, to.get(), wide(name), 0, nullptr, flags));
    }

    // move, duplicate, delete, mark: of the messages that are named, and of one that is gone.
    std::string with_messages(IMAPIFolder* folder, const std::vector<std::string>& words) {
        std::vector<Bytes> ids;
        std::istringstream names(words[2]);
        std::multiset<std::string> wanted;
        for (std::string name; std::getline(names, name, ',');) {
            wanted.insert(name);
        }
        visit(folder, [&](const std::string& name, const Bytes& id) {
            const auto found = wanted.find(name);
            if (found == wanted.end()) return;
            wanted.erase(found);
            ids.push_back(id);
        });
        if (!wanted.empty()) return "no message " + *wanted.begin();
        if (words[4] == "gone") ids.push_back(gone_);
        EntryList list(ids);
        if (words[0] == "delete") return told(folder->DeleteMessages(list, 0, nullptr, 0));
        if (words[0] == "mark")
            return told(folder->SetReadFlags(list, 0, nullptr, words[3] == "read" ? 0 : CLEAR_READ_FLAG));
        Ptr<IMAPIFolder> to = folder_of(words[3]);
        if (!to) return "no folder " + words[3];
        return told(folder->CopyMessages(list, nullptr, to.get(), 0, nullptr, words[0] == "move" ? MESSAGE_MOVE : 0));
    }

    static HRESULT fill(IMessage* message, int number, bool fresh) {
        const std::u16string text = widened(std::to_string(number));
        HRESULT result = set(message, text_prop(PR_SUBJECT_W, text));
        if (SUCCEEDED(result)) result = write_stream(message, PR_CE_MIME_TEXT, body_of(number));
        SPropValue values[] = {number_prop(PR_RECIPIENT_TYPE, MAPI_TO), text_prop(PR_EMAIL_ADDRESS_W, text)};
        ADRLIST recipients = {1, {{0, 2, values}}};
        if (SUCCEEDED(result)) result = message->ModifyRecipients(0, &recipients);
        Ptr<IAttach> attachment;
        ULONG index = 0;
        if (SUCCEEDED(result))
            result = fresh ? message->CreateAttach(nullptr, 0, &index, attachment.out())
                           : message->OpenAttach(0, nullptr, MAPI_MODIFY, attachment.out());
        if (SUCCEEDED(result)) result = write_stream(attachment.get(), PR_ATTACH_DATA_BIN, data_of(number));
        return SUCCEEDED(result) ? attachment->SaveChanges(0) : result;
    }
    static HRESULT add(IMAPIFolder* folder, int number) {
        Ptr<IMessage> message;
        HRESULT result = folder->CreateMessage(nullptr, 0, message.out());
        if (SUCCEEDED(result)) result = set(message.get(), number_prop(PR_MESSAGE_FLAGS, 0));
        if (SUCCEEDED(result)) result = fill(message.get(), number, true);
        return SUCCEEDED(result) ? message->SaveChanges(0) : result;
    }
    // All of them or none.
    std::string import(IMAPIFolder* folder, int first, int count) const {
        Ptr<IZrMail> extras = mail_.extras();
        HRESULT result = extras->BeginBatch();
        for (int number = first; number < first + count && SUCCEEDED(result); ++number) {
            result = add(folder, number);
        }
        return told(SUCCEEDED(result) ? extras->CommitBatch() : result);
    }
    HRESULT edit(IMAPIFolder* folder, const std::string& wanted, int number) {
        Bytes id;
        visit(folder, [&](const std::string& name, const Bytes& each) {
            if (name == wanted) id = each;
        });
        Ptr<IMessage> message = mail_.message(id);
        if (!message) return MAPI_E_NOT_FOUND;
        const HRESULT result = fill(message.get(), number, false);
        return SUCCEEDED(result) ? message->SaveChanges(0) : result;
    }
    // The child has the parent's session, and both work at once.
    std::string fork_and_add(const std::vector<std::string>& words) {
        Ptr<IMAPIFolder> theirs = folder_of(words[3]);
        const Forked child([&] { return add(theirs.get(), std::stoi(words[4])) == S_OK ? 0 : 1; });
        const std::string result = told(add(folder_of(words[1]).get(), std::stoi(words[2])));
        const int code = child.wait();
        return code == 0 ? result : "the child's " + std::to_string(code);
    }

    // --- looking ---

    template <class Visit>
    static void visit(IMAPIFolder* folder, const Visit& visit) {
        Ptr<IMAPITable> table;
        if (folder->GetContentsTable(0, table.out()) != S_OK) return;
        columns(table.get(), {PR_SUBJECT_W, PR_MESSAGE_FLAGS, PR_ENTRYID});
        for (;;) {
            const Rows rows(table.get(), 7);
            if (rows.size() == 0) return;
            for (ULONG i = 0; i < rows.size(); ++i) {
                const bool read = (rows.value(i, 1).Value.l & LONG{MSGFLAG_READ}) != 0;
                visit(narrowed(rows.text(i, 0)) + (read ? "r" : "u"), rows.bytes(i, 2));
            }
        }
    }

    // "1/a/b": below the folder "Model" of the first store.
    Ptr<IMAPIFolder> folder_of(const std::string& path, bool top = false) const {
        IMsgStore* const store = path[0] == '1' ? mail_.store.get() : other_.get();
        Ptr<IMAPIFolder> found = mail_.folder(Props(store, {PR_IPM_SUBTREE_ENTRYID}).bytes());
        if (top) return found;
        std::istringstream names(path);
        std::string name;
        std::getline(names, name, '/');
        found = below(found.get(), kModelFolder);
        while (found && std::getline(names, name, '/')) {
            found = below(found.get(), widened(name));
        }
        return found;
    }
    Ptr<IMAPIFolder> above(const std::string& path) const { return folder_of(path.substr(0, path.rfind('/'))); }
    Ptr<IMAPIFolder> below(IMAPIFolder* folder, const std::u16string& name) const {
        Ptr<IMAPITable> table;
        if (folder->GetHierarchyTable(0, table.out()) != S_OK) return {};
        columns(table.get(), {PR_DISPLAY_NAME_W, PR_ENTRYID});
        const Rows rows(table.get());
        for (ULONG i = 0; i < rows.size(); ++i) {
            if (rows.text(i, 0) == name) return mail_.folder(rows.bytes(i, 1));
        }
        return {};
    }

    std::string all() {
        std::map<std::string, std::multiset<std::string>> found;
        for (const char* path : {"1", "2"}) {
            Ptr<IMAPIFolder> folder = folder_of(path);
            collect(folder.get(), path, found);
        }
        std::string text;
        for (const auto& [path, messages] : found) {
            text += path + '=';
            for (const std::string& message : messages) {
                text += message + ',';
            }
            text += ';';
        }
        return text;
    }
    void collect(IMAPIFolder* folder, const std::string& path,
                 std::map<std::string, std::multiset<std::string>>& found) {
        std::multiset<std::string>& messages = found[path];
        visit(folder, [&](const std::string& name, const Bytes& id) {
            messages.insert(is_whole(id, std::stoi(name)) ? name : name + "?");
        });
        Ptr<IMAPITable> table;
        if (folder->GetHierarchyTable(0, table.out()) != S_OK) return;
        columns(table.get(), {PR_DISPLAY_NAME_W, PR_ENTRYID});
        const Rows rows(table.get());
        for (ULONG i = 0; i < rows.size(); ++i) {
            Ptr<IMAPIFolder> next = mail_.folder(rows.bytes(i, 1));
            collect(next.get(), path + '/' + narrowed(rows.text(i, 0)), found);
        }
    }
    bool is_whole(const Bytes& id, int number) const {
        Ptr<IMessage> message = mail_.message(id, 0);
        if (!message || read_stream(message.get(), PR_CE_MIME_TEXT) != body_of(number)) return false;
        Ptr<IMAPITable> recipients;
        if (message->GetRecipientTable(0, recipients.out()) != S_OK) return false;
        columns(recipients.get(), {PR_EMAIL_ADDRESS_W});
        const Rows rows(recipients.get());
        if (rows.size() != 1 || rows.text(0, 0) != widened(std::to_string(number))) return false;
        Ptr<IAttach> attachment;
        return message->OpenAttach(0, nullptr, 0, attachment.out()) == S_OK &&
               read_stream(attachment.get(), PR_ATTACH_DATA_BIN) == data_of(number);
    }

    void open_other() {
        Ptr<ICEMAPISession> session;
        if (mail_.session->QueryInterface(IID_ICEMAPISession, session.any()) != S_OK) return;
        if (session->CreateMsgStore(kOtherStore, other_.out()) == S_OK) return;
        Ptr<IMAPITable> stores;
        if (session->GetMsgStoresTable(0, stores.out()) != S_OK) return;
        columns(stores.get(), {PR_DISPLAY_NAME_W, PR_ENTRYID});
        const Rows rows(stores.get());
        for (ULONG i = 0; i < rows.size(); ++i) {
            if (rows.text(i, 0) != kOtherStore) continue;
            const Bytes id = rows.bytes(i, 1);
            session->OpenMsgStore(0, size_of(id), entry(id), nullptr, MAPI_BEST_ACCESS, other_.out());
        }
    }

    Mail mail_;
    Ptr<IMsgStore> other_;
    Bytes gone_;
};

ZR_CHILD(mail_user) {
    MailUser user;
    say("ready");
    for (std::string line = hear(); !line.empty(); line = hear()) {
        say(user.carry_out(line));
    }
    return 0;
}

// --- the model ---

std::string error_text(HRESULT result) {
    char text[32];
    std::snprintf(text, sizeof text, "error %08X", static_cast<unsigned>(result));
    return text;
}

bool is_inside(const std::string& path, const std::string& above) {
    return path == above || path.starts_with(above + '/');
}
bool is_same_name(const std::string& a, const std::string& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](unsigned char x, unsigned char y) { return std::tolower(x) == std::tolower(y); });
}

class MailModel {
public:
    using Messages = std::multiset<std::string>;

    std::string text() const {
        std::string text;
        for (const auto& [path, messages] : folders_) {
            text += path + '=';
            for (const std::string& message : messages) {
                text += message + ',';
            }
            text += ';';
        }
        return text;
    }
    static MailModel read(const std::string& text) {
        MailModel model;
        model.folders_.clear();
        std::istringstream folders(text);
        for (std::string folder; std::getline(folders, folder, ';');) {
            const std::size_t equals = folder.find('=');
            std::istringstream names(folder.substr(equals + 1));
            Messages& messages = model.folders_[folder.substr(0, equals)];
            for (std::string name; std::getline(names, name, ',');) {
                messages.insert(name);
            }
        }
        return model;
    }

    const std::map<std::string, Messages>& folders() const { return folders_; }
    Messages& at(const std::string& path) { return folders_[path]; }
    std::size_t messages() const {
        std::size_t count = 0;
        for (const auto& [path, messages] : folders_) {
            count += messages.size();
        }
        return count;
    }

    // Each says what the call is to say, and does it.
    std::string make(const std::string& path, const std::string& name) {
        if (!named_in(path, name).empty()) return error_text(MAPI_E_COLLISION);
        folders_[path + '/' + name];
        return "ok";
    }
    std::string rename(const std::string& path, const std::string& name) {
        const std::string above = path.substr(0, path.rfind('/'));
        const std::string present = named_in(above, name);
        if (!present.empty() && present != path) return error_text(MAPI_E_COLLISION);
        carry(path, above + '/' + name, true, true);
        return "ok";
    }
    std::string put(const std::string& path, const std::string& to, const std::string& name) {
        if (is_inside(to, path)) return error_text(MAPI_E_FOLDER_CYCLE);
        const std::string present = named_in(to, name);
        if (!present.empty() && present != path) return error_text(MAPI_E_COLLISION);
        carry(path, to + '/' + name, true, true);
        return "ok";
    }
    std::string copy(const std::string& path, const std::string& to, const std::string& name, bool deep) {
        if (is_inside(to, path)) return error_text(MAPI_E_FOLDER_CYCLE);
        if (!named_in(to, name).empty()) return error_text(MAPI_E_COLLISION);
        carry(path, to + '/' + name, deep, false);
        return "ok";
    }
    std::string remove(const std::string& path, ULONG flags) {
        if ((flags & DEL_MESSAGES) == 0 && !folders_[path].empty()) return error_text(MAPI_E_HAS_MESSAGES);
        const bool any = std::any_of(folders_.begin(), folders_.end(), [&](const auto& each) {
            return each.first != path && is_inside(each.first, path);
        });
        if ((flags & DEL_FOLDERS) == 0 && any) return error_text(MAPI_E_HAS_FOLDERS);
        std::erase_if(folders_, [&](const auto& each) { return is_inside(each.first, path); });
        return "ok";
    }

private:
    // The folder of that name, whatever its case.
    std::string named_in(const std::string& above, const std::string& name) const {
        for (const auto& [path, messages] : folders_) {
            const std::size_t slash = path.rfind('/');
            if (slash == above.size() && path.starts_with(above) && is_same_name(path.substr(slash + 1), name))
                return path;
        }
        return "";
    }
    void carry(const std::string& from, const std::string& to, bool deep, bool move) {
        std::map<std::string, Messages> carried;
        for (const auto& [path, messages] : folders_) {
            if (deep ? is_inside(path, from) : path == from) carried[to + path.substr(from.size())] = messages;
        }
        if (move) std::erase_if(folders_, [&](const auto& each) { return is_inside(each.first, from); });
        folders_.merge(carried);
    }

    std::map<std::string, Messages> folders_ = {{"1", {}}, {"2", {}}};
};

// --- who is told of everything ---

// Keeps what it is told of one store: identifiers and the folders that they are in. Lives on its test's stack.
class Mirror final : public IMAPIAdviseSink {
public:
    using Listing = std::map<Bytes, Bytes>;

    Mirror(const Mail& mail, IMsgStore* store)
        : mail_(mail), store_(store), top_(Props(store, {PR_IPM_SUBTREE_ENTRYID}).bytes()), known_(there()) {
        constexpr ULONG kMask = fnevObjectCreated | fnevObjectDeleted | fnevObjectModified | fnevObjectMoved |
                                fnevObjectCopied | fnevNewMail;
        EXPECT_EQ(store->Advise(0, nullptr, kMask, this, &connection_), S_OK);
    }
    ~Mirror() { EXPECT_EQ(store_->Unadvise(connection_), S_OK); }
    Mirror(const Mirror&) = delete;
    Mirror& operator=(const Mirror&) = delete;

    HRESULT QueryInterface(REFIID, void** object) override {
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG AddRef() override { return 2; }
    ULONG Release() override { return 1; }
    ULONG OnNotify(ULONG count, LPNOTIFICATION list) override {
        for (ULONG i = 0; i < count; ++i) {
            if (list[i].ulEventType != fnevNewMail) take(list[i].ulEventType, list[i].info.obj);
        }
        return 0;
    }

    // Takes messages until it was told of a folder that is made last.
    void catch_up() {
        Ptr<IMAPIFolder> last;
        ASSERT_EQ(mail_.folder(top_)->CreateFolder(FOLDER_GENERIC, wide(u"Last"), nullptr, nullptr, 0, last.out()),
                  S_OK);
        const Bytes id = id_of(last.get());
        MSG message = {};
        while (!known_.contains(id) && GetMessageW(&message, nullptr, 0, 0)) {
            DispatchMessageW(&message);
        }
    }
    const Listing& known() const { return known_; }
    int told() const { return told_; }
    // What it should know.
    Listing there() const {
        Listing listing;
        Ptr<IMAPITable> folders;
        EXPECT_EQ(mail_.folder(top_)->GetHierarchyTable(CONVENIENT_DEPTH, folders.out()), S_OK);
        EXPECT_EQ(columns(folders.get(), {PR_ENTRYID, PR_PARENT_ENTRYID}), S_OK);
        const Rows rows(folders.get());
        for (ULONG i = 0; i < rows.size(); ++i) {
            const Bytes folder = rows.bytes(i, 0);
            listing[folder] = rows.bytes(i, 1);
            Ptr<IMAPITable> contents;
            EXPECT_EQ(mail_.folder(folder)->GetContentsTable(0, contents.out()), S_OK);
            EXPECT_EQ(columns(contents.get(), {PR_ENTRYID}), S_OK);
            const Rows messages(contents.get());
            for (ULONG k = 0; k < messages.size(); ++k) {
                listing[messages.bytes(k, 0)] = folder;
            }
        }
        return listing;
    }

private:
    bool is_mine(const Bytes& folder) const { return folder == top_ || known_.contains(folder); }

    void take(ULONG kind, const OBJECT_NOTIFICATION& notice) {
        const auto bytes = [](ULONG size, const ENTRYID* id) { return Bytes(reinterpret_cast<const char*>(id), size); };
        const Bytes id = bytes(notice.cbEntryID, notice.lpEntryID);
        const Bytes parent = bytes(notice.cbParentID, notice.lpParentID);
        const Bytes old_id = bytes(notice.cbOldID, notice.lpOldID);
        const Bytes old_parent = bytes(notice.cbOldParentID, notice.lpOldParentID);
        ++told_;
        switch (kind) {
            case fnevObjectCreated:
                EXPECT_FALSE(known_.contains(id)) << "an identifier was handed out twice";
                known_[id] = parent;
                break;
            case fnevObjectCopied:  // both stores are told
                EXPECT_TRUE(is_mine(parent) || is_mine(old_parent));
                if (is_mine(parent)) known_[id] = parent;
                break;
            case fnevObjectMoved:
                EXPECT_TRUE(is_mine(parent) || is_mine(old_parent));
                if (is_mine(old_parent)) {
                    EXPECT_EQ(known_[old_id], old_parent);
                    known_.erase(old_id);
                }
                if (is_mine(parent)) known_[id] = parent;
                break;
            case fnevObjectDeleted:
                EXPECT_EQ(known_[id], parent);
                known_.erase(id);
                break;
            default:
                EXPECT_TRUE(known_.contains(id)) << "a change of what is not there";
                break;
        }
    }

    const Mail& mail_;
    IMsgStore* const store_;
    const Bytes top_;
    Listing known_;
    int told_ = 0;
    ULONG connection_ = 0;
};

// --- the driver ---

class MailPlayers {
public:
    MailPlayers() {
        for (auto& user : users_) {
            begin(user);
        }
    }

    void step() {
        std::unique_ptr<Child>& user = users_[pick(kMailActors)];
        MailModel after = model_;
        std::string expected;
        const std::string line = random_call(after, expected);
        if (line.empty()) return;
        if (pick(10) == 0) {
            kill_in_the_middle(user, line, after);
            return;
        }
        EXPECT_EQ(ask(*user, line), expected) << line << '\n' << model_.text();
        model_ = after;
        EXPECT_EQ(ask(*users_[pick(kMailActors)], "all"), model_.text()) << line;
    }

    // Two of them move all messages of one folder at once, each into another one.
    void race() {
        const std::string from = any_folder();
        const std::string one = any_folder();
        const std::string two = any_folder();
        const auto messages = model_.at(from);
        if (messages.empty() || from == one || from == two || one == two) return;
        const std::string names = joined(messages);
        users_[0]->say("move " + from + ' ' + names + ' ' + one);
        users_[1]->say("move " + from + ' ' + names + ' ' + two);
        for (int i = 0; i < 2; ++i) {
            const std::string said = users_[i]->hear();
            // Who comes late finds them gone when he looks, or when he moves.
            EXPECT_TRUE(said == "ok" || said == "partial" || said.starts_with("no message")) << said;
        }
        MailModel found = MailModel::read(ask(*users_[2], "all"));
        EXPECT_TRUE(found.at(from).empty());
        auto arrived = found.at(one);
        arrived.insert(found.at(two).begin(), found.at(two).end());
        auto expected = model_.at(one);
        expected.insert(model_.at(two).begin(), model_.at(two).end());
        expected.insert(messages.begin(), messages.end());
        EXPECT_EQ(arrived, expected) << "each is in one of the two folders";
        model_ = found;
    }

    void compare_all() {
        for (auto& user : users_) {
            EXPECT_EQ(ask(*user, "all"), model_.text());
        }
    }

private:
    std::size_t pick(std::size_t count) { return random_() % count; }
    std::string any_folder(bool root = true) {
        std::vector<std::string> paths;
        for (const auto& [path, messages] : model_.folders()) {
            if (root || path.size() > 1) paths.push_back(path);
        }
        return paths.empty() ? "" : paths[pick(paths.size())];
    }
    std::string any_name() { return std::string(1, "abcAB"[pick(5)]); }
    std::string same_store(const std::string& path) {
        for (;;) {
            const std::string other = any_folder();
            if (other[0] == path[0]) return other;
        }
    }
    MailModel::Messages some_of(const MailModel::Messages& all) {
        MailModel::Messages some;
        for (const std::string& each : all) {
            if (pick(2) == 0) some.insert(each);
        }
        return some;
    }
    static std::string joined(const MailModel::Messages& messages) {
        std::string text;
        for (const std::string& each : messages) {
            text += (text.empty() ? "" : ",") + each;
        }
        return text;
    }
    static void take_out(MailModel::Messages& from, const MailModel::Messages& what) {
        for (const std::string& each : what) {
            from.erase(from.find(each));
        }
    }

    // A call that fits the model, which it changes; empty: none this time.
    std::string random_call(MailModel& after, std::string& expected) {
        const std::string path = any_folder();
        const bool crowded = after.messages() > kMostMessages || after.folders().size() > kMostFolders;
        switch (pick(crowded ? 4 : 13)) {
            case 0:
            case 1:
                return delete_messages(after, path, expected);
            case 2:
                return remove_folder(after, expected);
            case 3:
            case 4:
                return move_messages(after, path, expected);
            case 5:
                return mark_messages(after, path, expected);
            case 6:
                return make_folder(after, path, expected);
            case 7:
            case 8:
                return put_folder(after, expected);
            case 9:
                return edit_message(after, path, expected);
            case 10:
                return import_messages(after, path, expected);
            case 11:
                return fork_call(after, path, expected);
            default:
                after.at(path).insert(std::to_string(++number_) + 'u');
                expected = "ok";
                return "add " + path + ' ' + std::to_string(number_);
        }
    }
    // One more message that is not there: the others are treated nevertheless.
    std::string perhaps_gone(std::string& expected) {
        const bool gone = pick(4) == 0;
        expected = gone ? "partial" : "ok";
        return gone ? " gone" : "";
    }
    std::string make_folder(MailModel& after, const std::string& path, std::string& expected) {
        const std::string name = any_name();
        if (path.size() > 8) return "";
        expected = after.make(path, name);
        return "make " + path + ' ' + name;
    }
    std::string put_folder(MailModel& after, std::string& expected) {
        const std::string path = any_folder(false);
        if (path.empty()) return "";
        const std::string name = any_name();
        const std::string to = same_store(path);
        switch (pick(4)) {
            case 0:
                expected = after.rename(path, name);
                return "name " + path + ' ' + name;
            case 1:
            case 2:
                expected = after.put(path, to, name);
                return "put " + path + ' ' + to + ' ' + name;
            default: {
                const std::string anywhere = any_folder();
                const bool deep = pick(2) == 0;
                expected = after.copy(path, anywhere, name, deep);
                return "copy " + path + ' ' + anywhere + ' ' + name + ' ' + std::to_string(deep ? COPY_SUBFOLDERS : 0);
            }
        }
    }
    std::string remove_folder(MailModel& after, std::string& expected) {
        const std::string path = any_folder(false);
        const auto flags = static_cast<ULONG>((pick(3) != 0 ? DEL_MESSAGES : 0) | (pick(3) != 0 ? DEL_FOLDERS : 0));
        if (path.empty()) return "";
        expected = after.remove(path, flags);
        return "remove " + path + ' ' + std::to_string(flags);
    }
    std::string delete_messages(MailModel& after, const std::string& path, std::string& expected) {
        const auto some = some_of(after.at(path));
        if (some.empty()) return "";
        take_out(after.at(path), some);
        return "delete " + path + ' ' + joined(some) + " -" + perhaps_gone(expected);
    }
    std::string move_messages(MailModel& after, const std::string& path, std::string& expected) {
        const auto some = some_of(after.at(path));
        if (some.empty()) return "";
        const std::string to = any_folder();
        const bool copy = after.messages() < kMostMessages && pick(3) == 0;
        if (!copy) take_out(after.at(path), some);
        after.at(to).insert(some.begin(), some.end());
        return (copy ? "duplicate " : "move ") + path + ' ' + joined(some) + ' ' + to + perhaps_gone(expected);
    }
    std::string mark_messages(MailModel& after, const std::string& path, std::string& expected) {
        const auto some = some_of(after.at(path));
        if (some.empty()) return "";
        const bool read = pick(2) == 0;
        take_out(after.at(path), some);
        for (std::string each : some) {
            each.back() = read ? 'r' : 'u';
            after.at(path).insert(each);
        }
        return "mark " + path + ' ' + joined(some) + (read ? " read" : " unread") + perhaps_gone(expected);
    }
    std::string edit_message(MailModel& after, const std::string& path, std::string& expected) {
        if (after.at(path).empty()) return "";
        const std::string name = *after.at(path).begin();
        take_out(after.at(path), {name});
        after.at(path).insert(std::to_string(++number_) + name.back());
        expected = "ok";
        return "edit " + path + ' ' + name + ' ' + std::to_string(number_);
    }
    std::string import_messages(MailModel& after, const std::string& path, std::string& expected) {
        const int first = number_ + 1;
        const int count = 1 + static_cast<int>(pick(5));
        for (int i = 0; i < count; ++i) {
            after.at(path).insert(std::to_string(++number_) + 'u');
        }
        expected = "ok";
        return "import " + path + ' ' + std::to_string(first) + ' ' + std::to_string(count);
    }
    std::string fork_call(MailModel& after, const std::string& path, std::string& expected) {
        const std::string other = any_folder();
        after.at(path).insert(std::to_string(number_ + 1) + 'u');
        after.at(other).insert(std::to_string(number_ + 2) + 'u');
        number_ += 2;
        expected = "ok";
        return "fork " + path + ' ' + std::to_string(number_ - 1) + ' ' + other + ' ' + std::to_string(number_);
    }

    static void begin(std::unique_ptr<Child>& user) {
        user = std::make_unique<Child>("mail_user");
        ASSERT_EQ(user->hear(), "ready");
    }
    static std::string ask(Child& user, const std::string& line) {
        user.say(line);
        return user.hear();
    }

    // What it was doing is done or not, and nothing else.
    void kill_in_the_middle(std::unique_ptr<Child>& user, const std::string& line, const MailModel& after) {
        if (line.starts_with("fork")) return;  // the fork's child goes on
        user->say(line);
        for (std::size_t turns = pick(2000000); turns > 0; --turns) {
            asm volatile("");
        }
        user->kill(SIGKILL);
        user->wait();
        begin(user);
        const std::string found = ask(*users_[pick(kMailActors)], "all");
        EXPECT_TRUE(found == model_.text() || found == after.text()) << line << '\n' << found << '\n' << model_.text();
        if (found == after.text()) model_ = after;
    }

    std::mt19937 random_{20261122};
    std::unique_ptr<Child> users_[kMailActors];
    MailModel model_;
    int number_ = 0;
};

int steps_of_the_model() {
    return rounds_wanted("ZR_MODEL_STEPS", 250, 60);
}

Ptr<IMsgStore> other_store(const Mail& mail) {
    Ptr<ICEMAPISession> session;
    Ptr<IMsgStore> store;
    EXPECT_EQ(mail.session->QueryInterface(IID_ICEMAPISession, session.any()), S_OK);
    EXPECT_EQ(session->CreateMsgStore(kOtherStore, store.out()), S_OK);
    return store;
}

TEST(MapiModel, ThreeProcessesAreOneMapAndAWatcherIsToldOfAll) {
    std::filesystem::remove_all(sandbox_home());
    const Mail mail;
    {
        const Ptr<IMsgStore> other = other_store(mail);
        Mirror one(mail, mail.store.get());
        Mirror two(mail, other.get());
        {
            MailPlayers players;
            for (int i = 0; i < steps_of_the_model() && !testing::Test::HasFailure(); ++i) {
                players.step();
                if (i % 10 == 0) players.race();
            }
            players.compare_all();
        }
        for (Mirror* const mirror : {&one, &two}) {
            mirror->catch_up();
            EXPECT_EQ(mirror->known(), mirror->there());
            EXPECT_GT(mirror->told(), 10);
        }
    }
    EXPECT_EQ(ZrStoreCheck("mail"), static_cast<LONG>(ERROR_SUCCESS)) << ZrStoreLastErrorText();
}

}  // namespace
}  // namespace zr::test
