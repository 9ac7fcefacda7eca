// Who sent this? Resolves addresses to contacts with the library's e-mail index, as a mail client does.
//
//   who_sent 'Jo Doe <jo.doe@example.org>; al@example.org'
//
// The contacts are those of the store in ZR_HOME; `zr contacts import` fills it.

#include <ZrUtility/ZrUtility.h>
#include <platform/platform.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

std::u16string wide(const char* utf8) {
    const int size = MultiByteToWideChar(CP_UTF8, 0, utf8, -1, nullptr, 0);
    std::u16string text(static_cast<std::size_t>(size), u'\0');
    MultiByteToWideChar(CP_UTF8, 0, utf8, -1, text.data(), size);
    return text;
}

std::string narrow(const WCHAR* text) {
    const int size = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    std::string utf8(static_cast<std::size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, -1, utf8.data(), size, nullptr, nullptr);
    utf8.resize(utf8.size() - 1);
    return utf8;
}

void resolve(ContactsManager& contacts, WCHAR* address) {
    constexpr int kEmailFields = 128 | 256 | 512;
    Contact* contact = nullptr;
    WCHAR* name = nullptr;
    switch (contacts.FindContact(address, kEmailFields, 1, 0, 0, contact)) {
        case ContactsManager::CM_ONE:
            if (FAILED(contact->get_FileAs(name))) break;
            std::printf("%s is %s\n", narrow(address).c_str(), narrow(name).c_str());
            break;
        case ContactsManager::CM_SEVERAL:
            std::printf("%s belongs to several contacts\n", narrow(address).c_str());
            break;
        case ContactsManager::CM_NONE:
            std::printf("%s is nobody in the contacts\n", narrow(address).c_str());
            break;
        default:
            std::printf("%s could not be looked up\n", narrow(address).c_str());
    }
    contacts.ReleaseContact(contact);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s RECIPIENTS\n", argv[0]);
        return 2;
    }
    ContactsManager* contacts = OutlookManager::GetContactsManagerInstance(ContactsManager::CM_TYPE_EMAIL);
    if (FAILED(contacts->Initialize())) {
        std::fprintf(stderr, "the contacts cannot be opened\n");
        return 1;
    }

    // Recipients come off the list one by one; each buffer has room for all of the text.
    std::u16string list = wide(argv[1]);
    std::vector<WCHAR> name(list.size());
    std::vector<WCHAR> address(list.size());
    for (WCHAR* rest = list.data(); rest && *rest;) {
        const auto room = static_cast<unsigned int>(list.size());
        unsigned int name_length = 0;
        unsigned int address_length = 0;
        AddressUtilities::NextRecipient(rest, &rest, name.data(), room, &name_length, address.data(), room,
                                        &address_length, 1);
        // A recipient without angle brackets comes back as a name.
        if (WCHAR* text = address_length ? address.data() : name.data(); *text) resolve(*contacts, text);
    }
    contacts->Uninitialize(0);
    OutlookManager::ReleaseContactsManagerInstance(contacts);
}
