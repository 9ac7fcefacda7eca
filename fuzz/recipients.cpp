// The recipient functions over any text. The first byte says how.

#include "ZrUtility/Helpers/AddressUtilities.h"
#include "support/input.h"

namespace {

using namespace zr::fuzz;

bool within(const WCHAR* at, const Block& text, std::size_t length) {
    return at >= text.get() && at <= text.get() + length;
}

void takeRecipients(const std::u16string& list, bool commaSeparates) {
    const Block text = copy(list);
    WCHAR* at = text.get();
    while (at != nullptr) {
        const std::size_t left = std::u16string_view(at).size();
        const Block name = block(left + 1);
        const Block address = block(left + 1);
        WCHAR* next = nullptr;
        unsigned int nameLength = 0;
        unsigned int addressLength = 0;
        AddressUtilities::NextRecipient(at, &next, name.get(), static_cast<unsigned int>(left + 1), &nameLength,
                                        address.get(), static_cast<unsigned int>(left + 1), &addressLength,
                                        commaSeparates);
        require(std::u16string_view(name.get()).size() == nameLength);
        require(std::u16string_view(address.get()).size() == addressLength);
        require(next == nullptr || (next > at && within(next, text, list.size())));
        at = next;
    }
    require(list == text.get());
}

void splitInPlace(const std::u16string& text) {
    const Block s = copy(text);
    WCHAR* address = nullptr;
    WCHAR* name = nullptr;
    AddressUtilities::KelRecipientsToMAPIRecipients(s.get(), &address, &name);
    require(within(address, s, text.size()));
    require(name == nullptr || name == s.get());
    require((name == nullptr) == (text.find(u'<') == std::u16string::npos));
}

void parse(const std::u16string& text, int room) {
    const Block s = copy(text);
    const Block name = block(room + 1);
    const Block address = block(room + 1);
    int nameLength = room;
    int addressLength = room;
    AddressUtilities::ParseEmailAddress(s.get(), name.get(), &nameLength, address.get(), &addressLength);
    require(nameLength <= room && std::u16string_view(name.get()).size() == static_cast<std::size_t>(nameLength));
    require(addressLength <= room &&
            std::u16string_view(address.get()).size() == static_cast<std::size_t>(addressLength));
}

void trim(const std::u16string& text) {
    const Block s = copy(text);
    AddressUtilities::TrimRecipientNameOrAddress(s.get());
    require(text.starts_with(s.get()));
    const Block mapi = copy(text);
    AddressUtilities::TrimMAPIRecipient(mapi.get());
    require(text.starts_with(mapi.get()));
    for (const WCHAR c : std::u16string_view(mapi.get())) {
        require(c >= u' ' && c != 0x7F);
    }
    AddressUtilities::IsValidRecipientNameOrAddress(s.get());
}

void countMemory(const std::u16string& text) {
    const Block s = copy(text);
    SPropValue properties[3] = {{PR_RECIPIENT_TYPE, 0, {}}, {PR_DISPLAY_NAME_W, 0, {}}, {PR_EMAIL_ADDRESS_W, 0, {}}};
    properties[1].Value.lpszW = s.get();
    properties[2].Value.lpszW = s.get();
    ADRLIST list{1, {{0, 3, properties}}};
    const int count = static_cast<SHORT>(text.size() + 1);
    require(AddressUtilities::CalculateMemoryForRecipient(&list) == 12 + 2 * (2 * count + 3));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    const std::u16string text = zr::fuzz::text(data + 1, size - 1);
    takeRecipients(text, (data[0] & 1) != 0);
    splitInPlace(text);
    parse(text, data[0] / 2);
    trim(text);
    countMemory(text);
    return 0;
}
