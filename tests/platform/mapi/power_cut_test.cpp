// What a power cut leaves of the messages: a whole number of transactions from the front, as the last checkpoint knew
// them at least.

#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>

#include "mail_support.h"
#include "platform/stores.h"
#include "support/child.h"
#include "support/disk.h"
#include "support/sql.h"

namespace zr::test {
namespace {

namespace fs = std::filesystem;

#if defined(ZR_SANITIZE_ADDRESS) || defined(ZR_SANITIZE_THREAD)
constexpr int kTransactions = 500;
#else
constexpr int kTransactions = 1000;
#endif

// --- the transactions: each is one call, and what there is after so many of them is known ---

enum class Home { Inbox, Sent };

// Transaction number n adds message n, moves an earlier one or deletes an earlier one.
int moved_by(int n) {
    return n % 4 == 3 ? n - 2 : 0;
}
int deleted_by(int n) {
    return n % 4 == 0 && n >= 8 ? n - 6 : 0;
}

std::map<int, Home> state_after(int transactions) {
    std::map<int, Home> state;
    for (int n = 1; n <= transactions; ++n) {
        if (moved_by(n) != 0) {
            state[moved_by(n)] = Home::Sent;
        } else if (deleted_by(n) != 0) {
            state.erase(deleted_by(n));
        } else {
            state[n] = Home::Inbox;
        }
    }
    return state;
}

class Transactions {
public:
    HRESULT carry_out(int n) {
        if (moved_by(n) != 0)
            return inbox_->CopyMessages(EntryList({ids_[moved_by(n)]}), nullptr, sent_.get(), 0, nullptr, MESSAGE_MOVE);
        if (deleted_by(n) != 0) return inbox_->DeleteMessages(EntryList({ids_[deleted_by(n)]}), 0, nullptr, 0);
        return add_original(inbox_.get(), n, ids_[n]);
    }

private:
    const Mail mail_;
    const Ptr<IMAPIFolder> inbox_ = mail_.folder();
    const Ptr<IMAPIFolder> sent_ = mail_.folder(PR_IPM_SENTMAIL_ENTRYID);
    std::map<int, Bytes> ids_;
};

// False: something is not as it was.
bool collect(const Mail& mail, ULONG role, Home home, std::map<int, Home>& found) {
    Ptr<IMAPITable> table;
    if (mail.folder(role)->GetContentsTable(0, table.out()) != S_OK) return false;
    columns(table.get(), {PR_SUBJECT_W, PR_ENTRYID});
    const Rows rows(table.get());
    for (ULONG i = 0; i < rows.size(); ++i) {
        const std::u16string name = rows.text(i, 0);
        const int number = std::stoi(std::string(name.begin(), name.end()));
        if (found.contains(number) || !is_whole(mail.message(rows.bytes(i, 1), 0).get())) return false;
        found[number] = home;
    }
    return true;
}

bool is_any_set_aside(const fs::path& home) {
    for (const auto& file : fs::directory_iterator(home)) {
        if (file.path().string().find(".damaged-") != std::string::npos) return true;
    }
    return false;
}

ZR_CHILD(mail_after_the_cut) {
    setenv("ZR_HOME", args[0].c_str(), 1);
    ZrPretendLaterBoot();
    const int durable = std::stoi(args[1]);
    const int written = std::stoi(args[2]);
    const Mail mail;
    if (mail.open != S_OK) return 10;
    if (is_any_set_aside(args[0])) return 11;
    std::map<int, Home> found;
    if (!collect(mail, PR_CE_IPM_INBOX_ENTRYID, Home::Inbox, found)) return 12;
    if (!collect(mail, PR_IPM_SENTMAIL_ENTRYID, Home::Sent, found)) return 13;
    // Nothing that is of a later moment, nothing of an earlier one that is missing.
    int n = written;
    while (n >= durable && found != state_after(n)) {
        --n;
    }
    if (n < durable) return 14;
    Ptr<IZrMail> extras = mail.extras();
    Ptr<IMAPITable> words;
    ULONG count = 0;
    if (extras->Find(u"words", words.out()) != S_OK || words->GetRowCount(0, &count) != S_OK) return 15;
    if (count != found.size()) return 16;
    Bytes id;
    if (add_original(mail.folder().get(), written + 1, id) != S_OK) return 17;
    if (query(args[0] + "/mail.db", "PRAGMA integrity_check") != "ok") return 18;
    return ZrStoreCheck("mail") == static_cast<LONG>(ERROR_SUCCESS) ? 0 : 19;
}

ZR_CHILD(mail_until_the_cut) {
    Disk& disk = Disk::instance();
    disk.begin();
    const fs::path home = sandbox() / ("home" + args[0]);
    setenv("ZR_HOME", home.c_str(), 1);
    const std::string store = home / "mail.db";
    std::mt19937 random(static_cast<unsigned>(std::stoul(args[0])));
    Transactions transactions;
    const int syncs_at_first = disk.syncs(store);
    int syncs = syncs_at_first;
    int durable = 0;
    for (int n = 1; n <= kTransactions; ++n) {
        if (transactions.carry_out(n) != S_OK) return 101;
        // The store is synced by a checkpoint behind a transaction, and in front of one that begins a journal: what was
        // there before it is on the disk in any case.
        if (disk.syncs(store) != syncs) {
            syncs = disk.syncs(store);
            durable = n - 1;
        }
        if (random() % 80 != 0 && n != kTransactions) continue;
        const fs::path left = sandbox() / ("cut" + args[0] + "-" + std::to_string(n));
        disk.cut(store, left, random);
        Child next("mail_after_the_cut", {left, std::to_string(durable), std::to_string(n)});
        if (const int result = next.wait(); result != 0) return result;
        fs::remove_all(left);
    }
    return syncs > syncs_at_first ? 0 : 102;  // or else there was no checkpoint
}

TEST(MapiPowerCut, LeavesAWholeNumberOfTransactions) {
    for (const char* seed : {"1", "2"}) {
        Child child("mail_until_the_cut", {seed});
        EXPECT_EQ(child.wait(), 0) << "seed " << seed;
    }
}

}  // namespace
}  // namespace zr::test
