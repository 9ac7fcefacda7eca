#include "zr/stores/directory.h"

#include <platform/platform.h>

#include "zr/base/text.h"

namespace zr {
namespace {

constexpr int kEmailFields =
    Contact::CONTACT_FIELD_EMAIL1 | Contact::CONTACT_FIELD_EMAIL2 | Contact::CONTACT_FIELD_EMAIL3;

}  // namespace

std::vector<Owner> owners_of(Store& store, const std::string& address) {
    std::vector<Owner> owners;
    for (LONG oid = store.with_email(address); oid != 0; oid = store.with_email(address, oid)) {
        const ComPtr<IContact> contact = store.with_oid(oid);
        if (contact) owners.push_back({oid, read_contact(contact.get(), Extent::Fields)});
    }
    return owners;
}

Directory::Directory() : manager_(OutlookManager::GetContactsManagerInstance(ContactsManager::CM_TYPE_EMAIL)) {
    const LONG result = manager_->Initialize();
    if (FAILED(result)) throw store_failure(result, "opening the contact store");
}

Directory::~Directory() {
    manager_->Uninitialize(0);
    OutlookManager::ReleaseContactsManagerInstance(manager_);
}

std::vector<Owner> Directory::owners_of(const std::string& address) {
    std::u16string pattern = to_utf16(address);
    Contact* contact = nullptr;
    switch (manager_->FindContact(pattern.data(), kEmailFields, 1, 0, 0, contact)) {
        case ContactsManager::CM_NONE:
            return {};
        case ContactsManager::CM_FAILED:
            throw Failure{Exit::StoreFailed, address + ": the search failed"};
        default:
            manager_->ReleaseContact(contact);
            return zr::owners_of(store_, address);
    }
}

}  // namespace zr
