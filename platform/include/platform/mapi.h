#pragma once

// Messaging structures: property tags and values, and address lists, with the members that MAPI documents.
//
// A property tag is an identifier (upper 16 bits) and a type (lower 16 bits); the type says which member of the value
// is set. Who allocated a structure releases it; the platform keeps no pointer to one after a call.

#include <cstddef>

#include "platform/types.h"

inline constexpr ULONG PT_UNSPECIFIED = 0x0000;
inline constexpr ULONG PT_NULL = 0x0001;
inline constexpr ULONG PT_I2 = 0x0002;
inline constexpr ULONG PT_SHORT = PT_I2;
inline constexpr ULONG PT_LONG = 0x0003;
inline constexpr ULONG PT_I4 = PT_LONG;
inline constexpr ULONG PT_R4 = 0x0004;
inline constexpr ULONG PT_DOUBLE = 0x0005;
inline constexpr ULONG PT_CURRENCY = 0x0006;
inline constexpr ULONG PT_APPTIME = 0x0007;
inline constexpr ULONG PT_ERROR = 0x000A;
inline constexpr ULONG PT_BOOLEAN = 0x000B;
inline constexpr ULONG PT_OBJECT = 0x000D;
inline constexpr ULONG PT_I8 = 0x0014;
inline constexpr ULONG PT_STRING8 = 0x001E;
inline constexpr ULONG PT_UNICODE = 0x001F;
inline constexpr ULONG PT_SYSTIME = 0x0040;
inline constexpr ULONG PT_CLSID = 0x0048;
inline constexpr ULONG PT_BINARY = 0x0102;

constexpr ULONG PROP_TYPE(ULONG tag) {
    return tag & 0xFFFF;
}
constexpr ULONG PROP_ID(ULONG tag) {
    return tag >> 16;
}
constexpr ULONG PROP_TAG(ULONG type, ULONG id) {
    return (id << 16) | type;
}

inline constexpr ULONG PR_RECIPIENT_TYPE = PROP_TAG(PT_LONG, 0x0C15);
inline constexpr ULONG PR_DISPLAY_NAME_W = PROP_TAG(PT_UNICODE, 0x3001);
inline constexpr ULONG PR_EMAIL_ADDRESS_W = PROP_TAG(PT_UNICODE, 0x3003);

// Values of PR_RECIPIENT_TYPE.
inline constexpr LONG MAPI_ORIG = 0;
inline constexpr LONG MAPI_TO = 1;
inline constexpr LONG MAPI_CC = 2;
inline constexpr LONG MAPI_BCC = 3;

struct SBinary {
    ULONG cb;
    BYTE* lpb;
};
using LPSBinary = SBinary*;

// The value of a property; the tag's type names the member.
union _PV {
    SHORT i;           // PT_I2
    LONG l;            // PT_LONG
    ULONG ul;          // PT_LONG, unsigned
    float flt;         // PT_R4
    double dbl;        // PT_DOUBLE
    USHORT b;          // PT_BOOLEAN
    double at;         // PT_APPTIME
    FILETIME ft;       // PT_SYSTIME
    LPSTR lpszA;       // PT_STRING8
    SBinary bin;       // PT_BINARY
    LPWSTR lpszW;      // PT_UNICODE
    GUID* lpguid;      // PT_CLSID
    LARGE_INTEGER li;  // PT_I8, PT_CURRENCY (in ten-thousandths)
    SCODE err;         // PT_ERROR
    LONG x;            // PT_NULL, PT_OBJECT: no value
};

struct SPropValue {
    ULONG ulPropTag;
    ULONG dwAlignPad;
    union _PV Value;
};
using LPSPropValue = SPropValue*;

// One recipient: its properties.
struct _ADRENTRY {
    ULONG ulReserved1;  // 0
    ULONG cValues;
    LPSPropValue rgPropVals;
};
using ADRENTRY = _ADRENTRY;
using LPADRENTRY = ADRENTRY*;

// A list of recipients. Allocate CbNewADRLIST(n) bytes for n of them: aEntries is as long as cEntries says.
struct _ADRLIST {
    ULONG cEntries;
    ADRENTRY aEntries[1];
};
using ADRLIST = _ADRLIST;
using LPADRLIST = ADRLIST*;

constexpr std::size_t CbNewADRLIST(ULONG entries) {
    return offsetof(ADRLIST, aEntries) + entries * sizeof(ADRENTRY);
}
