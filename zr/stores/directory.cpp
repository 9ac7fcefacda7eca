#include "zr/stores/directory.h"

#include <platform/platform.h>

#include "zr/base/text.h"

namespace zr {
namespace {

constexpr int kEmailFields =
    Contact::CONTACT_FIELD_EMAIL1 | Contact::CONTACT_FIELD_EMAIL2 | Contact::CONTACT_FIELD_EMAIL3;

std::string text(Contact& contact, LONG (Contact::*get)(WCHAR*&)) {
    WCHAR* value = nullptr;
    return SUCCEEDED((contact.*get)(value)) && value ? to_utf8(value) : std::string();
}

Answer describe(Contact& contact) {
    Answer answer;
    contact.get_Oid(answer.oid);
    Card& card = answer.card;
    card[Field::FileAs] = text(contact, &Contact::get_FileAs);
    card[Field::Title] = text(contact, &Contact::get_Title);
    card[Field::FirstName] = text(contact, &Contact::get_FirstName);
    card[Field::MiddleName] = text(contact, &Contact::get_MiddleName);
    card[Field::LastName] = text(contact, &Contact::get_LastName);
    card[Field::Suffix] = text(contact, &Contact::get_Suffix);
    card[Field::Company] = text(contact, &Contact::get_CompanyName);
    card[Field::JobTitle] = text(contact, &Contact::get_JobTitle);
    card[Field::Email1] = text(contact, &Contact::get_Email1Address);
    card[Field::Email2] = text(contact, &Contact::get_Email2Address);
    card[Field::Email3] = text(contact, &Contact::get_Email3Address);
    return answer;
}

}  // namespace

Directory::Directory() : manager_(OutlookManager::GetContactsManagerInstance(ContactsManager::CM_TYPE_EMAIL)) {
    const LONG result = manager_->Initialize();
    if (FAILED(result)) throw store_failure(result, "opening the contact store");
}

Directory::~Directory() {
    manager_->Uninitialize(0);
    OutlookManager::ReleaseContactsManagerInstance(manager_);
}

Answer Directory::answer(const std::string& address) {
    std::u16string pattern = to_utf16(address);
    Contact* contact = nullptr;
    switch (manager_->FindContact(pattern.data(), kEmailFields, 1, 0, 0, contact)) {
        case ContactsManager::CM_NONE:
            return {Exit::None, {}, {}};
        case ContactsManager::CM_SEVERAL:
            return {Exit::Several, {}, {}};
        case ContactsManager::CM_ONE: {
            Answer answer = describe(*contact);
            manager_->ReleaseContact(contact);
            return answer;
        }
        default:
            throw Failure{Exit::StoreFailed, address + ": the search failed"};
    }
}

std::vector<Answer> Directory::all_with(const std::string& address) {
    const std::string wanted = folded(address);
    std::vector<Answer> found;
    Store store;
    const int count = store.count();
    for (int i = 1; i <= count; ++i) {
        const ComPtr<IContact> contact = store.at(i);
        if (!contact) continue;
        Card card = read_contact(contact.get(), Extent::Fields);
        for (const Field field : {Field::Email1, Field::Email2, Field::Email3}) {
            if (folded(card[field]) != wanted) continue;
            found.push_back({Exit::Ok, oid_of(contact.get()), std::move(card)});
            break;
        }
    }
    return found;
}

}  // namespace zr
