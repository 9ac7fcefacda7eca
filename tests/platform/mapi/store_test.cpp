// Stores, folders and messages: what is made is there, by its identifier, until it is deleted.

#include <gmock/gmock.h>

#include <cmath>
#include <cstring>
#include <optional>
#include <set>

#include "mail_support.h"
#include "support/sql.h"

namespace zr::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// A list of recipients, each as its values. What they point to must stay.
class Recipients {
public:
    explicit Recipients(std::vector<std::vector<SPropValue>> rows)
        : rows_(std::move(rows)), memory_(CbNewADRLIST(static_cast<ULONG>(rows_.size())) + 64) {
        auto* const list = reinterpret_cast<ADRLIST*>(memory_.data());
        list->cEntries = static_cast<ULONG>(rows_.size());
        for (std::size_t i = 0; i < rows_.size(); ++i) {
            list->aEntries[i] = {0, static_cast<ULONG>(rows_[i].size()), rows_[i].data()};
        }
    }
    operator LPADRLIST() { return reinterpret_cast<ADRLIST*>(memory_.data()); }

private:
    std::vector<std::vector<SPropValue>> rows_;
    std::vector<char> memory_;
};

class MapiStore : public testing::Test {
protected:
    void SetUp() override {
        interfaces_ = ZrLiveObjects(ZrLiveKind::Interfaces);
        buffers_ = ZrLiveObjects(ZrLiveKind::MapiBuffers);
        mail_.emplace();
        ASSERT_EQ(mail_->logon, S_OK);
        ASSERT_EQ(mail_->open, S_OK);
        static int number = 0;
        ++number;
        folder_ = mail_->fresh_folder(u"Store " + std::u16string(static_cast<std::size_t>(number), u'x'));
    }
    void TearDown() override {
        folder_.reset();
        mail_.reset();
        EXPECT_EQ(ZrLiveObjects(ZrLiveKind::Interfaces), interfaces_);
        EXPECT_EQ(ZrLiveObjects(ZrLiveKind::MapiBuffers), buffers_);
    }

    LONGLONG interfaces_ = 0;
    LONGLONG buffers_ = 0;
    std::optional<Mail> mail_;
    Ptr<IMAPIFolder> folder_;
};

TEST_F(MapiStore, LogonNeedsInitialising) {
    mail_.reset();
    folder_.reset();
    IMAPISession* session = reinterpret_cast<IMAPISession*>(1);
    EXPECT_EQ(MAPILogonEx(0, nullptr, nullptr, 0, &session), MAPI_E_NOT_INITIALIZED);
    EXPECT_EQ(session, nullptr);
}

TEST_F(MapiStore, DefaultStoreHasItsFolders) {
    Ptr<IMAPITable> table;
    ASSERT_EQ(mail_->session->GetMsgStoresTable(MAPI_UNICODE, table.out()), S_OK);
    const Rows rows(table.get());
    ASSERT_GE(rows.size(), 1u);
    EXPECT_EQ(rows.text(0, 1), u"Mail");
    EXPECT_EQ(rows.value(0, 2).Value.b, 1);
    Ptr<IMAPIFolder> top = mail_->folder(PR_IPM_SUBTREE_ENTRYID);
    Ptr<IMAPITable> folders;
    ASSERT_EQ(top->GetHierarchyTable(0, folders.out()), S_OK);
    const Rows list(folders.get());
    std::vector<std::u16string> names;
    for (ULONG i = 0; i < 5; ++i) {
        names.push_back(list.text(i, 1));
    }
    EXPECT_THAT(names, ElementsAre(u"Inbox", u"Outbox", u"Sent Items", u"Drafts", u"Deleted Items"));
    EXPECT_EQ(Props(mail_->folder(PR_IPM_WASTEBASKET_ENTRYID).get(), {PR_DISPLAY_NAME_W}).text(), u"Deleted Items");
}

TEST_F(MapiStore, MessageIsThereOnceItIsSaved) {
    Ptr<IMessage> message;
    ASSERT_EQ(folder_->CreateMessage(nullptr, 0, message.out()), S_OK);
    EXPECT_EQ(Props(message.get(), {PR_ENTRYID}).error(0), MAPI_E_NOT_FOUND);
    ASSERT_EQ(set(message.get(), text_prop(PR_SUBJECT_W, u"Hello")), S_OK);
    EXPECT_THAT(subjects(folder_.get()), IsEmpty());
    ASSERT_EQ(message->SaveChanges(0), S_OK);
    EXPECT_THAT(subjects(folder_.get()), ElementsAre(u"Hello"));
    const Bytes id = id_of(message.get());
    message.reset();
    message = mail_->message(id, 0);
    ASSERT_EQ(mail_->last, S_OK);
    const Props props(message.get(), {PR_SUBJECT_W, PR_MESSAGE_CLASS_W, PR_MESSAGE_FLAGS, PR_PARENT_ENTRYID,
                                      PR_STORE_ENTRYID, PR_ENTRYID, PR_OBJECT_TYPE, PR_BODY_W});
    EXPECT_EQ(props.result, MAPI_W_ERRORS_RETURNED);
    EXPECT_EQ(props.text(0), u"Hello");
    EXPECT_EQ(props.text(1), u"IPM.Note");
    EXPECT_EQ(props.number(2), static_cast<LONG>(MSGFLAG_UNSENT | MSGFLAG_READ));
    EXPECT_EQ(props.bytes(3), id_of(folder_.get()));
    EXPECT_EQ(props.bytes(4), id_of(mail_->store.get()));
    EXPECT_EQ(props.bytes(5), id);
    EXPECT_EQ(props.number(6), static_cast<LONG>(MAPI_MESSAGE));
    EXPECT_EQ(props.error(7), MAPI_E_NOT_FOUND);
    EXPECT_EQ(set(message.get(), text_prop(PR_SUBJECT_W, u"Other")), MAPI_E_NO_ACCESS);
}

TEST_F(MapiStore, EveryTypeComesBackAsItWas) {
    Ptr<IMessage> message;
    ASSERT_EQ(folder_->CreateMessage(nullptr, 0, message.out()), S_OK);
    GUID guid = {1, 2, 3, {4, 5, 6, 7, 8, 9, 10, 11}};
    BYTE bytes[] = {0, 1, 255, 0};
    const std::u16string odd = {u'x', 0xD800, 0xFEFF, u'y'};
    SPropValue values[11] = {};
    const ULONG types[] = {PT_I2,      PT_LONG,    PT_R4,     PT_DOUBLE, PT_APPTIME, PT_BOOLEAN,
                           PT_SYSTIME, PT_UNICODE, PT_BINARY, PT_CLSID,  PT_I8};
    for (ULONG i = 0; i < 11; ++i) {
        values[i].ulPropTag = PROP_TAG(types[i], 0x6700 + i);
    }
    values[0].Value.i = -5;
    values[1].Value.l = -70000;
    values[2].Value.flt = 1.5f;
    values[3].Value.dbl = -0.0;
    values[4].Value.at = 40000.25;
    values[5].Value.b = 1;
    values[6].Value.ft = {0xFFFFFFFF, 0x01D00000};
    values[7].Value.lpszW = wide(odd);
    values[8].Value.bin = {sizeof bytes, bytes};
    values[9].Value.lpguid = &guid;
    values[10].Value.li.QuadPart = INT64_MIN;
    ASSERT_EQ(message->SetProps(11, values, nullptr), S_OK);
    for (int saved = 0; saved < 2; ++saved) {
        const Props back(message.get(),
                         {values[0].ulPropTag, values[1].ulPropTag, values[2].ulPropTag, values[3].ulPropTag,
                          values[4].ulPropTag, values[5].ulPropTag, values[6].ulPropTag, values[7].ulPropTag,
                          values[8].ulPropTag, values[9].ulPropTag, values[10].ulPropTag});
        ASSERT_EQ(back.result, S_OK);
        EXPECT_EQ(back[0].Value.i, -5);
        EXPECT_EQ(back[1].Value.l, -70000);
        EXPECT_EQ(back[2].Value.flt, 1.5f);
        EXPECT_TRUE(std::signbit(back[3].Value.dbl));
        EXPECT_EQ(back[4].Value.at, 40000.25);
        EXPECT_EQ(back[5].Value.b, 1);
        EXPECT_EQ(back[6].Value.ft.dwHighDateTime, 0x01D00000u);
        EXPECT_EQ(back[6].Value.ft.dwLowDateTime, 0xFFFFFFFFu);
        EXPECT_EQ(back.text(7), odd);
        EXPECT_EQ(back.bytes(8), Bytes("\0\1\xFF\0", 4));
        EXPECT_EQ(*back[9].Value.lpguid, guid);
        EXPECT_EQ(back[10].Value.li.QuadPart, INT64_MIN);
        ASSERT_EQ(message->SaveChanges(0), S_OK);
    }
}

TEST_F(MapiStore, WhatCannotBeGivenOrSetIsNamed) {
    Ptr<IMessage> message = mail_->message(mail_->add(folder_.get(), u"x"));
    const Props props(message.get(), {PROP_TAG(PT_STRING8, 0x0037), PROP_TAG(PT_LONG, 0x0037),
                                      PROP_TAG(PT_UNSPECIFIED, 0x0037), 0x67F0001F});
    EXPECT_EQ(props.error(0), MAPI_E_BAD_CHARWIDTH);
    EXPECT_EQ(props.error(1), MAPI_E_UNEXPECTED_TYPE);
    EXPECT_EQ(props.text(2), u"x");
    EXPECT_EQ(props[2].ulPropTag, PR_SUBJECT_W);
    EXPECT_EQ(props.error(3), MAPI_E_NOT_FOUND);
    SPropValue values[4] = {number_prop(PR_OBJECT_TYPE, 1), number_prop(PROP_TAG(0x1003, 0x6700), 1),
                            text_prop(PR_COMMENT_W, u"kept"), number_prop(PR_MESSAGE_FLAGS, 1)};
    LPSPropProblemArray problems = nullptr;
    ASSERT_EQ(message->SetProps(4, values, &problems), S_OK);
    ASSERT_NE(problems, nullptr);
    ASSERT_EQ(problems->cProblem, 3u);
    EXPECT_EQ(problems->aProblem[0].scode, MAPI_E_COMPUTED);
    EXPECT_EQ(problems->aProblem[1].ulIndex, 1u);
    EXPECT_EQ(problems->aProblem[1].scode, MAPI_E_TYPE_NO_SUPPORT);
    EXPECT_EQ(problems->aProblem[2].scode, MAPI_E_COMPUTED);
    MAPIFreeBuffer(problems);
    EXPECT_EQ(Props(message.get(), {PR_COMMENT_W}).text(), u"kept");
    SPropTagArray tags = {1, {PR_COMMENT_W}};
    ASSERT_EQ(message->DeleteProps(&tags, nullptr), S_OK);
    EXPECT_FALSE(Props(message.get(), {PR_COMMENT_W}).has(0));
}

TEST_F(MapiStore, AllPropertiesAreListed) {
    Ptr<IMessage> message = mail_->message(mail_->add(folder_.get(), u"x"));
    ASSERT_EQ(set(message.get(), text_prop(PR_COMMENT_W, u"c")), S_OK);
    const Props all(message.get());
    EXPECT_EQ(all.result, S_OK);
    LPSPropTagArray tags = nullptr;
    ASSERT_EQ(message->GetPropList(MAPI_UNICODE, &tags), S_OK);
    ASSERT_EQ(tags->cValues, all.count);
    std::set<ULONG> seen;
    for (ULONG i = 0; i < tags->cValues; ++i) {
        EXPECT_EQ(tags->aulPropTag[i], all[i].ulPropTag);
        seen.insert(tags->aulPropTag[i]);
    }
    EXPECT_TRUE(seen.contains(PR_COMMENT_W) && seen.contains(PR_SUBJECT_W) && seen.contains(PR_ENTRYID));
    MAPIFreeBuffer(tags);
}

TEST_F(MapiStore, SavingMeetsOthersChanges) {
    const Bytes id = mail_->add(folder_.get(), u"first");
    Ptr<IMessage> one = mail_->message(id);
    Ptr<IMessage> other = mail_->message(id);
    ASSERT_EQ(set(other.get(), text_prop(PR_SUBJECT_W, u"other's")), S_OK);
    ASSERT_EQ(other->SaveChanges(0), S_OK);
    EXPECT_EQ(Props(one.get(), {PR_SUBJECT_W}).text(), u"other's");
    ASSERT_EQ(set(one.get(), text_prop(PR_SUBJECT_W, u"mine")), S_OK);
    EXPECT_EQ(one->SaveChanges(0), MAPI_E_OBJECT_CHANGED);
    EXPECT_THAT(subjects(folder_.get()), ElementsAre(u"other's"));
    EXPECT_EQ(one->SaveChanges(FORCE_SAVE), S_OK);
    EXPECT_THAT(subjects(folder_.get()), ElementsAre(u"mine"));
    ASSERT_EQ(folder_->DeleteMessages(EntryList({id}), 0, nullptr, 0), S_OK);
    ASSERT_EQ(set(one.get(), text_prop(PR_SUBJECT_W, u"late")), S_OK);
    EXPECT_EQ(one->SaveChanges(FORCE_SAVE), MAPI_E_OBJECT_DELETED);
    EXPECT_EQ(Props(one.get(), {PR_SUBJECT_W}).result, MAPI_E_OBJECT_DELETED);
    EXPECT_FALSE(mail_->message(id));
    EXPECT_EQ(mail_->last, MAPI_E_NOT_FOUND);
}

TEST_F(MapiStore, MovingKeepsIdentifiersAndCopyingDoesNot) {
    const Bytes a = mail_->add(folder_.get(), u"a");
    const Bytes b = mail_->add(folder_.get(), u"b");
    Ptr<IMAPIFolder> other = mail_->fresh_folder(u"Move target");
    ASSERT_EQ(folder_->CopyMessages(EntryList({a}), nullptr, other.get(), 0, nullptr, MESSAGE_MOVE), S_OK);
    EXPECT_THAT(subjects(folder_.get()), ElementsAre(u"b"));
    EXPECT_THAT(subjects(other.get()), ElementsAre(u"a"));
    EXPECT_EQ(Props(mail_->message(a).get(), {PR_PARENT_ENTRYID}).bytes(), id_of(other.get()));
    EXPECT_EQ(folder_->CopyMessages(EntryList({a, b}), nullptr, other.get(), 0, nullptr, MESSAGE_MOVE),
              MAPI_W_PARTIAL_COMPLETION);
    EXPECT_THAT(subjects(other.get()), ElementsAre(u"a", u"b"));
    ASSERT_EQ(other->CopyMessages(EntryList({a}), nullptr, folder_.get(), 0, nullptr, 0), S_OK);
    EXPECT_THAT(subjects(folder_.get()), ElementsAre(u"a"));
    EXPECT_THAT(subjects(other.get()), ElementsAre(u"a", u"b"));
    const Bytes folder = id_of(other.get());
    ASSERT_EQ(
        mail_->folder(PR_IPM_SUBTREE_ENTRYID)->DeleteFolder(size_of(folder), entry(folder), 0, nullptr, DEL_MESSAGES),
        S_OK);
    EXPECT_FALSE(mail_->message(a));
    EXPECT_EQ(Props(other.get(), {PR_DISPLAY_NAME_W}).result, MAPI_E_OBJECT_DELETED);
}

TEST_F(MapiStore, MovingToAnotherStoreGivesANewIdentifier) {
    Ptr<ICEMAPISession> session;
    ASSERT_EQ(mail_->session->QueryInterface(IID_ICEMAPISession, session.any()), S_OK);
    Ptr<IMsgStore> store;
    ASSERT_EQ(session->CreateMsgStore(u"Second", store.out()), S_OK);
    Ptr<IMsgStore> none;
    EXPECT_EQ(session->CreateMsgStore(u"SECOND", none.out()), MAPI_E_COLLISION);
    const Bytes store_id = id_of(store.get());
    Ptr<IMAPIFolder> inbox = mail_->folder(Props(store.get(), {PR_CE_IPM_INBOX_ENTRYID}).bytes());
    const Bytes id = mail_->add(folder_.get(), u"traveller");
    ASSERT_EQ(folder_->CopyMessages(EntryList({id}), nullptr, inbox.get(), 0, nullptr, MESSAGE_MOVE), S_OK);
    EXPECT_THAT(subjects(inbox.get()), ElementsAre(u"traveller"));
    EXPECT_THAT(subjects(folder_.get()), IsEmpty());
    EXPECT_FALSE(mail_->message(id));
    Ptr<IMAPITable> table;
    ASSERT_EQ(inbox->GetContentsTable(0, table.out()), S_OK);
    Bytes there;
    {
        const Rows rows(table.get());
        there = rows.bytes(0, 0);
    }
    EXPECT_NE(there, id);
    EXPECT_EQ(Props(mail_->message(there).get(), {PR_STORE_ENTRYID}).bytes(), store_id);
    table.reset();
    inbox.reset();
    store.reset();
    EXPECT_EQ(session->DeleteMsgStore(size_of(store_id), entry(store_id)), S_OK);
    EXPECT_FALSE(mail_->message(there));
    const Bytes default_id = id_of(mail_->store.get());
    EXPECT_EQ(session->DeleteMsgStore(size_of(default_id), entry(default_id)), MAPI_E_NO_ACCESS);
}

TEST_F(MapiStore, IdentifiersAreNotHandedOutAgain) {
    const Bytes id = mail_->add(folder_.get(), u"a");
    ASSERT_EQ(folder_->DeleteMessages(EntryList({id}), 0, nullptr, 0), S_OK);
    EXPECT_NE(mail_->add(folder_.get(), u"b"), id);
    ULONG same = 7;
    EXPECT_EQ(mail_->session->CompareEntryIDs(size_of(id), entry(id), size_of(id), entry(id), 0, &same), S_OK);
    EXPECT_EQ(same, 1u);
    const Bytes nonsense = "nonsense";
    EXPECT_EQ(mail_->session->CompareEntryIDs(8, entry(nonsense), size_of(id), entry(id), 0, &same),
              MAPI_E_INVALID_ENTRYID);
    EXPECT_EQ(same, 0u);
    Ptr<IUnknown> object;
    ULONG type = 7;
    EXPECT_EQ(mail_->session->OpenEntry(8, entry(nonsense), nullptr, 0, &type, object.out()), MAPI_E_INVALID_ENTRYID);
    EXPECT_EQ(type, 0u);
}

TEST_F(MapiStore, FoldersAreMovedCopiedAndDeleted) {
    Ptr<IMAPIFolder> a;
    Ptr<IMAPIFolder> b;
    Ptr<IMAPIFolder> none;
    ASSERT_EQ(folder_->CreateFolder(FOLDER_GENERIC, wide(u"a"), wide(u"why"), nullptr, 0, a.out()), S_OK);
    EXPECT_EQ(Props(a.get(), {PR_COMMENT_W}).text(), u"why");
    EXPECT_EQ(folder_->CreateFolder(FOLDER_GENERIC, wide(u"A"), nullptr, nullptr, 0, none.out()), MAPI_E_COLLISION);
    ASSERT_EQ(folder_->CreateFolder(FOLDER_GENERIC, wide(u"A"), nullptr, nullptr, OPEN_IF_EXISTS, none.out()), S_OK);
    EXPECT_EQ(id_of(none.get()), id_of(a.get()));
    EXPECT_EQ(folder_->CreateFolder(FOLDER_GENERIC, wide(u""), nullptr, nullptr, 0, none.out()), MAPI_E_BAD_VALUE);
    ASSERT_EQ(a->CreateFolder(FOLDER_GENERIC, wide(u"b"), nullptr, nullptr, 0, b.out()), S_OK);
    mail_->add(b.get(), u"inside");
    const Bytes a_id = id_of(a.get());
    const Bytes b_id = id_of(b.get());
    EXPECT_EQ(folder_->DeleteFolder(size_of(a_id), entry(a_id), 0, nullptr, 0), MAPI_E_HAS_FOLDERS);
    EXPECT_EQ(a->DeleteFolder(size_of(b_id), entry(b_id), 0, nullptr, 0), MAPI_E_HAS_MESSAGES);
    EXPECT_EQ(folder_->DeleteFolder(size_of(b_id), entry(b_id), 0, nullptr, 0), MAPI_E_NOT_FOUND);
    EXPECT_EQ(folder_->CopyFolder(size_of(a_id), entry(a_id), nullptr, b.get(), nullptr, 0, nullptr, FOLDER_MOVE),
              MAPI_E_FOLDER_CYCLE);
    ASSERT_EQ(folder_->CopyFolder(size_of(a_id), entry(a_id), nullptr, folder_.get(), wide(u"copy"), 0, nullptr,
                                  COPY_SUBFOLDERS),
              S_OK);
    ASSERT_EQ(
        a->CopyFolder(size_of(b_id), entry(b_id), nullptr, folder_.get(), wide(u"moved"), 0, nullptr, FOLDER_MOVE),
        S_OK);
    EXPECT_EQ(id_of(b.get()), b_id);
    EXPECT_EQ(Props(b.get(), {PR_DISPLAY_NAME_W}).text(), u"moved");
    EXPECT_THAT(subjects(b.get()), ElementsAre(u"inside"));
    Ptr<IMAPITable> table;
    ASSERT_EQ(folder_->GetHierarchyTable(CONVENIENT_DEPTH, table.out()), S_OK);
    ASSERT_EQ(columns(table.get(), {PR_DISPLAY_NAME_W, PR_DEPTH, PR_CONTENT_COUNT, PR_SUBFOLDERS}), S_OK);
    std::vector<std::u16string> names;
    {
        const Rows rows(table.get());
        for (ULONG i = 0; i < rows.size(); ++i) {
            names.push_back(rows.text(i, 0) + static_cast<char16_t>(u'0' + rows.value(i, 1).Value.l));
        }
    }
    EXPECT_THAT(names, ElementsAre(u"a1", u"moved1", u"copy1", u"b2"));
    EXPECT_EQ(folder_->DeleteFolder(size_of(a_id), entry(a_id), 0, nullptr, 0), S_OK);
    const Bytes inbox = id_of(mail_->folder().get());
    EXPECT_EQ(mail_->folder(PR_IPM_SUBTREE_ENTRYID)->DeleteFolder(size_of(inbox), entry(inbox), 0, nullptr, 7 & ~2u),
              MAPI_E_NO_ACCESS);
}

TEST_F(MapiStore, MarkerOfAFolderIsFound) {
    SPropValue marker = {};
    marker.ulPropTag = PROP_TAG(PT_BOOLEAN, 0x602B);
    marker.Value.b = 1;
    ASSERT_EQ(folder_->SetProps(1, &marker, nullptr), S_OK);
    Ptr<IMAPITable> table;
    ASSERT_EQ(mail_->folder(PR_IPM_SUBTREE_ENTRYID)->GetHierarchyTable(0, table.out()), S_OK);
    ASSERT_EQ(columns(table.get(), {marker.ulPropTag, PR_ENTRYID}), S_OK);
    const Rows rows(table.get());
    int marked = 0;
    for (ULONG i = 0; i < rows.size(); ++i) {
        if (rows.value(i, 0).ulPropTag != marker.ulPropTag) continue;
        ++marked;
        EXPECT_EQ(rows.bytes(i, 1), id_of(folder_.get()));
    }
    EXPECT_EQ(marked, 1);
    SPropTagArray tags = {1, {marker.ulPropTag}};
    EXPECT_EQ(folder_->DeleteProps(&tags, nullptr), S_OK);
}

TEST_F(MapiStore, ReadStateIsKeptAtOnceAndCounted) {
    const Bytes a = mail_->add(folder_.get(), u"a");
    mail_->add(folder_.get(), u"b");
    EXPECT_EQ(Props(folder_.get(), {PR_CONTENT_COUNT, PR_CONTENT_UNREAD}).number(1), 2);
    ASSERT_EQ(mail_->message(a)->SetReadFlag(0), S_OK);
    EXPECT_EQ(Props(folder_.get(), {PR_CONTENT_COUNT, PR_CONTENT_UNREAD}).number(1), 1);
    EXPECT_EQ(Props(mail_->message(a).get(), {PR_MESSAGE_FLAGS}).number(), static_cast<LONG>(MSGFLAG_READ));
    ASSERT_EQ(mail_->message(a)->SetReadFlag(CLEAR_READ_FLAG), S_OK);
    ASSERT_EQ(folder_->SetReadFlags(nullptr, 0, nullptr, 0), S_OK);
    const Props counts(folder_.get(), {PR_CONTENT_COUNT, PR_CONTENT_UNREAD});
    EXPECT_EQ(counts.number(0), 2);
    EXPECT_EQ(counts.number(1), 0);
}

TEST_F(MapiStore, RecipientsAreKeptInOrder) {
    Ptr<IMessage> message = mail_->message(mail_->add(folder_.get(), u"x"));
    const auto modify = [&](ULONG flags, std::vector<std::vector<SPropValue>> rows) {
        return message->ModifyRecipients(flags, Recipients(std::move(rows)));
    };
    const std::u16string names[] = {u"Ann", u"bob@example.org", u"Carl"};
    ASSERT_EQ(modify(0, {{text_prop(PR_DISPLAY_NAME_W, names[0]), number_prop(PR_RECIPIENT_TYPE, MAPI_TO)},
                         {text_prop(PR_EMAIL_ADDRESS_W, names[1]), number_prop(PR_RECIPIENT_TYPE, MAPI_TO)}}),
              S_OK);
    ASSERT_EQ(modify(MODRECIP_ADD, {{text_prop(PR_DISPLAY_NAME_W, names[2]), number_prop(PR_RECIPIENT_TYPE, MAPI_CC)}}),
              S_OK);
    ASSERT_EQ(message->SaveChanges(0), S_OK);
    const Props lines(message.get(), {PR_DISPLAY_TO_W, PR_DISPLAY_CC_W});
    EXPECT_EQ(lines.text(0), u"Ann; bob@example.org");
    EXPECT_EQ(lines.text(1), u"Carl");
    ASSERT_EQ(modify(MODRECIP_REMOVE, {{number_prop(PR_ROWID, 0)}}), S_OK);
    EXPECT_EQ(modify(MODRECIP_REMOVE, {{number_prop(PR_ROWID, 9)}}), MAPI_E_INVALID_PARAMETER);
    EXPECT_EQ(modify(3, {}), MAPI_E_UNKNOWN_FLAGS);
    ASSERT_EQ(message->SaveChanges(0), S_OK);
    Ptr<IMAPITable> table;
    ASSERT_EQ(message->GetRecipientTable(MAPI_UNICODE, table.out()), S_OK);
    const Rows rows(table.get());
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows.text(0, 4), u"bob@example.org");
    EXPECT_EQ(rows.value(0, 0).Value.l, 1);
    EXPECT_EQ(rows.text(1, 2), u"Carl");
}

// What a new message is found to be is what the same message is found to be when it is saved again.
TEST_F(MapiStore, AMessagesSizeIsThatOfWhatItHolds) {
    const std::u16string long_text(3000, u'l');
    const std::string data(200000, 'd');
    Ptr<IMessage> message;
    ASSERT_EQ(folder_->CreateMessage(nullptr, 0, message.out()), S_OK);
    SPropValue values[] = {text_prop(PR_SUBJECT_W, u"subject"),
                           text_prop(PR_SENDER_NAME_W, u"sender"),
                           text_prop(PR_SENDER_EMAIL_ADDRESS_W, u"a@example.com"),
                           text_prop(PR_BODY_W, long_text),
                           number_prop(PR_IMPORTANCE, 1),
                           text_prop(PR_INTERNET_MESSAGE_ID_W, u"x@y")};
    ASSERT_EQ(message->SetProps(6, values, nullptr), S_OK);
    Recipients recipients({{text_prop(PR_DISPLAY_NAME_W, u"Ann"), number_prop(PR_RECIPIENT_TYPE, MAPI_TO)},
                           {text_prop(PR_DISPLAY_NAME_W, long_text), number_prop(PR_RECIPIENT_TYPE, MAPI_CC)}});
    ASSERT_EQ(message->ModifyRecipients(0, recipients), S_OK);
    for (int i = 0; i < 3; ++i) {
        ULONG number = 0;
        Ptr<IAttach> attach;
        ASSERT_EQ(message->CreateAttach(nullptr, 0, &number, attach.out()), S_OK);
        if (i > 0) {
            Ptr<IStream> stream;
            ASSERT_EQ(
                attach->OpenProperty(PR_ATTACH_DATA_BIN, &IID_IStream, 0, MAPI_CREATE | MAPI_MODIFY, stream.unknown()),
                S_OK);
            ASSERT_EQ(stream->Write(data.data(), static_cast<ULONG>(data.size()), nullptr), S_OK);
        }
        ASSERT_EQ(attach->SaveChanges(0), S_OK);
    }
    ASSERT_EQ(message->DeleteAttach(2, 0, nullptr, 0), S_OK);
    ASSERT_EQ(message->SaveChanges(KEEP_OPEN_READWRITE), S_OK);
    // Units and bytes, 8 for each number, 32 for the row.
    const LONG texts = 2 * static_cast<LONG>(8 + 7 + 6 + 13 + 3 + 3000 + 3 + 3000);
    const LONG numbers = 8 * (1 + 2 * 2 + 1);
    EXPECT_EQ(Props(message.get(), {PR_MESSAGE_SIZE}).number(), texts + numbers + 200000 + 32);
    EXPECT_EQ(Props(message.get(), {PR_MESSAGE_FLAGS}).number() & MSGFLAG_HASATTACH, MSGFLAG_HASATTACH);
    ASSERT_EQ(set(message.get(), number_prop(PR_IMPORTANCE, 2)), S_OK);
    ASSERT_EQ(message->SaveChanges(KEEP_OPEN_READWRITE), S_OK);
    EXPECT_EQ(Props(message.get(), {PR_MESSAGE_SIZE}).number(), texts + numbers + 200000 + 32);
}

// Pieces of 16,384 units: such that have a byte a unit, and one that has not.
TEST_F(MapiStore, LongTextsOfAllKindsComeBackAsTheyWere) {
    const auto kept_bytes = [] {
        return std::stoll(query(sandbox_home() / "mail.db", "SELECT coalesce(sum(length(bytes)), 0) FROM chunk"));
    };
    std::u16string text;
    for (int i = 0; i < 3 * 16384 + 1000; ++i) {
        text += i % 10 == 9 ? u' ' : static_cast<char16_t>(i / 16384 == 2 ? 0xE0 + i % 30 : u'a' + i % 26);
    }
    text[16384 + 5000] = u'\u0416';
    text.replace(16384 * 3 + 900, 10, u" lastword ");
    const long long before = kept_bytes();
    Ptr<IMessage> message;
    ASSERT_EQ(folder_->CreateMessage(nullptr, 0, message.out()), S_OK);
    {
        Ptr<IStream> stream;
        ASSERT_EQ(message->OpenProperty(PR_BODY_W, &IID_IStream, 0, MAPI_CREATE | MAPI_MODIFY, stream.unknown()), S_OK);
        ASSERT_EQ(stream->Write(text.data(), static_cast<ULONG>(text.size() * 2), nullptr), S_OK);
        ASSERT_EQ(stream->Commit(0), S_OK);
    }
    ASSERT_EQ(message->SaveChanges(0), S_OK);
    EXPECT_EQ(kept_bytes() - before, 2 * 16384 + 2 * 16384 + 1000);
    const Bytes id = id_of(message.get());
    message = mail_->message(id);
    for (const ULONG size : {1000000u, 32768u, 777u, 1u}) {
        Ptr<IStream> stream;
        ASSERT_EQ(message->OpenProperty(PR_BODY_W, &IID_IStream, 0, 0, stream.unknown()), S_OK);
        std::string read;
        std::string buffer(size, 0);
        ULONG got = 0;
        while (SUCCEEDED(stream->Read(buffer.data(), size, &got)) && got != 0) {
            read.append(buffer, 0, got);
        }
        ASSERT_EQ(read.size(), text.size() * 2) << size;
        EXPECT_EQ(std::memcmp(read.data(), text.data(), read.size()), 0) << size;
    }
    // What is found of it is found when it is saved again, too.
    const auto found = [&] {
        Ptr<IMAPITable> table;
        EXPECT_EQ(mail_->extras()->Find(u"lastword", table.out()), S_OK);
        return Rows(table.get()).size();
    };
    EXPECT_EQ(found(), 1u);
    ASSERT_EQ(set(message.get(), text_prop(PR_SUBJECT_W, u"another")), S_OK);
    ASSERT_EQ(message->SaveChanges(0), S_OK);
    EXPECT_EQ(found(), 1u);
    // Copies are written as what they are copied from.
    ASSERT_EQ(folder_->CopyMessages(EntryList({id}), nullptr, folder_.get(), 0, nullptr, 0), S_OK);
    EXPECT_EQ(found(), 2u);
    EXPECT_EQ(kept_bytes() - before, 2 * (2 * 16384 + 2 * 16384 + 1000));
}

TEST_F(MapiStore, LongValuesOfRecipientsGoWithThem) {
    const auto long_values = [] { return query(sandbox_home() / "mail.db", "SELECT count(*) FROM blob"); };
    const std::string before = long_values();
    const std::u16string names[] = {std::u16string(2000, u'a'), std::u16string(2000, u'b')};
    Ptr<IMessage> message = mail_->message(mail_->add(folder_.get(), u"x"));
    const auto row = [&](int i) { return std::vector<SPropValue>{text_prop(PR_DISPLAY_NAME_W, names[i])}; };
    ASSERT_EQ(message->ModifyRecipients(0, Recipients({row(0)})), S_OK);
    ASSERT_EQ(message->SaveChanges(KEEP_OPEN_READWRITE), S_OK);
    // The first one stays, and its name is that of the kept message.
    ASSERT_EQ(message->ModifyRecipients(MODRECIP_ADD, Recipients({row(1)})), S_OK);
    ASSERT_EQ(message->SaveChanges(KEEP_OPEN_READWRITE), S_OK);
    EXPECT_EQ(long_values(), std::to_string(std::stoi(before) + 2));
    Ptr<IMAPITable> table;
    ASSERT_EQ(message->GetRecipientTable(MAPI_UNICODE, table.out()), S_OK);
    ASSERT_EQ(columns(table.get(), {PR_DISPLAY_NAME_W}), S_OK);
    {
        const Rows rows(table.get());
        ASSERT_EQ(rows.size(), 2u);
        EXPECT_EQ(rows.text(0, 0), names[0]);
        EXPECT_EQ(rows.text(1, 0), names[1]);
    }
    ASSERT_EQ(message->ModifyRecipients(0, Recipients({})), S_OK);
    ASSERT_EQ(message->SaveChanges(0), S_OK);
    EXPECT_EQ(long_values(), before);
}

TEST_F(MapiStore, AttachmentsAndStreams) {
    const Bytes id = mail_->add(folder_.get(), u"x");
    std::string data(3 * 1000 * 1000 + 7, 0);
    for (std::size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<char>(i * 2654435761u >> 13);
    }
    {
        Ptr<IMessage> message = mail_->message(id);
        ULONG number = 9;
        Ptr<IAttach> attach;
        ASSERT_EQ(message->CreateAttach(nullptr, 0, &number, attach.out()), S_OK);
        EXPECT_EQ(number, 0u);
        ASSERT_EQ(set(attach.get(), text_prop(PR_ATTACH_LONG_FILENAME_W, u"data.bin")), S_OK);
        Ptr<IStream> stream;
        EXPECT_EQ(attach->OpenProperty(PR_ATTACH_DATA_BIN, &IID_IStream, 0, MAPI_MODIFY, stream.unknown()),
                  MAPI_E_NOT_FOUND);
        ASSERT_EQ(
            attach->OpenProperty(PR_ATTACH_DATA_BIN, &IID_IStream, 0, MAPI_MODIFY | MAPI_CREATE, stream.unknown()),
            S_OK);
        for (std::size_t at = 0; at < data.size(); at += 10000) {
            ULONG written = 0;
            const auto size = static_cast<ULONG>(std::min<std::size_t>(10000, data.size() - at));
            ASSERT_EQ(stream->Write(data.data() + at, size, &written), S_OK);
            ASSERT_EQ(written, size);
        }
        stream.reset();
        ASSERT_EQ(attach->SaveChanges(0), S_OK);
        EXPECT_FALSE(Props(mail_->message(id).get(), {PR_HASATTACH})[0].Value.b);
        ASSERT_EQ(message->SaveChanges(0), S_OK);
    }
    Ptr<IMessage> message = mail_->message(id);
    EXPECT_TRUE(Props(message.get(), {PR_HASATTACH})[0].Value.b);
    EXPECT_GT(Props(message.get(), {PR_MESSAGE_SIZE}).number(), 3000000);
    Ptr<IMAPITable> table;
    ASSERT_EQ(message->GetAttachmentTable(0, table.out()), S_OK);
    {
        const Rows rows(table.get());
        ASSERT_EQ(rows.size(), 1u);
        EXPECT_EQ(rows.text(0, 1), u"data.bin");
    }
    Ptr<IAttach> attach;
    ASSERT_EQ(message->OpenAttach(0, nullptr, 0, attach.out()), S_OK);
    EXPECT_EQ(Props(attach.get(), {PR_ATTACH_DATA_BIN}).error(0), MAPI_E_NOT_ENOUGH_MEMORY);
    Ptr<IStream> stream;
    ASSERT_EQ(attach->OpenProperty(PR_ATTACH_DATA_BIN, &IID_IStream, 0, 0, stream.unknown()), S_OK);
    STATSTG stat = {};
    ASSERT_EQ(stream->Stat(&stat, STATFLAG_NONAME), S_OK);
    EXPECT_EQ(stat.cbSize.QuadPart, data.size());
    std::string back(data.size(), 0);
    for (std::size_t at = 0; at < back.size();) {
        ULONG got = 0;
        ASSERT_GE(stream->Read(back.data() + at, 7777, &got), 0);
        if (got == 0) break;
        at += got;
    }
    EXPECT_TRUE(back == data);
    LARGE_INTEGER move;
    move.QuadPart = -5;
    ULARGE_INTEGER where = {};
    ASSERT_EQ(stream->Seek(move, STREAM_SEEK_END, &where), S_OK);
    char tail[10] = {};
    ULONG got = 0;
    EXPECT_EQ(stream->Read(tail, 10, &got), S_FALSE);
    EXPECT_EQ(Bytes(tail, got), data.substr(data.size() - 5));
    ASSERT_EQ(message->DeleteAttach(0, 0, nullptr, 0), S_OK);
    EXPECT_EQ(message->OpenAttach(0, nullptr, 0, attach.out()), MAPI_E_NOT_FOUND);
    ASSERT_EQ(message->SaveChanges(0), S_OK);
    EXPECT_FALSE(Props(message.get(), {PR_HASATTACH})[0].Value.b);
    move.QuadPart = 0;
    ASSERT_EQ(stream->Seek(move, STREAM_SEEK_SET, nullptr), S_OK);
    std::string gone(100000, 0);
    EXPECT_EQ(stream->Read(gone.data(), 100000, &got), MAPI_E_OBJECT_CHANGED);
    ULONG number = 0;
    ASSERT_EQ(message->CreateAttach(nullptr, 0, &number, attach.out()), S_OK);
    EXPECT_EQ(number, 1u);
}

TEST_F(MapiStore, StreamsOfAMessageAreWrittenAnewAndExtended) {
    Ptr<IMessage> message = mail_->message(mail_->add(folder_.get(), u"x"));
    const auto write = [&](ULONG flags, LONGLONG at, const std::string& text) {
        Ptr<IStream> stream;
        ASSERT_EQ(message->OpenProperty(PR_CE_MIME_TEXT, &IID_IStream, 0, flags, stream.unknown()), S_OK);
        LARGE_INTEGER move;
        move.QuadPart = at;
        ASSERT_EQ(stream->Seek(move, STREAM_SEEK_SET, nullptr), S_OK);
        ASSERT_EQ(stream->Write(text.data(), static_cast<ULONG>(text.size()), nullptr), S_OK);
        ASSERT_EQ(stream->Commit(0), S_OK);
    };
    write(MAPI_CREATE | MAPI_MODIFY, 0, "hello");
    EXPECT_EQ(Props(message.get(), {PR_CE_MIME_TEXT}).bytes(), "hello");
    ASSERT_EQ(message->SaveChanges(0), S_OK);
    write(MAPI_MODIFY, 3, "p!!!");
    EXPECT_EQ(Props(message.get(), {PR_CE_MIME_TEXT}).bytes(), "help!!!");
    EXPECT_EQ(Props(mail_->message(id_of(message.get())).get(), {PR_CE_MIME_TEXT}).bytes(), "hello");
    ASSERT_EQ(message->SaveChanges(0), S_OK);
    EXPECT_EQ(Props(mail_->message(id_of(message.get())).get(), {PR_CE_MIME_TEXT}).bytes(), "help!!!");
    // Sizes around the limits of what is kept in the row, in one piece, in memory.
    for (const std::size_t size : {1023u, 1024u, 1025u, 32767u, 32768u, 32769u, 65535u, 65536u, 65537u, 200000u}) {
        write(MAPI_CREATE | MAPI_MODIFY, 0, std::string(size, static_cast<char>('a' + size % 26)));
        ASSERT_EQ(message->SaveChanges(0), S_OK);
        Ptr<IStream> stream;
        ASSERT_EQ(message->OpenProperty(PR_CE_MIME_TEXT, &IID_IStream, 0, 0, stream.unknown()), S_OK);
        std::string back(size + 10, 0);
        ULONG got = 0;
        ASSERT_EQ(stream->Read(back.data(), static_cast<ULONG>(back.size()), &got), S_FALSE);
        EXPECT_EQ(back.substr(0, got), std::string(size, static_cast<char>('a' + size % 26)));
        EXPECT_EQ(Props(message.get(), {PR_CE_MIME_TEXT}).has(0), size <= 32768);
    }
}

TEST_F(MapiStore, CopyToCopiesAllThatIsNotComputed) {
    Ptr<IMessage> from = mail_->message(mail_->add(folder_.get(), u"original"));
    const std::u16string long_text(50000, u'z');
    SPropValue values[] = {text_prop(PR_COMMENT_W, u"c"), text_prop(PR_BODY_W, long_text)};
    ASSERT_EQ(from->SetProps(2, values, nullptr), S_OK);
    ULONG number = 0;
    Ptr<IAttach> attach;
    ASSERT_EQ(from->CreateAttach(nullptr, 0, &number, attach.out()), S_OK);
    ASSERT_EQ(set(attach.get(), text_prop(PR_ATTACH_FILENAME_W, u"f")), S_OK);
    ASSERT_EQ(attach->SaveChanges(0), S_OK);
    attach.reset();
    ASSERT_EQ(from->SaveChanges(0), S_OK);
    Ptr<IMessage> to;
    ASSERT_EQ(folder_->CreateMessage(nullptr, 0, to.out()), S_OK);
    SPropTagArray excluded = {1, {PR_COMMENT_W}};
    ASSERT_EQ(from->CopyTo(0, nullptr, &excluded, 0, nullptr, &IID_IMessage, to.get(), 0, nullptr), S_OK);
    ASSERT_EQ(to->SaveChanges(0), S_OK);
    const Props props(to.get(), {PR_SUBJECT_W, PR_COMMENT_W, PR_HASATTACH});
    EXPECT_EQ(props.text(0), u"original");
    EXPECT_FALSE(props.has(1));
    EXPECT_EQ(props[2].Value.b, 1);
    Ptr<IStream> stream;
    ASSERT_EQ(to->OpenProperty(PR_BODY_W, &IID_IStream, 0, 0, stream.unknown()), S_OK);
    std::u16string back(50000, u' ');
    ULONG got = 0;
    EXPECT_EQ(stream->Read(back.data(), 100000, &got), S_OK);
    EXPECT_TRUE(back == long_text);
}

TEST_F(MapiStore, UnsupportedCallsSaySo) {
    Ptr<IMessage> message = mail_->message(mail_->add(folder_.get(), u"x"));
    IUnknown* object = nullptr;
    EXPECT_EQ(message->SubmitMessage(0), MAPI_E_NO_SUPPORT);
    EXPECT_EQ(folder_->EmptyFolder(0, nullptr, 0), MAPI_E_NO_SUPPORT);
    EXPECT_EQ(folder_->SetSearchCriteria(nullptr, nullptr, 0), MAPI_E_NO_SUPPORT);
    EXPECT_EQ(mail_->session->OpenAddressBook(0, nullptr, 0, &object), MAPI_E_NO_SUPPORT);
    EXPECT_EQ(mail_->session->AdminServices(0, &object), MAPI_E_NO_SUPPORT);
    EXPECT_EQ(mail_->store->NotifyNewMail(nullptr), MAPI_E_NO_SUPPORT);
    LPMAPIERROR error = nullptr;
    ASSERT_EQ(mail_->store->GetLastError(MAPI_E_NO_SUPPORT, MAPI_UNICODE, &error), S_OK);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(std::u16string(error->lpszError), u"The operation is not available.");
    MAPIFreeBuffer(error);
    EXPECT_EQ(message->QueryInterface(IID_IMAPIFolder, reinterpret_cast<void**>(&object)), E_NOINTERFACE);
}

TEST_F(MapiStore, LogoffEndsEverything) {
    const Bytes id = mail_->add(folder_.get(), u"x");
    Ptr<IMessage> message = mail_->message(id);
    ASSERT_EQ(mail_->session->Logoff(0, 0, 0), S_OK);
    EXPECT_EQ(Props(message.get(), {PR_SUBJECT_W}).result, MAPI_E_END_OF_SESSION);
    EXPECT_EQ(mail_->session->Logoff(0, 0, 0), MAPI_E_END_OF_SESSION);
    EXPECT_FALSE(mail_->message(id));
}

TEST_F(MapiStore, BatchIsKeptWholeOrNotAtAll) {
    Ptr<IZrMail> extras = mail_->extras();
    ASSERT_EQ(extras->BeginBatch(), S_OK);
    EXPECT_EQ(extras->BeginBatch(), E_UNEXPECTED);
    Ptr<IMessage> kept;
    ASSERT_EQ(folder_->CreateMessage(nullptr, 0, kept.out()), S_OK);
    ASSERT_EQ(set(kept.get(), text_prop(PR_SUBJECT_W, u"kept")), S_OK);
    ASSERT_EQ(kept->SaveChanges(0), S_OK);
    EXPECT_EQ(Props(kept.get(), {PR_SUBJECT_W}).text(), u"kept");
    EXPECT_THAT(subjects(folder_.get()), IsEmpty());
    ASSERT_EQ(extras->CommitBatch(), S_OK);
    EXPECT_THAT(subjects(folder_.get()), ElementsAre(u"kept"));
    EXPECT_EQ(Props(kept.get(), {PR_SUBJECT_W}).text(), u"kept");
    ASSERT_EQ(extras->BeginBatch(), S_OK);
    Ptr<IMessage> dropped;
    ASSERT_EQ(folder_->CreateMessage(nullptr, 0, dropped.out()), S_OK);
    ASSERT_EQ(dropped->SaveChanges(0), S_OK);
    ASSERT_EQ(set(kept.get(), text_prop(PR_SUBJECT_W, u"changed")), S_OK);
    ASSERT_EQ(kept->SaveChanges(0), S_OK);
    ASSERT_EQ(extras->RollbackBatch(), S_OK);
    EXPECT_THAT(subjects(folder_.get()), ElementsAre(u"kept"));
    EXPECT_EQ(Props(dropped.get(), {PR_SUBJECT_W}).result, MAPI_E_OBJECT_DELETED);
    EXPECT_EQ(Props(kept.get(), {PR_SUBJECT_W}).text(), u"kept");
    EXPECT_EQ(extras->CommitBatch(), E_UNEXPECTED);
}

}  // namespace
}  // namespace zr::test
