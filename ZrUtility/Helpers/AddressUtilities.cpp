#include "ZrUtility/Helpers/AddressUtilities.h"

#include <algorithm>
#include <string_view>

#include "ZrUtility/Helpers/StringUtilities.h"
#include "platform/base.h"

namespace {

constexpr WCHAR kDelete = 0x7F;

bool isControl(WCHAR c) {
    return c < u' ' || c == kDelete;
}

// Characters that no name or address consists of alone.
bool isUnusable(WCHAR c) {
    return c == kDelete ||
           (c != 0 && std::u16string_view(u" \"(),:;<>@[\\]^`{|}").find(c) != std::u16string_view::npos);
}

// Characters that the text between angle brackets loses.
bool isDroppedFromAddress(WCHAR c) {
    return isControl(c) || std::u16string_view(u"\"<\\^`{|}").find(c) != std::u16string_view::npos;
}

// Terminates what was copied from `start` to `end`, without its trailing spaces, and returns its length.
unsigned int finish(WCHAR* start, WCHAR* end) {
    while (end != start && end[-1] == u' ') {
        --end;
    }
    *end = 0;
    return static_cast<unsigned int>(end - start);
}

// Copies at most `room` characters and terminates them; negative room is no buffer at all. Returns how many it copied.
int copyBounded(WCHAR* to, const WCHAR* from, std::size_t count, int room) {
    if (room < 0) return 0;
    const std::size_t copied = std::min(count, static_cast<std::size_t>(room));
    std::copy_n(from, copied, to);
    to[copied] = 0;
    return static_cast<int>(copied);
}

// A text's length and terminator, in the 16 bits that an entry's counts have; nothing for a property without a text.
SHORT countWithTerminator(const WCHAR* text) {
    return text != nullptr ? static_cast<SHORT>(wcslen(text) + 1) : SHORT{0};
}

// One recipient being taken off a list.
struct RecipientReader {
    enum class State { Leading, Name, Address, Trailing };
    enum class Outcome { Ended, TextAfterAddress };

    WCHAR* name;
    WCHAR* address;
    State state = State::Leading;

    // Reads up to the separator or the terminator, and leaves `text` there.
    Outcome read(const WCHAR*& text, bool commaSeparates) {
        for (; *text != 0 && *text != u';' && !(commaSeparates && *text == u','); ++text) {
            if (!take(*text)) return Outcome::TextAfterAddress;
        }
        return Outcome::Ended;
    }

private:
    // False for a character that must not be there.
    bool take(WCHAR c) {
        switch (state) {
            case State::Leading:
                takeLeading(c);
                return true;
            case State::Name:
                takeName(c);
                return true;
            case State::Address:
                if (c == u'>') {
                    state = State::Trailing;
                } else if (!isDroppedFromAddress(c)) {
                    *address++ = c;
                }
                return true;
            case State::Trailing:
                return c <= u' ';
        }
        return false;
    }

    void takeLeading(WCHAR c) {
        if (c <= u' ') return;
        if (c == u'<') {
            state = State::Address;
            return;
        }
        state = State::Name;
        if (c != u'"') takeName(c);
    }

    void takeName(WCHAR c) {
        if (c == u'"' || c == u'<') {
            *name++ = u' ';
            if (c == u'<') state = State::Address;
        } else if (c >= u' ' && c != u'>') {
            *name++ = c;
        }
    }
};

}  // namespace

int AddressUtilities::IsValidRecipientNameOrAddress(WCHAR* s) {
    if (s == nullptr) return 0;
    for (; *s != 0; ++s) {
        if (!isUnusable(*s) && s[1] >= u' ') return 1;
    }
    return 0;
}

void AddressUtilities::TrimRecipientNameOrAddress(WCHAR* s) {
    if (s == nullptr) return;
    for (WCHAR* end = s + wcslen(s); end != s; --end) {
        const WCHAR last = end[-1];
        if (!isControl(last) && last != u' ' && last != u',' && last != u';') return;
        end[-1] = 0;
    }
}

void AddressUtilities::TrimMAPIRecipient(WCHAR* s) {
    if (s == nullptr) return;
    while (*s != 0 && !isControl(*s)) {
        ++s;
    }
    if (*s != 0) *s = 0;
}

void AddressUtilities::NextRecipient(WCHAR* text, WCHAR** next, WCHAR* name, unsigned int, unsigned int* nameLen,
                                     WCHAR* address, unsigned int, unsigned int* addressLen, int commaSeparates) {
    *nameLen = 0;
    *addressLen = 0;
    *next = nullptr;
    const WCHAR* at = text;
    RecipientReader reader{name, address};
    if (reader.read(at, commaSeparates != 0) == RecipientReader::Outcome::Ended) {
        if (*at != 0) *next = text + (at - text) + 1;
        *nameLen = finish(name, reader.name);
        *addressLen = finish(address, reader.address);
        return;
    }
    // Not "Name <address>" after all: the text as it stands is the name. No ';' stands before `at`.
    while (*at != 0 && *at != u';') {
        ++at;
    }
    const std::size_t length = at - text;
    std::copy_n(text, length, name);
    name[length] = 0;
    *nameLen = static_cast<unsigned int>(length);
    *address = 0;
    if (*at != 0) *next = text + length + 1;
}

void AddressUtilities::KelRecipientsToMAPIRecipients(WCHAR* text, WCHAR** address, WCHAR** name) {
    *address = text;
    *name = nullptr;
    std::size_t at = 0;
    std::size_t last = 0;
    for (; text[at] != u'<'; ++at) {
        if (text[at] == 0) return;
        if (text[at] != u' ') last = at;
    }
    text[last + 1] = 0;
    *name = text;
    *address = StringUtilities::CutBracketedAddress(text + at + 1);
}

void AddressUtilities::ParseEmailAddress(WCHAR* text, WCHAR* name, int* nameLen, WCHAR* address, int* addressLen) {
    const WCHAR* open = wcschr(text, u'<');
    const WCHAR* close = wcschr(text, u'>');
    if (open != nullptr && close != nullptr && close - open > 1) {
        *addressLen = copyBounded(address, open + 1, close - open - 1, *addressLen);
        *nameLen = copyBounded(name, text, open - text, *nameLen);
    } else {
        *addressLen = copyBounded(address, text, wcslen(text), *addressLen);
        *nameLen = copyBounded(name, text, 0, *nameLen);
    }
}

int AddressUtilities::CalculateMemoryForRecipient(struct _ADRLIST* list) {
    constexpr ULONG kListBytes = 12;
    if (list->cEntries == 0) return 0;
    ULONG total = kListBytes;
    for (ULONG i = 0; i < list->cEntries; ++i) {
        const ADRENTRY& entry = list->aEntries[i];
        SHORT nameCount = 0;
        SHORT addressCount = 0;
        bool isRecipient = false;
        for (ULONG j = 0; j < entry.cValues; ++j) {
            const SPropValue& property = entry.rgPropVals[j];
            if (property.ulPropTag == PR_RECIPIENT_TYPE) isRecipient = true;
            if (property.ulPropTag == PR_DISPLAY_NAME_W) nameCount = countWithTerminator(property.Value.lpszW);
            if (property.ulPropTag == PR_EMAIL_ADDRESS_W) addressCount = countWithTerminator(property.Value.lpszW);
        }
        if (isRecipient) total += 2 * static_cast<ULONG>(nameCount + addressCount + 3);
    }
    return static_cast<int>(total);
}
