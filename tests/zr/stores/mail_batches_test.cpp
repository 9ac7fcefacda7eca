#include "zr/stores/mail_batches.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

#include "support/sandbox.h"

namespace mail_batches_test {
namespace {

using zr::ComPtr;
using zr::MailBatches;

// A store of its own.
class Batches : public testing::Test {
protected:
    Batches() {
        const char* const home = std::getenv("ZR_HOME");
        before_ = home != nullptr ? home : "";
        setenv("ZR_HOME", (folder_.host() / "home").c_str(), 1);
        reading_.emplace();
        writing_.emplace();
    }
    ~Batches() override { setenv("ZR_HOME", before_.c_str(), 1); }

    ComPtr<IMessage> fresh(IMAPIFolder* folder, const std::string& subject) {
        ComPtr<IMessage> message;
        EXPECT_EQ(folder->CreateMessage(nullptr, 0, message.out()), S_OK);
        zr::MailChanges changes;
        changes.text(PR_SUBJECT_W, subject);
        changes.apply(message.get(), "a test");
        return message;
    }
    long there() {
        long count = 0;
        for (const zr::MailFolder& folder : reading_->folders()) {
            count += folder.messages;
        }
        return count;
    }

    zr::test::TempFolder folder_;
    std::string before_;
    std::optional<zr::MailSession> reading_;
    std::optional<zr::MailSession> writing_;
};

TEST_F(Batches, WhatWasAddedIsThereOnceItIsFinished) {
    const ComPtr<IMAPIFolder> inbox = writing_->folder_named("Inbox");
    MailBatches batches(*writing_);
    batches.finish();
    EXPECT_EQ(batches.kept(), 0);
    for (int round = 1; round <= 3; ++round) {
        for (int i = 0; i < 40; ++i) {
            batches.add(fresh(inbox.get(), std::to_string(i)), 1000);
        }
        EXPECT_EQ(batches.added(), round * 40);
        batches.finish();
        EXPECT_EQ(batches.kept(), round * 40);
        EXPECT_EQ(there(), round * 40);
        // No batch is open: others can write.
        reading_->folder_made("folder " + std::to_string(round));
    }
}

TEST_F(Batches, AFullBatchIsKeptByItself) {
    const ComPtr<IMAPIFolder> inbox = writing_->folder_named("Inbox");
    MailBatches batches(*writing_);
    batches.add(fresh(inbox.get(), "large"), MailBatches::kBatchBytes);
    batches.add(fresh(inbox.get(), "small"), 1);
    while (batches.kept() == 0) {
        std::this_thread::yield();
    }
    batches.finish();
    EXPECT_EQ(there(), 2);
}

// Nobody has to wait for one who has nothing to add for the time being.
TEST_F(Batches, AnOpenBatchIsKeptWhenItsTimeIsOver) {
    const ComPtr<IMAPIFolder> inbox = writing_->folder_named("Inbox");
    MailBatches batches(*writing_);
    batches.add(fresh(inbox.get(), "one"), 1);
    while (batches.kept() == 0) {
        std::this_thread::yield();
    }
    EXPECT_EQ(there(), 1);
    reading_->folder_made("another");
}

TEST_F(Batches, WhatIsKeptStaysAndNoBatchIsLeftOpen) {
    const ComPtr<IMAPIFolder> inbox = writing_->folder_named("Inbox");
    {
        MailBatches batches(*writing_);
        for (int i = 0; i < 8; ++i) {
            batches.add(fresh(inbox.get(), std::to_string(i)), 1);
            if (i == 4) batches.finish();
        }
    }
    EXPECT_GE(there(), 5);
    EXPECT_LE(there(), 8);
    reading_->folder_made("another");
}

TEST_F(Batches, AFailureIsToldToWhoAddsAndToWhoWaits) {
    const ComPtr<IMAPIFolder> gone = writing_->folder_made("gone");
    const zr::EntryBytes entry = zr::MailValues(gone.get(), {PR_ENTRYID}).bytes(PR_ENTRYID);
    const ComPtr<IMAPIFolder> inbox = writing_->folder_named("Inbox");
    ComPtr<IMessage> lost = fresh(gone.get(), "lost");
    {
        zr::EntryBytes copy = entry;
        const ComPtr<IMAPIFolder> top = reading_->special_folder(PR_IPM_SUBTREE_ENTRYID);
        ASSERT_EQ(top->DeleteFolder(zr::size_of(copy), zr::entry_of(copy), 0, nullptr, 0), S_OK);
    }
    MailBatches batches(*writing_);
    batches.add(std::move(lost), 1);
    EXPECT_THROW(batches.finish(), zr::Failure);
    EXPECT_THROW(batches.finish(), zr::Failure);
    EXPECT_THROW(batches.add(fresh(inbox.get(), "later"), 1), zr::Failure);
    EXPECT_EQ(batches.kept(), 0);
    EXPECT_EQ(there(), 0);
    reading_->folder_made("another");
}

}  // namespace
}  // namespace mail_batches_test
