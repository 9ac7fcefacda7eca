#include "zr/mail/recipients.h"

#include <ZrUtility/ZrUtility.h>

#include "zr/base/text.h"

namespace zr {

std::vector<Sender> split_recipients(std::string_view list) {
    std::vector<Sender> senders;
    std::u16string text = to_utf16(list);
    std::u16string name(text.size() + 1, u'\0');
    std::u16string address(text.size() + 1, u'\0');
    const auto room = static_cast<unsigned>(name.size());
    for (WCHAR* rest = text.data(); rest;) {
        WCHAR* next = nullptr;
        unsigned name_length = 0;
        unsigned address_length = 0;
        AddressUtilities::NextRecipient(rest, &next, name.data(), room, &name_length, address.data(), room,
                                        &address_length, 0);
        rest = next;
        // A recipient without angle brackets comes as a name.
        const bool bare = address_length == 0;
        std::u16string& found = bare ? name : address;
        if (!AddressUtilities::IsValidRecipientNameOrAddress(found.data())) continue;
        senders.push_back({bare ? "" : to_utf8({name.data(), name_length}),
                           to_utf8({found.data(), bare ? name_length : address_length})});
    }
    return senders;
}

}  // namespace zr
