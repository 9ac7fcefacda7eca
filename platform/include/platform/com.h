#pragma once

// COM basics: interfaces, initialisation counted per thread, class objects, strings and variants.
//
// Interfaces are abstract classes whose slots stand in the platform's order. An object counts its references: whoever
// is handed an interface pointer owns one reference and gives it back with Release. AddRef and Release return the new
// count and may be called from any thread. Destructors are out of reach: only Release ends an object.

#include "platform/errors.h"
#include "platform/export.h"
#include "platform/types.h"

using OLECHAR = WCHAR;
using LPOLESTR = WCHAR*;
using LPCOLESTR = const WCHAR*;
using BSTR = WCHAR*;
using VARIANT_BOOL = SHORT;
using VARTYPE = WORD;
using DISPID = LONG;

// How the handheld's headers and sources spell an operation of an interface.
#if !defined(STDMETHODCALLTYPE)
#define STDMETHODCALLTYPE
#define STDMETHOD(method) virtual HRESULT STDMETHODCALLTYPE method
#define STDMETHOD_(type, method) virtual type STDMETHODCALLTYPE method
#define STDMETHODIMP HRESULT STDMETHODCALLTYPE
#define STDMETHODIMP_(type) type STDMETHODCALLTYPE
#define PURE = 0
#endif

inline constexpr VARIANT_BOOL VARIANT_TRUE = -1;
inline constexpr VARIANT_BOOL VARIANT_FALSE = 0;

struct IUnknown {
    virtual HRESULT QueryInterface(REFIID riid, void** object) = 0;
    virtual ULONG AddRef() = 0;
    virtual ULONG Release() = 0;

protected:
    ~IUnknown() = default;
};
using LPUNKNOWN = IUnknown*;

struct IDispatch;
struct ITypeInfo;

enum VARENUM : VARTYPE {
    VT_EMPTY = 0,
    VT_NULL = 1,
    VT_I2 = 2,
    VT_I4 = 3,
    VT_R4 = 4,
    VT_R8 = 5,
    VT_CY = 6,
    VT_DATE = 7,
    VT_BSTR = 8,
    VT_DISPATCH = 9,
    VT_ERROR = 10,
    VT_BOOL = 11,
    VT_VARIANT = 12,  // with VT_BYREF only
    VT_UNKNOWN = 13,
    VT_DECIMAL = 14,
    VT_I1 = 16,
    VT_UI1 = 17,
    VT_UI2 = 18,
    VT_UI4 = 19,
    VT_I8 = 20,
    VT_UI8 = 21,
    VT_INT = 22,
    VT_UINT = 23,
    VT_BYREF = 0x4000,
};

// A value with its type. A VT_BSTR, VT_DISPATCH or VT_UNKNOWN variant owns what it points to; one with VT_BYREF refers
// to a value of another, which is neither VT_EMPTY nor VT_NULL, and owns nothing.
struct VARIANT {
    VARTYPE vt;
    WORD wReserved1;
    WORD wReserved2;
    WORD wReserved3;
    union {
        LONGLONG llVal;
        ULONGLONG ullVal;
        LONG lVal;
        ULONG ulVal;
        SHORT iVal;
        USHORT uiVal;
        BYTE bVal;
        float fltVal;
        double dblVal;
        DATE date;
        VARIANT_BOOL boolVal;
        SCODE scode;
        BSTR bstrVal;
        IUnknown* punkVal;
        IDispatch* pdispVal;
        void* byref;
    };
};
using VARIANTARG = VARIANT;

struct DISPPARAMS {
    VARIANTARG* rgvarg;
    DISPID* rgdispidNamedArgs;
    UINT cArgs;
    UINT cNamedArgs;
};

struct EXCEPINFO {
    WORD wCode;
    WORD wReserved;
    BSTR bstrSource;
    BSTR bstrDescription;
    BSTR bstrHelpFile;
    DWORD dwHelpContext;
    void* pvReserved;
    HRESULT (*pfnDeferredFillIn)(EXCEPINFO*);
    SCODE scode;
};

struct IDispatch : IUnknown {
    virtual HRESULT GetTypeInfoCount(UINT* count) = 0;
    virtual HRESULT GetTypeInfo(UINT index, LCID locale, ITypeInfo** info) = 0;
    virtual HRESULT GetIDsOfNames(REFIID riid, LPOLESTR* names, UINT count, LCID locale, DISPID* ids) = 0;
    virtual HRESULT Invoke(DISPID member, REFIID riid, LCID locale, WORD flags, DISPPARAMS* params, VARIANT* result,
                           EXCEPINFO* exception, UINT* argumentError) = 0;

protected:
    ~IDispatch() = default;
};
using LPDISPATCH = IDispatch*;

// What an Invoke is for.
inline constexpr WORD DISPATCH_METHOD = 0x1;
inline constexpr WORD DISPATCH_PROPERTYGET = 0x2;
inline constexpr WORD DISPATCH_PROPERTYPUT = 0x4;
inline constexpr WORD DISPATCH_PROPERTYPUTREF = 0x8;

inline constexpr DISPID DISPID_VALUE = 0;         // the member that is meant when none is named
inline constexpr DISPID DISPID_UNKNOWN = -1;      // no such name
inline constexpr DISPID DISPID_PROPERTYPUT = -3;  // names the argument that is put
inline constexpr DISPID DISPID_STARTENUM = -1;    // GetNextDispID begins here

struct IServiceProvider;

// How GetDispID and the deletes take a name.
inline constexpr DWORD fdexNameCaseSensitive = 0x1;
inline constexpr DWORD fdexNameEnsure = 0x2;  // an identifier for a member that is not there yet
inline constexpr DWORD fdexNameImplicit = 0x4;
inline constexpr DWORD fdexNameCaseInsensitive = 0x8;

// Late binding to objects whose members come and go.
struct IDispatchEx : IDispatch {
    virtual HRESULT GetDispID(BSTR name, DWORD flags, DISPID* id) = 0;
    virtual HRESULT InvokeEx(DISPID id, LCID locale, WORD flags, DISPPARAMS* params, VARIANT* result,
                             EXCEPINFO* exception, IServiceProvider* caller) = 0;
    virtual HRESULT DeleteMemberByName(BSTR name, DWORD flags) = 0;
    virtual HRESULT DeleteMemberByDispID(DISPID id) = 0;
    virtual HRESULT GetMemberProperties(DISPID id, DWORD fetch, DWORD* properties) = 0;
    virtual HRESULT GetMemberName(DISPID id, BSTR* name) = 0;
    virtual HRESULT GetNextDispID(DWORD flags, DISPID id, DISPID* next) = 0;
    virtual HRESULT GetNameSpaceParent(IUnknown** parent) = 0;

protected:
    ~IDispatchEx() = default;
};

struct IClassFactory : IUnknown {
    virtual HRESULT CreateInstance(IUnknown* outer, REFIID riid, void** object) = 0;
    virtual HRESULT LockServer(BOOL lock) = 0;

protected:
    ~IClassFactory() = default;
};

enum STGTY : DWORD { STGTY_STORAGE = 1, STGTY_STREAM = 2, STGTY_LOCKBYTES = 3, STGTY_PROPERTY = 4 };
enum STREAM_SEEK : DWORD { STREAM_SEEK_SET = 0, STREAM_SEEK_CUR = 1, STREAM_SEEK_END = 2 };
enum STATFLAG : DWORD { STATFLAG_DEFAULT = 0, STATFLAG_NONAME = 1 };

struct STATSTG {
    LPOLESTR pwcsName;
    DWORD type;
    ULARGE_INTEGER cbSize;
    FILETIME mtime;
    FILETIME ctime;
    FILETIME atime;
    DWORD grfMode;
    DWORD grfLocksSupported;
    CLSID clsid;
    DWORD grfStateBits;
    DWORD reserved;
};

struct ISequentialStream : IUnknown {
    virtual HRESULT Read(void* buffer, ULONG size, ULONG* read) = 0;
    virtual HRESULT Write(const void* buffer, ULONG size, ULONG* written) = 0;

protected:
    ~ISequentialStream() = default;
};

struct IStream : ISequentialStream {
    virtual HRESULT Seek(LARGE_INTEGER move, DWORD origin, ULARGE_INTEGER* newPosition) = 0;
    virtual HRESULT SetSize(ULARGE_INTEGER size) = 0;
    virtual HRESULT CopyTo(IStream* target, ULARGE_INTEGER size, ULARGE_INTEGER* read, ULARGE_INTEGER* written) = 0;
    virtual HRESULT Commit(DWORD flags) = 0;
    virtual HRESULT Revert() = 0;
    virtual HRESULT LockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER size, DWORD type) = 0;
    virtual HRESULT UnlockRegion(ULARGE_INTEGER offset, ULARGE_INTEGER size, DWORD type) = 0;
    virtual HRESULT Stat(STATSTG* stat, DWORD flag) = 0;
    virtual HRESULT Clone(IStream** stream) = 0;

protected:
    ~IStream() = default;
};

inline constexpr IID IID_IUnknown = {0x00000000, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
inline constexpr IID IID_IClassFactory = {0x00000001, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
inline constexpr IID IID_IStream = {0x0000000C, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
inline constexpr IID IID_IDispatch = {0x00020400, 0x0000, 0x0000, {0xC0, 0, 0, 0, 0, 0, 0, 0x46}};
inline constexpr IID IID_IDispatchEx = {0xA6EF9860, 0xC720, 0x11D0, {0x93, 0x37, 0x00, 0xA0, 0xC9, 0x0D, 0xCA, 0xA9}};
inline constexpr IID IID_ISequentialStream = {
    0x0C733A30, 0x2A1C, 0x11CE, {0xAD, 0xE5, 0x00, 0xAA, 0x00, 0x44, 0x77, 0x3D}};
inline constexpr GUID GUID_NULL = {};
inline constexpr IID IID_NULL = {};
inline constexpr CLSID CLSID_NULL = {};

constexpr BOOL IsEqualGUID(REFGUID a, REFGUID b) {
    return a == b ? TRUE : FALSE;
}
constexpr BOOL IsEqualIID(REFIID a, REFIID b) {
    return IsEqualGUID(a, b);
}
constexpr BOOL IsEqualCLSID(REFCLSID a, REFCLSID b) {
    return IsEqualGUID(a, b);
}

// --- initialisation -------------------------------------------------------------------------------------------------

enum COINIT : DWORD {
    COINIT_MULTITHREADED = 0x0,
    COINIT_APARTMENTTHREADED = 0x2,
    COINIT_DISABLE_OLE1DDE = 0x4,
    COINIT_SPEED_OVER_MEMORY = 0x8,
};

// Initialises COM on the calling thread. S_OK the first time, S_FALSE when the thread already is initialised in the
// same mode; both count and need a CoUninitialize. RPC_E_CHANGED_MODE: initialised in the other mode, not counted.
// E_INVALIDARG: `reserved` is not null or `mode` has unknown bits.
ZRPLATFORM_API HRESULT CoInitializeEx(void* reserved, DWORD mode);
// CoInitializeEx in the apartment mode.
ZRPLATFORM_API HRESULT CoInitialize(void* reserved);
// Takes back one successful initialisation of the calling thread. Without one it does nothing.
ZRPLATFORM_API void CoUninitialize();

// --- class objects --------------------------------------------------------------------------------------------------

enum CLSCTX : DWORD {
    CLSCTX_INPROC_SERVER = 0x1,
    CLSCTX_INPROC_HANDLER = 0x2,
    CLSCTX_LOCAL_SERVER = 0x4,
    CLSCTX_ALL = 0x7,
};
enum REGCLS : DWORD { REGCLS_SINGLEUSE = 0, REGCLS_MULTIPLEUSE = 1 };

// Offers a class of the program to CoCreateInstance in this process; keeps one reference to the class object (an
// IClassFactory). A class registered here comes before one of the platform with the same identifier; a single-use one
// serves one request. *cookie takes it back. E_INVALIDARG: a null argument. Any initialised thread.
ZRPLATFORM_API HRESULT CoRegisterClassObject(REFCLSID clsid, IUnknown* factory, DWORD context, DWORD flags,
                                             DWORD* cookie);
// Ends a registration and releases its class object. E_INVALIDARG: no such cookie.
ZRPLATFORM_API HRESULT CoRevokeClassObject(DWORD cookie);
// The class object of a class. `*object` is null on failure. CO_E_NOTINITIALIZED: the calling thread did not initialise
// COM; REGDB_E_CLASSNOTREG: no such class (or none for this context); E_NOINTERFACE; E_POINTER.
ZRPLATFORM_API HRESULT CoGetClassObject(REFCLSID clsid, DWORD context, void* serverInfo, REFIID riid, void** object);
// A new object of a class, as the interface `riid`. The results of CoGetClassObject, and CLASS_E_NOAGGREGATION when
// `outer` is not null and the class cannot be aggregated (none of the platform's can).
ZRPLATFORM_API HRESULT CoCreateInstance(REFCLSID clsid, IUnknown* outer, DWORD context, REFIID riid, void** object);

// --- memory and strings ---------------------------------------------------------------------------------------------

ZRPLATFORM_API void* CoTaskMemAlloc(SIZE_T size);
ZRPLATFORM_API void* CoTaskMemRealloc(void* block, SIZE_T size);
ZRPLATFORM_API void CoTaskMemFree(void* block);

// BSTRs: UTF-16 with their byte length in front and a terminator behind, which is not counted; embedded NULs are data.
// Null means an empty string wherever one is read. Any thread may free what another allocated.
// Null when `text` is null or memory is short.
ZRPLATFORM_API BSTR SysAllocString(LPCWSTR text);
// `length` characters; with a null `text` they are left unset. Null when memory is short or the size overflows.
ZRPLATFORM_API BSTR SysAllocStringLen(LPCWSTR text, UINT length);
// `size` bytes of `bytes`, followed by a terminator.
ZRPLATFORM_API BSTR SysAllocStringByteLen(LPCSTR bytes, UINT size);
// Replaces *string by a copy of `text` (which may lie inside *string). FALSE, *string unchanged: memory is short.
ZRPLATFORM_API INT SysReAllocString(BSTR* string, LPCWSTR text);
// The same with `length` characters. With a null `text`, or one inside *string, those beyond the end of *string are
// NUL.
ZRPLATFORM_API INT SysReAllocStringLen(BSTR* string, LPCWSTR text, UINT length);
ZRPLATFORM_API void SysFreeString(BSTR string);
ZRPLATFORM_API UINT SysStringLen(BSTR string);      // in characters
ZRPLATFORM_API UINT SysStringByteLen(BSTR string);  // in bytes

ZRPLATFORM_API void VariantInit(VARIANT* variant);
// Frees what the variant owns and makes it VT_EMPTY. DISP_E_BADVARTYPE: a type that is not listed above.
ZRPLATFORM_API HRESULT VariantClear(VARIANT* variant);

inline constexpr HRESULT DISP_E_BADVARTYPE = ZRPLATFORM_HRESULT(0x80020008);
inline constexpr HRESULT CO_E_IIDSTRING = ZRPLATFORM_HRESULT(0x800401F4);

// --- GUID text ------------------------------------------------------------------------------------------------------

// Writes "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}" in capitals; returns the characters written including the
// terminator (39), or 0 when `size` (in characters) is too small.
ZRPLATFORM_API INT StringFromGUID2(REFGUID guid, LPOLESTR text, INT size);
// The reverse, in either letter case, braces required. A null text gives GUID_NULL and S_OK. CO_E_CLASSSTRING: not a
// GUID, *clsid is GUID_NULL. Of an interface's text E_INVALIDARG when it is not 38 characters long, else
// CO_E_IIDSTRING.
ZRPLATFORM_API HRESULT CLSIDFromString(LPCOLESTR text, CLSID* clsid);
ZRPLATFORM_API HRESULT IIDFromString(LPCOLESTR text, IID* iid);
