// GUIDs as text.

#include "platform/base.h"
#include "platform/com.h"

namespace {

constexpr INT kLength = 38;
// Where the 32 digits stand, byte by byte as they are written: Data1, Data2, Data3, then Data4.
constexpr int kBytePlace[16] = {1, 3, 5, 7, 10, 12, 15, 17, 20, 22, 25, 27, 29, 31, 33, 35};

void to_bytes(REFGUID guid, BYTE (&bytes)[16]) {
    for (int i = 0; i < 4; ++i) {
        bytes[i] = static_cast<BYTE>(guid.Data1 >> (24 - 8 * i));
    }
    for (int i = 0; i < 2; ++i) {
        bytes[4 + i] = static_cast<BYTE>(guid.Data2 >> (8 - 8 * i));
        bytes[6 + i] = static_cast<BYTE>(guid.Data3 >> (8 - 8 * i));
    }
    for (int i = 0; i < 8; ++i) {
        bytes[8 + i] = guid.Data4[i];
    }
}

GUID from_bytes(const BYTE (&bytes)[16]) {
    GUID guid = {};
    for (int i = 0; i < 4; ++i) {
        guid.Data1 = guid.Data1 << 8 | bytes[i];
    }
    guid.Data2 = static_cast<WORD>(bytes[4] << 8 | bytes[5]);
    guid.Data3 = static_cast<WORD>(bytes[6] << 8 | bytes[7]);
    for (int i = 0; i < 8; ++i) {
        guid.Data4[i] = bytes[8 + i];
    }
    return guid;
}

int digit_value(WCHAR digit) {
    if (digit >= u'0' && digit <= u'9') return digit - u'0';
    if (digit >= u'A' && digit <= u'F') return digit - u'A' + 10;
    if (digit >= u'a' && digit <= u'f') return digit - u'a' + 10;
    return -1;
}

// Reads no further than the first character that does not fit.
bool parse(LPCOLESTR text, GUID& guid) {
    constexpr WCHAR kShape[] = u"{dddddddd-dddd-dddd-dddd-dddddddddddd}";
    for (int i = 0; i <= kLength; ++i) {
        if (kShape[i] == u'd' ? digit_value(text[i]) < 0 : text[i] != kShape[i]) return false;
    }
    BYTE bytes[16];
    for (int i = 0; i < 16; ++i) {
        bytes[i] = static_cast<BYTE>(digit_value(text[kBytePlace[i]]) << 4 | digit_value(text[kBytePlace[i] + 1]));
    }
    guid = from_bytes(bytes);
    return true;
}

HRESULT from_text(LPCOLESTR text, GUID* guid, HRESULT failure) {
    if (guid == nullptr) return E_INVALIDARG;
    *guid = {};
    return text == nullptr || parse(text, *guid) ? S_OK : failure;
}

}  // namespace

INT StringFromGUID2(REFGUID guid, LPOLESTR text, INT size) {
    if (text == nullptr || size < kLength + 1) return 0;
    constexpr WCHAR kDigits[] = u"0123456789ABCDEF";
    constexpr WCHAR kFrame[] = u"{00000000-0000-0000-0000-000000000000}";
    for (int i = 0; i <= kLength; ++i) {
        text[i] = kFrame[i];
    }
    BYTE bytes[16];
    to_bytes(guid, bytes);
    for (int i = 0; i < 16; ++i) {
        text[kBytePlace[i]] = kDigits[bytes[i] >> 4];
        text[kBytePlace[i] + 1] = kDigits[bytes[i] & 15];
    }
    return kLength + 1;
}

HRESULT CLSIDFromString(LPCOLESTR text, CLSID* clsid) {
    return from_text(text, clsid, CO_E_CLASSSTRING);
}

HRESULT IIDFromString(LPCOLESTR text, IID* iid) {
    const bool length_fits = text == nullptr || wcsnlen(text, kLength + 1) == kLength;
    return from_text(text, iid, length_fits ? CO_E_IIDSTRING : E_INVALIDARG);
}
