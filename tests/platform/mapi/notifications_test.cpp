// Notifications: what another program or this one kept reaches the sink, on its thread, once and in order.

#include <gmock/gmock.h>

#include <atomic>
#include <optional>
#include <set>
#include <thread>

#include "mail_support.h"
#include "platform/windowing.h"
#include "support/child.h"
#include "support/forked.h"

namespace zr::test {
namespace {

using testing::ElementsAre;

constexpr ULONG kAll = fnevNewMail | fnevObjectCreated | fnevObjectDeleted | fnevObjectModified | fnevObjectMoved |
                       fnevObjectCopied | fnevCriticalError;

struct Event {
    ULONG kind;
    Bytes id;
    Bytes parent;
    Bytes old_id;
    Bytes old_parent;
    std::u16string message_class;
};

class Sink final : public IMAPIAdviseSink {
public:
    HRESULT QueryInterface(REFIID, void** object) override {
        *object = nullptr;
        return E_NOINTERFACE;
    }
    ULONG AddRef() override { return ++references; }
    ULONG Release() override { return --references; }
    ULONG OnNotify(ULONG count, LPNOTIFICATION list) override {
        EXPECT_EQ(std::this_thread::get_id(), thread);
        const auto bytes = [](ULONG size, const ENTRYID* id) { return Bytes(reinterpret_cast<const char*>(id), size); };
        for (ULONG i = 0; i < count; ++i) {
            const NOTIFICATION& notice = list[i];
            if (notice.ulEventType == fnevNewMail) {
                const auto& mail = notice.info.newmail;
                events.push_back({fnevNewMail, bytes(mail.cbEntryID, mail.lpEntryID),
                                  bytes(mail.cbParentID, mail.lpParentID), "", "", mail.lpszMessageClass});
            } else if (notice.ulEventType == fnevCriticalError) {
                events.push_back({fnevCriticalError, "", "", "", "", u""});
            } else {
                const auto& object = notice.info.obj;
                events.push_back({notice.ulEventType, bytes(object.cbEntryID, object.lpEntryID),
                                  bytes(object.cbParentID, object.lpParentID), bytes(object.cbOldID, object.lpOldID),
                                  bytes(object.cbOldParentID, object.lpOldParentID), u""});
            }
        }
        return 0;
    }
    // Takes this thread's messages until so many events came.
    void await(std::size_t count) {
        MSG message = {};
        while (events.size() < count && GetMessageW(&message, nullptr, 0, 0)) {
            DispatchMessageW(&message);
        }
    }
    std::vector<ULONG> kinds() const {
        std::vector<ULONG> list;
        for (const Event& event : events) {
            list.push_back(event.kind);
        }
        return list;
    }

    std::atomic<ULONG> references{1};
    std::thread::id thread = std::this_thread::get_id();
    std::vector<Event> events;
};

class MapiNotifications : public testing::Test {
protected:
    void SetUp() override {
        windows_ = ZrLiveObjects(ZrLiveKind::Windows);
        mail_.emplace();
        static std::u16string name = u"Notifications";
        name += u'.';
        folder_ = mail_->fresh_folder(name);
    }
    void TearDown() override {
        folder_.reset();
        mail_.reset();
        EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Windows), windows_);
        EXPECT_EQ(sink_.references, 1u);
    }
    ULONG advise(const Bytes& id = "", ULONG mask = kAll) {
        ULONG connection = 0;
        EXPECT_EQ(mail_->store->Advise(size_of(id), id.empty() ? nullptr : entry(id), mask, &sink_, &connection), S_OK);
        return connection;
    }

    LONGLONG windows_ = 0;
    Sink sink_;
    std::optional<Mail> mail_;
    Ptr<IMAPIFolder> folder_;
};

TEST_F(MapiNotifications, TellOfEveryKindOfChange) {
    const ULONG connection = advise();
    const Bytes inbox = id_of(mail_->folder().get());
    const Bytes folder = id_of(folder_.get());
    const Bytes id = mail_->add(mail_->folder().get(), u"new");
    ASSERT_EQ(mail_->message(id)->SetReadFlag(0), S_OK);
    ASSERT_EQ(mail_->folder()->CopyMessages(EntryList({id}), nullptr, folder_.get(), 0, nullptr, MESSAGE_MOVE), S_OK);
    ASSERT_EQ(folder_->CopyMessages(EntryList({id}), nullptr, folder_.get(), 0, nullptr, 0), S_OK);
    ASSERT_EQ(folder_->DeleteMessages(EntryList({id}), 0, nullptr, 0), S_OK);
    sink_.await(6);
    EXPECT_THAT(sink_.kinds(), ElementsAre(fnevObjectCreated, fnevNewMail, fnevObjectModified, fnevObjectMoved,
                                           fnevObjectCopied, fnevObjectDeleted));
    EXPECT_EQ(sink_.events[0].id, id);
    EXPECT_EQ(sink_.events[0].parent, inbox);
    EXPECT_EQ(sink_.events[1].id, id);
    EXPECT_EQ(sink_.events[1].message_class, u"IPM.Note");
    EXPECT_EQ(sink_.events[3].parent, folder);
    EXPECT_EQ(sink_.events[3].old_parent, inbox);
    EXPECT_EQ(sink_.events[3].old_id, id);
    EXPECT_EQ(sink_.events[4].old_id, id);
    EXPECT_NE(sink_.events[4].id, id);
    EXPECT_EQ(mail_->store->Unadvise(connection + 100), MAPI_E_NOT_FOUND);
    EXPECT_EQ(mail_->store->Unadvise(connection), S_OK);
}

TEST_F(MapiNotifications, AreOfWhatWasAskedFor) {
    const Bytes other = mail_->add(mail_->folder().get(), u"other");
    const Bytes id = mail_->add(folder_.get(), u"mine");
    advise(id, kAll);
    advise(id_of(folder_.get()), fnevObjectCreated);
    ASSERT_EQ(mail_->message(other)->SetReadFlag(0), S_OK);
    ASSERT_EQ(mail_->message(id)->SetReadFlag(0), S_OK);
    const Bytes second = mail_->add(folder_.get(), u"second");
    sink_.await(2);
    EXPECT_THAT(sink_.kinds(), testing::UnorderedElementsAre(fnevObjectModified, fnevObjectCreated));
    Bytes nonsense = "nonsense";
    ULONG connection = 0;
    EXPECT_EQ(mail_->store->Advise(8, entry(nonsense), kAll, &sink_, &connection), MAPI_E_INVALID_ENTRYID);
    EXPECT_EQ(mail_->store->Advise(0, nullptr, 0, &sink_, &connection), MAPI_E_NO_SUPPORT);
    EXPECT_EQ(mail_->store->Advise(0, nullptr, kAll, nullptr, &connection), MAPI_E_INVALID_PARAMETER);
}

TEST_F(MapiNotifications, EndWithTheStore) {
    advise();
    mail_->store.reset();
    EXPECT_EQ(sink_.references, 1u);
}

ZR_CHILD(mapi_writer) {
    Mail mail;
    if (mail.open != S_OK) return 1;
    const Bytes folder = args[0] == "inbox" ? id_of(mail.folder().get()) : "";
    Ptr<IMAPIFolder> target = mail.folder();
    for (int i = 0; i < std::stoi(args[1]); ++i) {
        mail.add(target.get(), u"from afar");
    }
    say("done");
    return 0;
}

TEST_F(MapiNotifications, ComeFromOtherProcessesWithoutLoss) {
    constexpr int kMessages = 3000;
    advise("", fnevNewMail);
    Child one("mapi_writer", {"inbox", std::to_string(kMessages)});
    Child two("mapi_writer", {"inbox", std::to_string(kMessages)});
    // Nobody looks meanwhile: everything waits in the log.
    EXPECT_EQ(one.hear(), "done");
    EXPECT_EQ(two.hear(), "done");
    sink_.await(2 * kMessages);
    std::set<Bytes> ids;
    for (const Event& event : sink_.events) {
        ids.insert(event.id);
    }
    EXPECT_EQ(sink_.events.size(), 2u * kMessages);
    EXPECT_EQ(ids.size(), 2u * kMessages);
    EXPECT_EQ(one.wait(), 0);
    EXPECT_EQ(two.wait(), 0);
}

TEST_F(MapiNotifications, CanBeTakenBackFromAnotherThread) {
    const ULONG connection = advise();
    std::thread([&] { EXPECT_EQ(mail_->store->Unadvise(connection), S_OK); }).join();
    mail_->add(folder_.get(), u"x");
    MSG message = {};
    while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) {
        DispatchMessageW(&message);
    }
    EXPECT_TRUE(sink_.events.empty());
}

TEST_F(MapiNotifications, GoOnInBothProcessesAfterAFork) {
    advise(id_of(folder_.get()), fnevObjectCreated);
    const auto work = [&]() -> int {
        mail_->add(folder_.get(), u"x");
        sink_.await(1);
        return sink_.kinds() == std::vector<ULONG>{fnevObjectCreated} ? 0 : 1;
    };
    EXPECT_EQ(in_fork(work), 0);
    sink_.await(1);
    EXPECT_EQ(sink_.events.size(), 1u) << "the child's message is told to the parent";
}

}  // namespace
}  // namespace zr::test
