// What becomes of messages when programs are killed, disks are full, files are damaged and others move them, too.
// ZR_MAPI_KILLS is how often a writer is killed.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>

#include "mail_support.h"
#include "platform/stores.h"
#include "platform/windowing.h"
#include "support/child.h"
#include "support/failing_new.h"
#include "support/forked.h"
#include "support/instrumented.h"
#include "support/sql.h"

namespace zr::test {
namespace {

namespace fs = std::filesystem;

fs::path mail_path() {
    return sandbox_home() / "mail.db";
}

// All messages of the store's folders: their names, and how often each is somewhere.
std::map<int, int> all_messages(const Mail& mail, bool look_inside) {
    std::map<int, int> found;
    Ptr<IMAPITable> folders;
    EXPECT_EQ(mail.folder(PR_IPM_SUBTREE_ENTRYID)->GetHierarchyTable(CONVENIENT_DEPTH, folders.out()), S_OK);
    const Rows list(folders.get());
    for (ULONG i = 0; i < list.size(); ++i) {
        Ptr<IMAPITable> contents;
        EXPECT_EQ(mail.folder(list.bytes(i, 0))->GetContentsTable(0, contents.out()), S_OK);
        EXPECT_EQ(columns(contents.get(), {PR_SUBJECT_W, PR_ENTRYID}), S_OK);
        const Rows rows(contents.get());
        for (ULONG k = 0; k < rows.size(); ++k) {
            const std::u16string name = rows.text(k, 0);
            ++found[std::stoi(std::string(name.begin(), name.end()))];
            if (look_inside) {
                EXPECT_TRUE(is_whole(mail.message(rows.bytes(k, 1), 0).get()));
            }
        }
    }
    return found;
}

class MapiFaults : public testing::Test {
protected:
    void SetUp() override { fs::remove_all(sandbox_home()); }
};

// Adds several in one transaction, as an import does.
HRESULT import_originals(IZrMail* extras, IMAPIFolder* folder, int first, int count,
                         std::vector<std::pair<Bytes, int>>& added) {
    HRESULT result = extras->BeginBatch();
    for (int number = first; number < first + count && SUCCEEDED(result); ++number) {
        Bytes id;
        result = add_original(folder, number, id);
        added.emplace_back(id, number);
    }
    return SUCCEEDED(result) ? extras->CommitBatch() : result;
}

// Imports, adds, moves and deletes, and says what it has done, and what it is about to import ("?first count") or to
// delete.
ZR_CHILD(mapi_busy) {
    Mail mail;
    if (mail.open != S_OK) return 1;
    std::mt19937 random(static_cast<unsigned>(std::stoi(args[0])));
    Ptr<IMAPIFolder> folders[] = {mail.folder(), mail.folder(PR_IPM_SENTMAIL_ENTRYID),
                                  mail.folder(PR_IPM_WASTEBASKET_ENTRYID)};
    Ptr<IZrMail> extras = mail.extras();
    std::vector<std::pair<Bytes, int>> mine[3];
    int number = std::stoi(args[0]) * 1000;
    say("ready");
    for (int left = args.size() > 1 ? std::stoi(args[1]) : INT_MAX; left > 0; --left) {
        const auto from = random() % 3;
        const auto to = random() % 3;
        if (random() % 8 == 0) {
            const int count = 2 + static_cast<int>(random() % 4);
            say("?" + std::to_string(number + 1) + ' ' + std::to_string(count));
            if (import_originals(extras.get(), folders[from].get(), number + 1, count, mine[from]) != S_OK) return 5;
            for (const int end = number + count; number < end;) {
                say("+" + std::to_string(++number));
            }
        } else if (mine[from].empty() || random() % 3 == 0) {
            Bytes id;
            if (add_original(folders[from].get(), ++number, id) != S_OK) return 2;
            mine[from].emplace_back(id, number);
            say("+" + std::to_string(number));
        } else if (random() % 2 == 0) {
            std::vector<Bytes> ids;
            for (const auto& [id, name] : mine[from]) {
                ids.push_back(id);
            }
            if (folders[from]->CopyMessages(EntryList(ids), nullptr, folders[to].get(), 0, nullptr, MESSAGE_MOVE) !=
                S_OK)
                return 3;
            if (from != to) {
                mine[to].insert(mine[to].end(), mine[from].begin(), mine[from].end());
                mine[from].clear();
            }
        } else {
            say("-" + std::to_string(mine[from].back().second));
            if (folders[from]->DeleteMessages(EntryList({mine[from].back().first}), 0, nullptr, 0) != S_OK) return 4;
            mine[from].pop_back();
        }
    }
    return 0;
}

// What one of them has said.
class Heard {
public:
    struct Import {
        int first = 0;
        int count = 0;
    };

    void take(const std::string& line) {
        const int number = std::stoi(line.substr(1));
        if (line[0] == '?') {
            import_ = {number, std::stoi(line.substr(line.find(' ')))};
        } else if (line[0] == '+') {
            there_.insert(number);
            if (number == import_.first + import_.count - 1) import_ = {};
        } else {
            there_.erase(number);
        }
    }
    // It says no more.
    void end() {
        if (import_.count != 0) unsure_.push_back(import_);
        import_ = {};
    }
    const std::set<int>& there() const { return there_; }
    // Of these it did not say whether they were kept.
    const std::vector<Import>& unsure() const { return unsure_; }

private:
    std::set<int> there_;
    Import import_;
    std::vector<Import> unsure_;
};

void expect_kept(const Heard& heard, const std::map<int, int>& found) {
    for (const int number : heard.there()) {
        EXPECT_TRUE(found.contains(number)) << number << " was lost";
    }
    for (const auto& [number, times] : found) {
        EXPECT_EQ(times, 1) << number << " is in more than one folder";
    }
    for (const Heard::Import& each : heard.unsure()) {
        int kept = 0;
        for (int number = each.first; number < each.first + each.count; ++number) {
            kept += found.contains(number) ? 1 : 0;
        }
        EXPECT_TRUE(kept == 0 || kept == each.count) << "half an import, from " << each.first << " on";
    }
}

TEST_F(MapiFaults, KilledWritersLoseNothing) {
    const int kills = rounds_wanted("ZR_MAPI_KILLS", 20, 20);
    Heard heard;
    std::mt19937 random(7);
    for (int i = 1; i <= kills; ++i) {
        Child child("mapi_busy", {std::to_string(i)});
        ASSERT_EQ(child.hear(), "ready");
        int left = static_cast<int>(random() % 40);
        for (std::string line; !(line = child.hear()).empty();) {
            heard.take(line);
            if (left-- == 0) child.kill(SIGKILL);
        }
        heard.end();
        ASSERT_EQ(child.wait(), -SIGKILL);
        if (i % 100 != 0 && i != kills) continue;
        const Mail mail;
        ASSERT_EQ(mail.open, S_OK);
        const std::map<int, int> found = all_messages(mail, i == kills);
        expect_kept(heard, found);
        // The words of what is there, and of nothing else.
        Ptr<IMAPITable> words;
        ULONG count = 0;
        ASSERT_EQ(mail.extras()->Find(u"words", words.out()), S_OK);
        ASSERT_EQ(words->GetRowCount(0, &count), S_OK);
        EXPECT_EQ(count, found.size());
    }
    EXPECT_EQ(ZrStoreCheck("mail"), static_cast<LONG>(ERROR_SUCCESS)) << ZrStoreLastErrorText();
}

TEST_F(MapiFaults, ThreeProcessesAtWorkAgreeWithWhatTheySaid) {
    std::vector<std::unique_ptr<Child>> children;
    for (const char* first : {"1", "2", "3"}) {
        children.push_back(std::make_unique<Child>("mapi_busy", std::vector<std::string>{first, "150"}));
    }
    Heard heard;
    for (const auto& child : children) {
        ASSERT_EQ(child->hear(), "ready");
        for (std::string line; !(line = child->hear()).empty();) {
            heard.take(line);
        }
        EXPECT_EQ(child->wait(), 0);
    }
    const Mail mail;
    std::set<int> found;
    for (const auto& [number, times] : all_messages(mail, true)) {
        EXPECT_EQ(times, 1);
        found.insert(number);
    }
    EXPECT_EQ(found, heard.there());
}

constexpr int kLargeImport = 300;

// Of more than the pages that SQLite holds in memory: some are written before the commit, and again with it.
ZR_CHILD(mapi_large_import) {
    Mail mail;
    std::vector<std::pair<Bytes, int>> added;
    const HRESULT result = import_originals(mail.extras().get(), mail.folder().get(), 1, kLargeImport, added);
    say(result == S_OK ? "done" : "failed");
    hear();
    return 0;
}

TEST_F(MapiFaults, AnImportOfMoreThanTheCacheHoldsIsThereAfterAKill) {
    Child child("mapi_large_import");
    ASSERT_EQ(child.hear(), "done");
    child.kill(SIGKILL);
    ASSERT_EQ(child.wait(), -SIGKILL);
    {
        const Mail mail;
        ASSERT_EQ(mail.open, S_OK);
        EXPECT_EQ(all_messages(mail, true).size(), static_cast<std::size_t>(kLargeImport));
    }
    EXPECT_EQ(ZrStoreCheck("mail"), static_cast<LONG>(ERROR_SUCCESS)) << ZrStoreLastErrorText();
}

// Moves every message of the Inbox, one call each, and says how many it got.
ZR_CHILD(mapi_mover) {
    Mail mail;
    Ptr<IMAPIFolder> inbox = mail.folder();
    Ptr<IMAPIFolder> target = mail.folder(args[0] == "sent" ? PR_IPM_SENTMAIL_ENTRYID : PR_IPM_WASTEBASKET_ENTRYID);
    Ptr<IMAPITable> table;
    if (inbox->GetContentsTable(0, table.out()) != S_OK) return 1;
    const Rows rows(table.get());
    say("ready");
    hear();
    int moved = 0;
    for (ULONG i = 0; i < rows.size(); ++i) {
        const EntryList one({rows.bytes(i, 0)});
        const HRESULT result =
            inbox->CopyMessages(EntryList({rows.bytes(i, 0)}), nullptr, target.get(), 0, nullptr, MESSAGE_MOVE);
        if (result == S_OK) ++moved;
        if (result != S_OK && result != MAPI_W_PARTIAL_COMPLETION) return 2;
    }
    say(std::to_string(moved));
    return 0;
}

TEST_F(MapiFaults, TwoProcessesMoveEachMessageOnce) {
    constexpr int kMessages = 400;
    const Mail mail;
    Ptr<IZrMail> extras = mail.extras();
    Ptr<IMAPIFolder> inbox = mail.folder();
    ASSERT_EQ(extras->BeginBatch(), S_OK);
    for (int i = 0; i < kMessages; ++i) {
        mail.add(inbox.get(), name_of(i));
    }
    ASSERT_EQ(extras->CommitBatch(), S_OK);
    Child one("mapi_mover", {"sent"});
    Child two("mapi_mover", {"deleted"});
    ASSERT_EQ(one.hear(), "ready");
    ASSERT_EQ(two.hear(), "ready");
    one.say("go");
    two.say("go");
    const int sent = std::stoi(one.hear());
    const int deleted = std::stoi(two.hear());
    EXPECT_EQ(one.wait(), 0);
    EXPECT_EQ(two.wait(), 0);
    EXPECT_EQ(sent + deleted, kMessages);
    EXPECT_EQ(Props(mail.folder(PR_IPM_SENTMAIL_ENTRYID).get(), {PR_CONTENT_COUNT}).number(), sent);
    EXPECT_EQ(Props(mail.folder(PR_IPM_WASTEBASKET_ENTRYID).get(), {PR_CONTENT_COUNT}).number(), deleted);
    EXPECT_EQ(Props(inbox.get(), {PR_CONTENT_COUNT}).number(), 0);
}

// A file that may not grow is a disk that is full.
ZR_CHILD(mapi_full_disk) {
    signal(SIGXFSZ, SIG_IGN);
    Mail mail;
    Ptr<IMAPIFolder> inbox = mail.folder();
    Bytes id;
    if (add_original(inbox.get(), 1, id) != S_OK) return 10;
    const rlimit limit = {600000, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &limit);
    HRESULT result = S_OK;
    int number = 1;
    while (result == S_OK && number < 500) {
        result = add_original(inbox.get(), ++number, id);
    }
    if (result != MAPI_E_NOT_ENOUGH_DISK) return 11;
    const std::map<int, int> kept = all_messages(mail, true);
    if (kept.size() != static_cast<std::size_t>(number - 1)) return 12;
    // A long value that finds no room on its way in.
    Ptr<IMessage> message;
    Ptr<IStream> stream;
    if (inbox->CreateMessage(nullptr, 0, message.out()) != S_OK) return 13;
    if (message->OpenProperty(PR_CE_MIME_TEXT, &IID_IStream, 0, MAPI_CREATE | MAPI_MODIFY, stream.unknown()) != S_OK)
        return 14;
    const std::string piece(100000, 'x');
    HRESULT written = S_OK;
    for (int i = 0; i < 10 && written == S_OK; ++i) {
        written = stream->Write(piece.data(), static_cast<ULONG>(piece.size()), nullptr);
    }
    if (written != MAPI_E_NOT_ENOUGH_DISK) return 15;
    const rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &none);
    if (add_original(inbox.get(), number, id) != S_OK) return 16;
    return all_messages(mail, true).size() == static_cast<std::size_t>(number) ? 0 : 17;
}

TEST_F(MapiFaults, AFullDiskLosesNothing) {
    EXPECT_EQ(Child("mapi_full_disk").wait(), 0);
    EXPECT_EQ(ZrStoreCheck("mail"), static_cast<LONG>(ERROR_SUCCESS)) << ZrStoreLastErrorText();
}

TEST_F(MapiFaults, AStoreOfTheFirstVersionIsTakenOver) {
    Bytes id;
    {
        const Mail mail;
        id = mail.add(mail.folder().get(), u"read", MSGFLAG_READ);
        mail.add(mail.folder().get(), u"unread");
    }
    query(mail_path(),
          "DROP INDEX message_by_date;"
          "CREATE INDEX message_by_date ON message(folder, delivered);"
          "CREATE INDEX message_unread ON message(folder) WHERE flags & 1 = 0;"
          "PRAGMA user_version = 1");
    {
        const Mail mail;
        ASSERT_EQ(mail.open, S_OK);
        const Props counts(mail.folder().get(), {PR_CONTENT_COUNT, PR_CONTENT_UNREAD});
        EXPECT_EQ(counts.number(0), 2);
        EXPECT_EQ(counts.number(1), 1);
        EXPECT_EQ(Props(mail.message(id).get(), {PR_SUBJECT_W}).text(), u"read");
        EXPECT_THAT(subjects(mail.folder().get()), testing::ElementsAre(u"read", u"unread"));
    }
    EXPECT_EQ(query(mail_path(), "SELECT count(*) FROM sqlite_master WHERE name = 'message_unread'"), "0");
    EXPECT_EQ(query(mail_path(), "PRAGMA user_version"), "3");
    EXPECT_EQ(ZrStoreCheck("mail"), static_cast<LONG>(ERROR_SUCCESS)) << ZrStoreLastErrorText();
}

TEST_F(MapiFaults, LongTextsAreBroughtBackWhole) {
    const std::u16string narrow(40000, u'n');
    std::u16string wide = narrow;
    wide[20000] = u'\u0416';
    Bytes id;
    {
        const Mail mail;
        Ptr<IMessage> message;
        ASSERT_EQ(mail.folder()->CreateMessage(nullptr, 0, message.out()), S_OK);
        for (const auto& [tag, text] :
             {std::pair{PR_BODY_W, &narrow}, std::pair{PR_BODY_HTML_W, &std::as_const(wide)}}) {
            Ptr<IStream> stream;
            ASSERT_EQ(message->OpenProperty(tag, &IID_IStream, 0, MAPI_CREATE | MAPI_MODIFY, stream.unknown()), S_OK);
            ASSERT_EQ(stream->Write(text->data(), static_cast<ULONG>(text->size() * 2), nullptr), S_OK);
            ASSERT_EQ(stream->Commit(0), S_OK);
        }
        ASSERT_EQ(message->SaveChanges(0), S_OK);
    }
    const fs::path copy = sandbox() / "mail-copy.db";
    const fs::path back = sandbox() / "mail-back.db";
    fs::copy_file(mail_path(), copy);
    ULONGLONG items = 0;
    ASSERT_EQ(ZrStoreRecover(copy.c_str(), back.c_str(), &items), static_cast<LONG>(ERROR_SUCCESS))
        << ZrStoreLastErrorText();
    EXPECT_EQ(query(back, "SELECT count(*) FROM property WHERE blob IS NOT NULL"), "2");
    EXPECT_EQ(query(back, "SELECT sum(length(bytes)) FROM chunk"), std::to_string(40000 + 40000 + 16384));
    // A piece that is missing is noticed in either kind.
    query(copy, "DELETE FROM chunk WHERE id & 16777215 = 1");
    fs::remove(back);
    ASSERT_EQ(ZrStoreRecover(copy.c_str(), back.c_str(), &items), static_cast<LONG>(ERROR_SUCCESS));
    EXPECT_EQ(query(back, "SELECT count(*) FROM property WHERE blob IS NOT NULL"), "0");
    fs::remove(copy);
    fs::remove(back);
}

// Somewhere in the values, far behind the tables of accounts and folders.
void damage_the_middle() {
    std::fstream file(mail_path(), std::ios::in | std::ios::out | std::ios::binary);
    file.seekp(static_cast<std::streamoff>(fs::file_size(mail_path()) / 2 / 4096 * 4096));
    file << std::string(20000, '\xEE');
}

std::vector<fs::path> set_aside() {
    std::vector<fs::path> found;
    for (const auto& file : fs::directory_iterator(sandbox_home())) {
        const std::string name = file.path().filename();
        if (name.starts_with("mail.db.damaged-") && !name.ends_with("-wal")) found.push_back(file.path());
    }
    return found;
}

TEST_F(MapiFaults, ADamagedStoreIsSetAsideAndBroughtBack) {
    Bytes id;
    Bytes folder_id;
    {
        const Mail mail;
        Ptr<IMAPIFolder> folder = mail.fresh_folder(u"Kept");
        folder_id = id_of(folder.get());
        for (int i = 0; i < 200; ++i) {
            ASSERT_EQ(add_original(folder.get(), i, id), S_OK);
        }
    }
    damage_the_middle();
    EXPECT_EQ(ZrStoreCheck("mail"), static_cast<LONG>(ERROR_FILE_CORRUPT));
    ASSERT_EQ(set_aside().size(), 1u);
    {
        const Mail mail;
        ASSERT_EQ(mail.open, S_OK) << "a new store is there without set-up";
        EXPECT_FALSE(mail.message(id));
        EXPECT_EQ(mail.last, MAPI_E_NOT_FOUND);
    }
    const std::string back = sandbox() / "mail-back.db";
    ULONGLONG items = 0;
    ASSERT_EQ(ZrStoreRecover(set_aside()[0].c_str(), back.c_str(), &items), static_cast<LONG>(ERROR_SUCCESS))
        << ZrStoreLastErrorText();
    ASSERT_EQ(ZrStoreRestore(back.c_str()), static_cast<LONG>(ERROR_SUCCESS)) << ZrStoreLastErrorText();
    fs::remove(back);
    const Mail mail;
    ASSERT_EQ(mail.open, S_OK);
    Ptr<IMAPIFolder> folder = mail.folder(folder_id);
    ASSERT_TRUE(folder) << "identifiers are those from before";
    Ptr<IMAPITable> table;
    ASSERT_EQ(folder->GetContentsTable(0, table.out()), S_OK);
    ASSERT_EQ(columns(table.get(), {PR_SUBJECT_W, PR_ENTRYID}), S_OK);
    const Rows rows(table.get());
    EXPECT_GT(rows.size(), 100u);
    int whole = 0;
    for (ULONG i = 0; i < rows.size(); ++i) {
        Ptr<IMessage> message = mail.message(rows.bytes(i, 1), 0);
        ASSERT_TRUE(message);
        const Props original_size(message.get(), {PR_CE_MIME_TEXT});
        if (original_size.error(0) == MAPI_E_NOT_FOUND) continue;  // lost, and not guessed
        EXPECT_TRUE(is_whole(message.get()));
        ++whole;
    }
    EXPECT_GT(whole, 100);
    EXPECT_EQ(ZrStoreCheck("mail"), static_cast<LONG>(ERROR_SUCCESS)) << ZrStoreLastErrorText();
    Bytes fresh;
    EXPECT_EQ(add_original(folder.get(), 1000, fresh), S_OK);
}

// Lives on its test's stack.
class CriticalErrors final : public IMAPIAdviseSink {
public:
    HRESULT QueryInterface(REFIID, void** object) override {
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG AddRef() override { return 2; }
    ULONG Release() override { return 1; }
    ULONG OnNotify(ULONG notices, LPNOTIFICATION list) override {
        for (ULONG i = 0; i < notices; ++i) {
            EXPECT_EQ(list[i].ulEventType, fnevCriticalError);
            EXPECT_EQ(list[i].info.err.scode, MAPI_E_CORRUPT_DATA);
            ++count;
        }
        return 0;
    }
    int count = 0;
};

TEST_F(MapiFaults, OpenSessionsGoOnInTheNewStore) {
    {
        const Mail mail;
        Bytes id;
        for (int i = 0; i < 50; ++i) {
            ASSERT_EQ(add_original(mail.folder().get(), i, id), S_OK);
        }
    }
    damage_the_middle();
    CriticalErrors sink;
    const Mail mail;
    ASSERT_EQ(mail.open, S_OK) << "the front of the file is whole";
    Ptr<IMAPIFolder> old_inbox = mail.folder();
    ULONG connection = 0;
    ASSERT_EQ(mail.store->Advise(0, nullptr, fnevCriticalError, &sink, &connection), S_OK);
    EXPECT_EQ(ZrStoreCheck("mail"), static_cast<LONG>(ERROR_FILE_CORRUPT));
    EXPECT_TRUE(FAILED(Props(old_inbox.get(), {PR_DISPLAY_NAME_W}).result));
    EXPECT_EQ(Props(mail.store.get(), {PR_DISPLAY_NAME_W}).result, MAPI_E_OBJECT_DELETED);
    Ptr<IMsgStore> store;
    ASSERT_EQ(mail.session->OpenMsgStore(0, 0, nullptr, nullptr, MAPI_BEST_ACCESS, store.out()), S_OK);
    Ptr<IMAPIFolder> fresh = mail.folder(Props(store.get(), {PR_CE_IPM_INBOX_ENTRYID}).bytes());
    EXPECT_EQ(Props(fresh.get(), {PR_CONTENT_COUNT}).number(), 0);
    mail.add(fresh.get(), u"2");
    EXPECT_EQ(Props(fresh.get(), {PR_CONTENT_COUNT}).number(), 1);
    MSG message = {};
    while (sink.count == 0 && GetMessageW(&message, nullptr, 0, 0)) {
        DispatchMessageW(&message);
    }
    EXPECT_EQ(sink.count, 1) << "who asked is told that the store was set aside";
}

TEST_F(MapiFaults, AChildOfAForkAndItsParentWorkOn) {
    const Mail mail;
    Ptr<IMAPIFolder> inbox = mail.folder();
    const Bytes before = mail.add(inbox.get(), u"1");
    Ptr<IMessage> held = mail.message(before);
    Ptr<IMAPITable> walked;
    ASSERT_EQ(inbox->GetContentsTable(0, walked.out()), S_OK);
    const int child = in_fork([&] {
        if (Props(held.get(), {PR_SUBJECT_W}).text() != u"1") return 1;
        mail.add(inbox.get(), u"2");
        return Rows(walked.get()).size() == 2 ? 0 : 2;
    });
    EXPECT_EQ(child, 0);
    mail.add(inbox.get(), u"3");
    EXPECT_EQ(Rows(walked.get()).size(), 3u);
    Ptr<IZrMail> extras = mail.extras();
    ASSERT_EQ(extras->BeginBatch(), S_OK);
    mail.add(inbox.get(), u"4");
    EXPECT_EQ(in_fork([&] { return Props(held.get(), {PR_SUBJECT_W}).result == MAPI_E_BUSY ? 0 : 1; }), 0);
    ASSERT_EQ(extras->CommitBatch(), S_OK);
    EXPECT_EQ(Props(inbox.get(), {PR_CONTENT_COUNT}).number(), 4);
}

TEST_F(MapiFaults, ThreeHundredForksUnderLoad) {
    constexpr int kForks = 300 / kStride;
    const Mail mail;
    Ptr<IMAPIFolder> inbox = mail.folder();
    const Bytes first = mail.add(inbox.get(), u"first");
    Ptr<IMessage> held = mail.message(first);
    std::atomic<int> added{1};
    const auto adds = [&] {
        mail.add(inbox.get(), u"thread's");
        ++added;
    };
    const auto reads = [&] {
        const Mail own;
        ASSERT_EQ(own.open, S_OK);
        Ptr<IMAPIFolder> same = own.folder();
        EXPECT_GT(Props(same.get(), {PR_CONTENT_COUNT}).number(), 0);
        EXPECT_EQ(Props(own.message(first).get(), {PR_SUBJECT_W}).text(), u"first");
    };
    {
        const Load load({adds, reads});
        for (int i = 0; i < kForks; ++i) {
            ASSERT_EQ(in_fork([&] {
                          if (Props(held.get(), {PR_SUBJECT_W}).text() != u"first") return 1;
                          const Bytes id = mail.add(inbox.get(), u"child's");
                          if (Props(mail.message(id).get(), {PR_SUBJECT_W}).text() != u"child's") return 2;
                          return testing::Test::HasFailure() ? 3 : 0;
                      }),
                      0)
                << "fork " << i;
            mail.add(inbox.get(), u"parent's");
        }
    }
    EXPECT_EQ(Props(inbox.get(), {PR_CONTENT_COUNT}).number(), added + 2 * kForks);
}

// Every allocation of a message's way through the calls fails once.
TEST_F(MapiFaults, ShortMemoryIsAResult) {
    const Mail mail;
    Ptr<IMAPIFolder> inbox = mail.folder();
    Ptr<IMAPIFolder> other = mail.folder(PR_IPM_SENTMAIL_ENTRYID);
    const auto way = [&]() -> HRESULT {
        Ptr<IMessage> message;
        HRESULT result = inbox->CreateMessage(nullptr, 0, message.out());
        if (FAILED(result)) return result;
        result = set(message.get(), text_prop(PR_SUBJECT_W, u"short"));
        if (SUCCEEDED(result)) result = set(message.get(), text_prop(PR_COMMENT_W, u"a longer text that is allocated"));
        if (SUCCEEDED(result)) result = message->SaveChanges(0);
        if (FAILED(result)) return result;
        SPropTagArray tags = {1, {PR_ENTRYID}};
        ULONG count = 0;
        LPSPropValue id = nullptr;
        result = message->GetProps(&tags, 0, &count, &id);
        ENTRYLIST list = {1, id != nullptr ? &id->Value.bin : nullptr};
        if (SUCCEEDED(result)) result = inbox->CopyMessages(&list, nullptr, other.get(), 0, nullptr, MESSAGE_MOVE);
        if (SUCCEEDED(result)) result = other->DeleteMessages(&list, 0, nullptr, 0);
        MAPIFreeBuffer(id);
        Ptr<IMAPITable> table;
        if (SUCCEEDED(result)) result = inbox->GetContentsTable(0, table.out());
        LPSRowSet rows = nullptr;
        if (SUCCEEDED(result)) result = table->QueryRows(5, 0, &rows);
        FreeProws(rows);
        return result;
    };
    ASSERT_EQ(way(), S_OK);
    HRESULT result = E_FAIL;
    int most = 0;
    for (; most < 2000 && result != S_OK; ++most) {
        const FailingNew failing(most);
        result = way();
        if (result != S_OK) {
            ASSERT_EQ(result, MAPI_E_NOT_ENOUGH_MEMORY) << "at allocation " << most;
        }
    }
    EXPECT_EQ(result, S_OK);
    EXPECT_GT(most, 10);
    ASSERT_EQ(way(), S_OK);
    EXPECT_EQ(ZrStoreCheck("mail"), static_cast<LONG>(ERROR_SUCCESS)) << ZrStoreLastErrorText();
}

// Rows that a call could not hand out are those that the next one does.
TEST_F(MapiFaults, ATableThatMemoryWasTooShortForStandsWhereItStood) {
    const Mail mail;
    Ptr<IMAPIFolder> inbox = mail.folder();
    Ptr<IZrMail> extras = mail.extras();
    ASSERT_EQ(extras->BeginBatch(), S_OK);
    for (int i = 100; i < 300; ++i) {
        mail.add(inbox.get(), name_of(i));
    }
    ASSERT_EQ(extras->CommitBatch(), S_OK);
    for (const ULONG order : {PR_MESSAGE_DELIVERY_TIME, PR_SUBJECT_W}) {
        Ptr<IMAPITable> table;
        ASSERT_EQ(inbox->GetContentsTable(0, table.out()), S_OK);
        ASSERT_EQ(columns(table.get(), {PR_SUBJECT_W, PR_ENTRYID}), S_OK);
        SSortOrderSet sort = {1, 0, 0, {{order, TABLE_SORT_ASCEND}}};
        ASSERT_EQ(table->SortTable(&sort, 0), S_OK);
        HRESULT result = E_FAIL;
        for (int most = 0; most < 2000 && result != S_OK; ++most) {
            ASSERT_EQ(table->SeekRow(BOOKMARK_BEGINNING, 5, nullptr), S_OK);
            LPSRowSet rows = nullptr;
            {
                const FailingNew failing(most);
                result = table->QueryRows(150, 0, &rows);  // more than are read at once
            }
            FreeProws(rows);
            if (result != S_OK) {
                ASSERT_EQ(result, MAPI_E_NOT_ENOUGH_MEMORY);
            }
            EXPECT_EQ(Rows(table.get(), 1).text(0, 0), name_of(result == S_OK ? 255 : 105)) << "at allocation " << most;
        }
        EXPECT_EQ(result, S_OK);
    }
}

}  // namespace
}  // namespace zr::test
