#pragma once

// The HTML control: shows a document, tells its parent of links and images, and lets itself be scripted.
//
// Behind it is a web engine (WebKitGTK) in a process of its own, which the control starts with its first document and
// ends with its window: what hangs, crashes or eats memory there is an error here within seconds, and the next document
// gets a new process. Without the helper program or its libraries every document fails (ZrHtmlTrouble names the
// package).
//
// A document comes from nowhere but its owner. Addresses in it are not followed: what it embeds by a data: address is
// shown, other images are asked of the owner (NM_INLINE_IMAGE), and all else fails to load, unless ZrHtmlAllowRemote
// says otherwise. Scripts of the document do not run unless DTM_ENABLESCRIPTING says so; those of the owner do.
//
// A control is used on the thread that made it, and so are the objects of its document; their references may be given
// back on any thread. What the control has to tell is sent to its parent while that thread takes messages or is in
// ZrHtmlWait, and at no other time: in particular not while it waits in a call of an object. An object outlives its
// document as something whose calls fail with RPC_E_DISCONNECTED.
//
// Every call ends: within five seconds where a document is ready (thirty to draw it), else within thirty for each of
// what is still to be done: the engine's start, taking the source, making the document (ERROR_TIMEOUT, and as a result
// HRESULT_FROM_WIN32 of it). The process behind it is then ended, and its document is gone. Of what a document tells
// 10,000 notifications and 64 MB wait; what comes beyond is dropped.

#include "platform/com.h"
#include "platform/errors.h"
#include "platform/export.h"
#include "platform/types.h"
#include "platform/windowing.h"

inline constexpr WCHAR WC_HTML[] = u"DISPLAYCLASS";
inline constexpr WCHAR DISPLAYCLASS[] = u"DISPLAYCLASS";

// Makes the class WC_HTML known; it may be called more than once. FALSE: ERROR_NOT_ENOUGH_MEMORY.
ZRPLATFORM_API BOOL InitHTMLControl(HINSTANCE instance);

// ---- Messages to the control ----
//
// WM_SETTEXT replaces the document by the one at lParam, as DTM_CLEAR, DTM_ADDTEXTW and DTM_ENDOFSOURCE do; the
// document and its length are not given back by WM_GETTEXT. Where a message returns TRUE or FALSE, the last error says
// why: ERROR_MOD_NOT_FOUND (no helper program, or it cannot start: ZrHtmlTrouble), ERROR_TIMEOUT,
// ERROR_PROCESS_ABORTED (the engine ended), ERROR_NOT_ENOUGH_MEMORY.

// Adds lParam, a part of the source, to the document that is being made. wParam: TRUE when it is plain text. The first
// form takes UTF-8. TRUE, or FALSE: ERROR_NOT_ENOUGH_MEMORY, ERROR_FILE_TOO_LARGE beyond 256 MB.
inline constexpr UINT DTM_ADDTEXT = WM_USER + 101;
inline constexpr UINT DTM_ADDTEXTW = WM_USER + 102;
// lParam: an INLINEIMAGEINFO, the answer to NM_INLINE_IMAGE. TRUE or FALSE.
inline constexpr UINT DTM_SETIMAGE = WM_USER + 103;
// The source is complete: the document is loaded, which goes on after the message. TRUE or FALSE.
inline constexpr UINT DTM_ENDOFSOURCE = WM_USER + 104;
// Scrolls to the anchor named lParam (UTF-8, or wide). TRUE or FALSE.
inline constexpr UINT DTM_ANCHOR = WM_USER + 105;
inline constexpr UINT DTM_ANCHORW = WM_USER + 106;
// wParam: the cookie of NM_INLINE_IMAGE. There will be no such image.
inline constexpr UINT DTM_IMAGEFAIL = WM_USER + 109;
// Forgets the document and the source that was added.
inline constexpr UINT DTM_CLEAR = WM_USER + 113;
// lParam: whether scripts of the next document run. They do not unless this is sent.
inline constexpr UINT DTM_ENABLESCRIPTING = WM_USER + 115;
// In pixels, of the document as it is laid out; 0 when there is none.
inline constexpr UINT DTM_LAYOUTWIDTH = WM_USER + 117;
inline constexpr UINT DTM_LAYOUTHEIGHT = WM_USER + 118;
// Shows the document at the address lParam; wParam is not looked at. TRUE or FALSE, which is ERROR_ACCESS_DENIED for
// any but about:blank and data: addresses where remote content is not allowed, and for files always.
inline constexpr UINT DTM_NAVIGATE = WM_USER + 120;
// lParam: an IDispatch*. The document's, with a reference, or null: there is no document, or it did not become ready in
// time. TRUE when there is one. Waits for the document's elements, not for its images.
inline constexpr UINT DTM_DOCUMENTDISPATCH = WM_USER + 122;

// An image the owner gives. The bitmap stays the owner's.
struct INLINEIMAGEINFO {
    DWORD_PTR dwCookie;  // that of NM_INLINE_IMAGE
    int iOrigHeight;
    int iOrigWidth;
    HANDLE hbm;       // an HBITMAP
    BOOL bOwnBitmap;  // the control deletes the bitmap when it has done with it
};

// ---- What the control tells its parent ----
//
// As WM_NOTIFY, with an NM_HTMLVIEWW. The texts are the control's and last until the parent's procedure returns.

inline constexpr UINT NM_HOTSPOT = WM_USER + 101;       // a link was followed, to szTarget; the document stays as it is
inline constexpr UINT NM_INLINE_IMAGE = WM_USER + 102;  // the image szTarget is wanted. See below
inline constexpr UINT NM_TITLE = WM_USER + 104;         // the document's title is szTarget
inline constexpr UINT NM_DOCUMENTCOMPLETE = WM_USER + 110;  // the document and its images are loaded

// NM_INLINE_IMAGE: the parent answers TRUE when it will give the image for dwCookie, then or later, by DTM_SETIMAGE or
// ZrHtmlSetImage, or take that back by DTM_IMAGEFAIL. After FALSE there is no image. szTarget is its whole address: one
// of cid:, or any other of an image that may not be loaded. A relative address in a document without a <base> is none,
// and is not asked for.

struct NM_HTMLVIEWW {
    NMHDR hdr;
    LPWSTR szTarget;
    LPWSTR szData;
    DWORD_PTR dwCookie;
    LPWSTR szExInfo;
};
using NM_HTMLVIEW = NM_HTMLVIEWW;

// ---- The document's objects ----
//
// What DTM_DOCUMENTDISPATCH gives is an IDispatchEx over the document, and has IScriptControl beside it. Every object
// that its properties and methods give is an IDispatchEx as well, and one object of the document is one IUnknown as
// long as somebody holds it.
//
// Values: boolean is VT_BOOL, a whole number in 32 bits VT_I4, another number VT_R8, a text VT_BSTR, null VT_NULL,
// undefined VT_EMPTY, all else VT_DISPATCH. Arguments may be of these and the other number types, and VT_UNKNOWN,
// VT_DISPATCH of the same document; VT_ERROR is an argument left out; VT_BYREF is looked through. Others are
// DISP_E_TYPEMISMATCH.
//
// Names are those of the document's own object model, and match as in a script; with fdexNameCaseInsensitive, and in
// GetIDsOfNames, any case that has no exact match. Identifiers belong to names: they hold for every object of the
// process. Some are fixed:

inline constexpr DISPID ZR_DISPID_HTML_ID = 0x60030001;
inline constexpr DISPID ZR_DISPID_HTML_STYLE = 0x60030009;
inline constexpr DISPID ZR_DISPID_HTML_HREF = 0x60040000;
inline constexpr DISPID ZR_DISPID_HTML_VALUE = 0x60040001;
inline constexpr DISPID ZR_DISPID_HTML_DISPLAY = 1021;

// Results of calls: DISP_E_UNKNOWNNAME, DISP_E_MEMBERNOTFOUND (no such identifier; a method that is none),
// DISP_E_EXCEPTION (the engine threw; EXCEPINFO has its text), DISP_E_BADPARAMCOUNT, DISP_E_TYPEMISMATCH,
// RPC_E_DISCONNECTED (the document is gone, or its engine is), HRESULT_FROM_WIN32(ERROR_TIMEOUT), E_OUTOFMEMORY,
// RPC_E_WRONG_THREAD.

// Runs scripts in the document. The texts are read up to their NUL, so that a plain wide string serves as well as a
// BSTR. They run whether or not scripts of the document do, in one global scope with these.
struct IScriptControl : IDispatch {
    virtual HRESULT get_Language(BSTR* language) = 0;
    virtual HRESULT put_Language(BSTR language) = 0;  // E_NOTIMPL, as all below that has no remark
    virtual HRESULT get_State(LONG* state) = 0;
    virtual HRESULT put_State(LONG state) = 0;
    virtual HRESULT put_SitehWnd(LONG_PTR window) = 0;
    virtual HRESULT get_SitehWnd(LONG_PTR* window) = 0;
    virtual HRESULT get_Timeout(LONG* milliseconds) = 0;  // 5000
    virtual HRESULT put_Timeout(LONG milliseconds) = 0;
    virtual HRESULT get_AllowUI(VARIANT_BOOL* allow) = 0;  // VARIANT_FALSE: alert and print do nothing
    virtual HRESULT put_AllowUI(VARIANT_BOOL allow) = 0;
    virtual HRESULT get_UseSafeSubset(VARIANT_BOOL* safe) = 0;
    virtual HRESULT put_UseSafeSubset(VARIANT_BOOL safe) = 0;
    virtual HRESULT get_Modules(IUnknown** modules) = 0;
    virtual HRESULT get_Error(IUnknown** error) = 0;
    virtual HRESULT get_CodeObject(IDispatch** object) = 0;
    virtual HRESULT get_Procedures(IUnknown** procedures) = 0;
    virtual HRESULT _AboutBox() = 0;
    virtual HRESULT AddObject(BSTR name, IDispatch* object, VARIANT_BOOL add_members) = 0;
    virtual HRESULT Reset() = 0;
    virtual HRESULT AddCode(BSTR code) = 0;
    // Runs the text and gives the value of its last statement, as above; an object as the text of its JSON. `result`
    // may be null. DISP_E_EXCEPTION when the script threw or is none.
    virtual HRESULT Eval(BSTR expression, VARIANT* result) = 0;
    virtual HRESULT ExecuteStatement(BSTR statement) = 0;  // Eval without a result, as AddCode is
    virtual HRESULT Run(BSTR procedure, void** parameters, VARIANT* result) = 0;

protected:
    ~IScriptControl() = default;
};

inline constexpr IID IID_IScriptControl = {
    0x0E59F1D3, 0x1FBE, 0x11D0, {0x8F, 0xF2, 0x00, 0xA0, 0xD1, 0x00, 0x38, 0xBC}};

// ---- Ours ----
//
// For the control's own thread (RPC_E_WRONG_THREAD). E_HANDLE: no HTML control. RPC_E_DISCONNECTED: it has no document.
// Else why the engine failed, as above.

// Whether the next document may load what it names, from the network. It may not unless this is called.
ZRPLATFORM_API HRESULT ZrHtmlAllowRemote(HWND control, BOOL allow);

// Waits until the document and its images are loaded, telling the parent meanwhile what the control has to tell, or
// until so many milliseconds have passed: HRESULT_FROM_WIN32(ERROR_TIMEOUT), and the document is not harmed. No message
// is handled meanwhile, those of other threads' SendMessageW neither.
ZRPLATFORM_API HRESULT ZrHtmlWait(HWND control, DWORD milliseconds);

// The file of an image (PNG, JPEG and what else the engine knows), the answer to NM_INLINE_IMAGE; its media type may be
// NULL. E_INVALIDARG: no image is wanted for that cookie (any more).
ZRPLATFORM_API HRESULT ZrHtmlSetImage(HWND control, DWORD_PTR cookie, const void* bytes, SIZE_T size, LPCWSTR type);

// The document as a picture, a PNG file in memory that is freed with CoTaskMemFree. It is laid out `width` pixels wide
// and cut at `height`; 0: as long as it is, 16,384 pixels at most. E_INVALIDARG beyond that. E_POINTER.
ZRPLATFORM_API HRESULT ZrHtmlDraw(HWND control, int width, int height, BYTE** png, SIZE_T* size);

// A sentence that says why the engine could not be started, last time in this process, or of what was there in the way:
// UTF-16, cut to `capacity` with its NUL. Empty when it could. The length copied. Any thread.
ZRPLATFORM_API int ZrHtmlTrouble(LPWSTR text, int capacity);

// How many objects the document behind the control keeps for this process. -1: there is none. For tests.
ZRPLATFORM_API LONGLONG ZrHtmlLiveObjects(HWND control);
