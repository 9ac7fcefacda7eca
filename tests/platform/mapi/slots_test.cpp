// The interfaces' virtual functions stand where handheld code looks for them.

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <type_traits>

#include "platform/mapi.h"

namespace {

// A pointer to a virtual member function holds its place in the table, in bytes and odd (on ARM in its second word).
template <class Member>
std::size_t slot_of(Member member) {
    std::size_t words[2] = {};
    static_assert(sizeof member == sizeof words);
    std::memcpy(words, &member, sizeof words);
#if defined(__arm__) || defined(__aarch64__)
    return words[0] / sizeof(void*);
#else
    return (words[0] - 1) / sizeof(void*);
#endif
}

template <class... Members>
void expect_from(std::size_t first, Members... members) {
    for (const std::size_t slot : {slot_of(members)...}) {
        EXPECT_EQ(slot, first++);
    }
}

TEST(MapiSlots, UnknownThenProp) {
    expect_from(0, &IMAPIProp::QueryInterface, &IMAPIProp::AddRef, &IMAPIProp::Release, &IMAPIProp::GetLastError,
                &IMAPIProp::SaveChanges, &IMAPIProp::GetProps, &IMAPIProp::GetPropList, &IMAPIProp::OpenProperty,
                &IMAPIProp::SetProps, &IMAPIProp::DeleteProps, &IMAPIProp::CopyTo, &IMAPIProp::CopyProps,
                &IMAPIProp::GetNamesFromIDs, &IMAPIProp::GetIDsFromNames);
}

TEST(MapiSlots, Table) {
    expect_from(3, &IMAPITable::GetLastError, &IMAPITable::Advise, &IMAPITable::Unadvise, &IMAPITable::GetStatus,
                &IMAPITable::SetColumns, &IMAPITable::QueryColumns, &IMAPITable::GetRowCount, &IMAPITable::SeekRow,
                &IMAPITable::SeekRowApprox, &IMAPITable::QueryPosition, &IMAPITable::FindRow, &IMAPITable::Restrict,
                &IMAPITable::CreateBookmark, &IMAPITable::FreeBookmark, &IMAPITable::SortTable,
                &IMAPITable::QuerySortOrder, &IMAPITable::QueryRows, &IMAPITable::Abort, &IMAPITable::ExpandRow,
                &IMAPITable::CollapseRow, &IMAPITable::WaitForCompletion, &IMAPITable::GetCollapseState,
                &IMAPITable::SetCollapseState);
}

TEST(MapiSlots, ContainerAndFolder) {
    expect_from(14, &IMAPIContainer::GetContentsTable, &IMAPIContainer::GetHierarchyTable, &IMAPIContainer::OpenEntry,
                &IMAPIContainer::SetSearchCriteria, &IMAPIContainer::GetSearchCriteria);
    expect_from(19, &IMAPIFolder::CreateMessage, &IMAPIFolder::CopyMessages, &IMAPIFolder::DeleteMessages,
                &IMAPIFolder::CreateFolder, &IMAPIFolder::CopyFolder, &IMAPIFolder::DeleteFolder,
                &IMAPIFolder::SetReadFlags, &IMAPIFolder::GetMessageStatus, &IMAPIFolder::SetMessageStatus,
                &IMAPIFolder::SaveContentsSort, &IMAPIFolder::EmptyFolder);
}

TEST(MapiSlots, Store) {
    expect_from(14, &IMsgStore::Advise, &IMsgStore::Unadvise, &IMsgStore::CompareEntryIDs, &IMsgStore::OpenEntry,
                &IMsgStore::SetReceiveFolder, &IMsgStore::GetReceiveFolder, &IMsgStore::GetReceiveFolderTable,
                &IMsgStore::StoreLogoff, &IMsgStore::AbortSubmit, &IMsgStore::GetOutgoingQueue,
                &IMsgStore::SetLockState, &IMsgStore::FinishedMsg, &IMsgStore::NotifyNewMail);
}

TEST(MapiSlots, Message) {
    expect_from(14, &IMessage::GetAttachmentTable, &IMessage::OpenAttach, &IMessage::CreateAttach,
                &IMessage::DeleteAttach, &IMessage::GetRecipientTable, &IMessage::ModifyRecipients,
                &IMessage::SubmitMessage, &IMessage::SetReadFlag);
}

TEST(MapiSlots, Session) {
    expect_from(3, &IMAPISession::GetLastError, &IMAPISession::GetMsgStoresTable, &IMAPISession::OpenMsgStore,
                &IMAPISession::OpenAddressBook, &IMAPISession::OpenProfileSection, &IMAPISession::GetStatusTable,
                &IMAPISession::OpenEntry, &IMAPISession::CompareEntryIDs, &IMAPISession::Advise,
                &IMAPISession::Unadvise, &IMAPISession::MessageOptions, &IMAPISession::QueryDefaultMessageOpt,
                &IMAPISession::EnumAdrTypes, &IMAPISession::QueryIdentity, &IMAPISession::Logoff,
                &IMAPISession::SetDefaultStore, &IMAPISession::AdminServices, &IMAPISession::ShowForm,
                &IMAPISession::PrepareForm);
    expect_from(22, &ICEMAPISession::CreateMsgStore, &ICEMAPISession::DeleteMsgStore);
}

// Without operations of its own: what its callers find are IMAPIProp's.
static_assert(std::is_base_of_v<IMAPIProp, IAttach> && sizeof(IAttach) == sizeof(IMAPIProp));

TEST(MapiSlots, MailExtras) {
    expect_from(3, &IZrMail::BeginBatch, &IZrMail::CommitBatch, &IZrMail::RollbackBatch, &IZrMail::Find,
                &IZrMail::LastErrorText, &IZrMail::get_StorePath);
}

TEST(MapiSlots, AdviseSink) {
    expect_from(3, &IMAPIAdviseSink::OnNotify);
}

}  // namespace
