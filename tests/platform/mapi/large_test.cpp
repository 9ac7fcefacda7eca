// Large folders cost for each message what small ones do. ZR_MAPI_MESSAGES says how many messages the large one has
// (10,000).

#include <time.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <set>

#include "mail_support.h"
#include "support/instrumented.h"

namespace zr::test {
namespace {

ULONG messages_of_a_large_folder() {
    return static_cast<ULONG>(rounds_wanted("ZR_MAPI_MESSAGES", 10000, 3000));
}

// Of this thread: what else the computer does is not in it.
double processor_time() {
    timespec now = {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// What is done with a folder of so many messages; each step's time for one message.
class LargeFolder {
public:
    struct Step {
        const char* name;
        double time;
    };

    LargeFolder(const Mail& mail, ULONG count)
        : mail_(mail),
          count_(count),
          folder_(mail.fresh_folder(u"Large " + name_of(static_cast<int>(++made_)))),
          other_(mail.fresh_folder(u"Other " + name_of(static_cast<int>(made_)))) {}

    std::vector<Step> all_steps() {
        step("adding", [&] { add(); });
        step("walking", [&] { walk(nullptr); });
        SSortOrderSet order = {1, 0, 0, {{PR_MESSAGE_DELIVERY_TIME, TABLE_SORT_DESCEND}}};
        step("walking by date", [&] { walk(&order); });
        order.aSort[0] = {PR_SUBJECT_W, TABLE_SORT_ASCEND};
        step("walking by subject", [&] { walk(&order); });
        step("counting", [&] { EXPECT_EQ(number(PR_CONTENT_COUNT), count_); });
        step("counting what is unread", [&] { EXPECT_EQ(number(PR_CONTENT_UNREAD), count_); });
        step("restricting", [&] { restrict(); });
        step("finding the last one", [&] { find_last(); });
        step("seeking the end", [&] { seek(); });
        step("marking", [&] { EXPECT_EQ(folder_->SetReadFlags(nullptr, 0, nullptr, 0), S_OK); });
        step("moving", [&] { carry(folder_.get(), other_.get(), MESSAGE_MOVE); });
        step("moving back", [&] { carry(other_.get(), folder_.get(), MESSAGE_MOVE); });
        step("copying", [&] { carry(folder_.get(), other_.get(), 0); });
        step("deleting", [&] { EXPECT_EQ(folder_->DeleteMessages(EntryList(ids_), 0, nullptr, 0), S_OK); });
        return std::move(steps_);
    }

private:
    void step(const char* name, const std::function<void()>& work) {
        const double begin = processor_time();
        work();
        steps_.push_back({name, (processor_time() - begin) / count_});
    }
    // Many of them of one date.
    void add() {
        Ptr<IZrMail> extras = mail_.extras();
        for (ULONG i = 0; i < count_;) {
            ASSERT_EQ(extras->BeginBatch(), S_OK);
            for (const ULONG end = std::min(count_, i + 1000); i < end; ++i) {
                Ptr<IMessage> made;
                ASSERT_EQ(folder_->CreateMessage(nullptr, 0, made.out()), S_OK);
                const std::u16string subject = u"Number " + name_of(static_cast<int>(i * 7919 % count_));
                SPropValue values[] = {text_prop(PR_SUBJECT_W, subject), number_prop(PR_MESSAGE_FLAGS, 0),
                                       time_prop(PR_MESSAGE_DELIVERY_TIME, 0x01DB000000000000u + i / 50)};
                ASSERT_EQ(made->SetProps(3, values, nullptr), S_OK);
                ASSERT_EQ(made->SaveChanges(0), S_OK);
                ids_.push_back(id_of(made.get()));
            }
            ASSERT_EQ(extras->CommitBatch(), S_OK);
        }
    }
    Ptr<IMAPITable> table(std::vector<ULONG> tags) const {
        Ptr<IMAPITable> table;
        EXPECT_EQ(folder_->GetContentsTable(0, table.out()), S_OK);
        EXPECT_EQ(columns(table.get(), std::move(tags)), S_OK);
        return table;
    }
    void walk(SSortOrderSet* order) const {
        Ptr<IMAPITable> walked =
            table({PR_ENTRYID, PR_SUBJECT_W, PR_SENDER_NAME_W, PR_MESSAGE_CLASS_W, PR_MESSAGE_DELIVERY_TIME});
        EXPECT_EQ(order != nullptr ? walked->SortTable(order, 0) : S_OK, S_OK);
        std::set<Bytes> seen;
        ULONG rows_seen = 0;
        for (;;) {
            const Rows rows(walked.get(), 10);
            if (rows.size() == 0) break;
            rows_seen += rows.size();
            if (rows_seen % 100 == 0) seen.insert(rows.bytes(0, 0));
        }
        EXPECT_EQ(rows_seen, count_);
        EXPECT_EQ(seen.size(), count_ / 100);
    }
    ULONG number(ULONG tag) const { return static_cast<ULONG>(Props(folder_.get(), {tag}).number()); }
    void restrict() const {
        Ptr<IMAPITable> some = table({PR_SUBJECT_W});
        SPropValue wanted = text_prop(PR_SUBJECT_W, u"7");
        SRestriction restriction = {};
        restriction.rt = RES_CONTENT;
        restriction.res.resContent = {FL_SUBSTRING, PR_SUBJECT_W, &wanted};
        ASSERT_EQ(some->Restrict(&restriction, 0), S_OK);
        ULONG found = 0;
        EXPECT_EQ(some->GetRowCount(0, &found), S_OK);
        EXPECT_GT(found, count_ / 10);
        EXPECT_LT(found, count_);
    }
    void find_last() const {
        Ptr<IMAPITable> all = table({PR_ENTRYID});
        SPropValue wanted = {};
        wanted.ulPropTag = PR_ENTRYID;
        wanted.Value.bin = {size_of(ids_.back()), reinterpret_cast<BYTE*>(entry(ids_.back()))};
        SRestriction restriction = {};
        restriction.rt = RES_PROPERTY;
        restriction.res.resProperty = {RELOP_EQ, PR_ENTRYID, &wanted};
        ASSERT_EQ(all->FindRow(&restriction, BOOKMARK_BEGINNING, 0), S_OK);
        EXPECT_EQ(Rows(all.get(), 1).bytes(0, 0), ids_.back());
    }
    void seek() const {
        Ptr<IMAPITable> all = table({PR_ENTRYID});
        LONG gone = 0;
        EXPECT_EQ(all->SeekRow(BOOKMARK_BEGINNING, static_cast<LONG>(count_) - 1, &gone), S_OK);
        EXPECT_EQ(gone, static_cast<LONG>(count_) - 1);
        EXPECT_EQ(Rows(all.get(), 10).size(), 1u);
    }
    void carry(IMAPIFolder* from, IMAPIFolder* to, ULONG flags) const {
        EXPECT_EQ(from->CopyMessages(EntryList(ids_), nullptr, to, 0, nullptr, flags), S_OK);
    }

    static inline ULONG made_ = 0;

    const Mail& mail_;
    const ULONG count_;
    const Ptr<IMAPIFolder> folder_;
    const Ptr<IMAPIFolder> other_;
    std::vector<Bytes> ids_;
    std::vector<Step> steps_;
};

TEST(MapiLarge, EveryStepIsLinear) {
    const Mail mail;
    const ULONG many = messages_of_a_large_folder();
    auto few = LargeFolder(mail, many / 10).all_steps();
    for (int i = 0; i < 2; ++i) {
        const auto again = LargeFolder(mail, many / 10).all_steps();
        for (std::size_t k = 0; k < few.size(); ++k) {
            few[k].time = std::min(few[k].time, again[k].time);
        }
    }
    auto large = LargeFolder(mail, many).all_steps();
    constexpr double kNoise = 2e-7;  // what is next to nothing for one message may be a little more
    const auto is_linear = [&](std::size_t k) { return large[k].time < 4 * few[k].time + kNoise; };
    bool linear = true;
    for (std::size_t k = 0; k < few.size(); ++k) {
        linear = linear && is_linear(k);
    }
    if (!linear) {
        // Once more: the computer may have had its reasons.
        const auto again = LargeFolder(mail, many).all_steps();
        for (std::size_t k = 0; k < large.size(); ++k) {
            large[k].time = std::min(large[k].time, again[k].time);
        }
    }
    for (std::size_t k = 0; k < few.size(); ++k) {
        EXPECT_TRUE(is_linear(k)) << few[k].name << ": " << few[k].time << " s, then " << large[k].time << " s";
    }
}

}  // namespace
}  // namespace zr::test
