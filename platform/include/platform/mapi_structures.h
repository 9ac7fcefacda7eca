#pragma once

// Messaging structures: values, rows, address lists, restrictions, notifications, with the members that MAPI documents.
//
// A property's tag says which member of its value is set. Who allocated a structure releases it; the platform keeps no
// pointer to one after a call.

#include <cstddef>

#include "platform/mapi_tags.h"
#include "platform/types.h"

struct SBinary {
    ULONG cb;
    BYTE* lpb;
};
using LPSBinary = SBinary*;

// A list of byte strings: entry identifiers, in most calls.
struct SBinaryArray {
    ULONG cValues;
    SBinary* lpbin;
};
using ENTRYLIST = SBinaryArray;
using LPENTRYLIST = ENTRYLIST*;

// An entry identifier: opaque, as long as the call that handed it out said.
struct ENTRYID {
    BYTE abFlags[4];
    BYTE ab[1];
};
using LPENTRYID = ENTRYID*;

struct MAPIUID {
    BYTE ab[16];
};
using LPMAPIUID = MAPIUID*;

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

// A list of tags. Allocate CbNewSPropTagArray(n) bytes for n of them: aulPropTag is as long as cValues says.
struct SPropTagArray {
    ULONG cValues;
    ULONG aulPropTag[1];
};
using LPSPropTagArray = SPropTagArray*;

constexpr std::size_t CbNewSPropTagArray(ULONG tags) {
    return offsetof(SPropTagArray, aulPropTag) + tags * sizeof(ULONG);
}

// A list of tags of fixed length, laid out like an SPropTagArray.
#define SizedSPropTagArray(count, name) \
    struct {                            \
        ULONG cValues;                  \
        ULONG aulPropTag[count];        \
    } name

// Why a property could not be set, copied or deleted.
struct SPropProblem {
    ULONG ulIndex;  // in the list that was given
    ULONG ulPropTag;
    SCODE scode;
};
struct SPropProblemArray {
    ULONG cProblem;
    SPropProblem aProblem[1];
};
using LPSPropProblemArray = SPropProblemArray*;

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

// One row of a table: its columns. Laid out like an ADRENTRY.
struct SRow {
    ULONG ulAdrEntryPad;
    ULONG cValues;
    LPSPropValue lpProps;
};
using LPSRow = SRow*;

// Rows of a table; aRow is as long as cRows says. Each row's lpProps is a buffer of its own: FreeProws frees them all.
struct SRowSet {
    ULONG cRows;
    SRow aRow[1];
};
using LPSRowSet = SRowSet*;

constexpr std::size_t CbNewSRowSet(ULONG rows) {
    return offsetof(SRowSet, aRow) + rows * sizeof(SRow);
}

// --- the order of a table -------------------------------------------------------------------------------------------
inline constexpr ULONG TABLE_SORT_ASCEND = 0;
inline constexpr ULONG TABLE_SORT_DESCEND = 1;

struct SSortOrder {
    ULONG ulPropTag;
    ULONG ulOrder;  // TABLE_SORT_*
};
// aSort is as long as cSorts says.
struct SSortOrderSet {
    ULONG cSorts;
    ULONG cCategories;  // 0: there are no categories
    ULONG cExpanded;    // 0
    SSortOrder aSort[1];
};
using LPSSortOrderSet = SSortOrderSet*;

// --- restrictions: which rows a table shows, or which one is looked for
// ------------------------------------------------
inline constexpr ULONG RES_AND = 0;
inline constexpr ULONG RES_OR = 1;
inline constexpr ULONG RES_NOT = 2;
inline constexpr ULONG RES_CONTENT = 3;
inline constexpr ULONG RES_PROPERTY = 4;
inline constexpr ULONG RES_COMPAREPROPS = 5;
inline constexpr ULONG RES_BITMASK = 6;
inline constexpr ULONG RES_SIZE = 7;
inline constexpr ULONG RES_EXIST = 8;

inline constexpr ULONG RELOP_LT = 0;
inline constexpr ULONG RELOP_LE = 1;
inline constexpr ULONG RELOP_GT = 2;
inline constexpr ULONG RELOP_GE = 3;
inline constexpr ULONG RELOP_EQ = 4;
inline constexpr ULONG RELOP_NE = 5;

inline constexpr ULONG FL_FULLSTRING = 0;
inline constexpr ULONG FL_SUBSTRING = 1;
inline constexpr ULONG FL_PREFIX = 2;
inline constexpr ULONG FL_IGNORECASE = 0x10000;
inline constexpr ULONG FL_LOOSE = 0x40000;  // here: as FL_IGNORECASE

inline constexpr ULONG BMR_EQZ = 0;
inline constexpr ULONG BMR_NEZ = 1;

struct SRestriction;
using LPSRestriction = SRestriction*;

struct SAndRestriction {
    ULONG cRes;
    LPSRestriction lpRes;
};
struct SOrRestriction {
    ULONG cRes;
    LPSRestriction lpRes;
};
struct SNotRestriction {
    ULONG ulReserved;  // 0
    LPSRestriction lpRes;
};
struct SContentRestriction {
    ULONG ulFuzzyLevel;  // FL_*
    ULONG ulPropTag;     // PT_UNICODE or PT_BINARY
    LPSPropValue lpProp;
};
struct SPropertyRestriction {
    ULONG relop;  // RELOP_*: the row's value, on the left, against lpProp's
    ULONG ulPropTag;
    LPSPropValue lpProp;
};
struct SComparePropsRestriction {
    ULONG relop;
    ULONG ulPropTag1;
    ULONG ulPropTag2;
};
struct SBitMaskRestriction {
    ULONG relBMR;  // BMR_*
    ULONG ulPropTag;
    ULONG ulMask;
};
struct SSizeRestriction {
    ULONG relop;
    ULONG ulPropTag;
    ULONG cb;
};
struct SExistRestriction {
    ULONG ulReserved1;  // 0
    ULONG ulPropTag;
    ULONG ulReserved2;  // 0
};
// A row that lacks the property fits no restriction about it but the negated one.
struct SRestriction {
    ULONG rt;  // RES_*
    union {
        SComparePropsRestriction resCompareProps;
        SAndRestriction resAnd;
        SOrRestriction resOr;
        SNotRestriction resNot;
        SContentRestriction resContent;
        SPropertyRestriction resProperty;
        SBitMaskRestriction resBitMask;
        SSizeRestriction resSize;
        SExistRestriction resExist;
    } res;
};

// --- notifications --------------------------------------------------------------------------------------------------
inline constexpr ULONG fnevCriticalError = 0x00000001;
inline constexpr ULONG fnevNewMail = 0x00000002;
inline constexpr ULONG fnevObjectCreated = 0x00000004;
inline constexpr ULONG fnevObjectDeleted = 0x00000008;
inline constexpr ULONG fnevObjectModified = 0x00000010;
inline constexpr ULONG fnevObjectMoved = 0x00000020;
inline constexpr ULONG fnevObjectCopied = 0x00000040;

struct MAPIERROR {
    ULONG ulVersion;  // 0
    LPWSTR lpszError;
    LPWSTR lpszComponent;
    ULONG ulLowLevelError;
    ULONG ulContext;
};
using LPMAPIERROR = MAPIERROR*;

struct ERROR_NOTIFICATION {
    ULONG cbEntryID;
    LPENTRYID lpEntryID;
    SCODE scode;
    ULONG ulFlags;
    LPMAPIERROR lpMAPIError;
};
struct NEWMAIL_NOTIFICATION {
    ULONG cbEntryID;
    LPENTRYID lpEntryID;
    ULONG cbParentID;
    LPENTRYID lpParentID;
    ULONG ulFlags;  // MAPI_UNICODE
    LPWSTR lpszMessageClass;
    ULONG ulMessageFlags;  // PR_MESSAGE_FLAGS
};
struct OBJECT_NOTIFICATION {
    ULONG cbEntryID;
    LPENTRYID lpEntryID;
    ULONG ulObjType;  // MAPI_FOLDER, MAPI_MESSAGE
    ULONG cbParentID;
    LPENTRYID lpParentID;
    ULONG cbOldID;  // moved and copied objects: what they were before, or are a copy of
    LPENTRYID lpOldID;
    ULONG cbOldParentID;
    LPENTRYID lpOldParentID;
    LPSPropTagArray lpPropTagArray;  // NULL: any property
};
struct NOTIFICATION {
    ULONG ulEventType;  // one of fnev...
    ULONG ulAlignPad;
    union {
        ERROR_NOTIFICATION err;
        NEWMAIL_NOTIFICATION newmail;
        OBJECT_NOTIFICATION obj;
    } info;
};
using LPNOTIFICATION = NOTIFICATION*;
