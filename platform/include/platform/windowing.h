#pragma once

// Window classes, windows, message queues and timers.
//
// Windows are never shown: they exist to receive messages. Each belongs to the thread that created it, and its
// procedure runs on that thread only. A thread has a message queue from its first call here until it ends; then its
// windows, its timers and its queue are gone (their procedures are not called any more), and every sender that waits
// for an answer from it gets 0.
//
// Windows and classes are those of this process. An HWND names one window for ever: a stale value, or one that never
// was a window, is ERROR_INVALID_WINDOW_HANDLE. Any thread may call any function unless it says otherwise; no lock is
// held while a window procedure or a timer procedure runs, so these may call everything, their own DestroyWindow
// included. Functions that fail say why through GetLastError; one that succeeds leaves the last error alone.
//
// Values that handheld code keeps in windows are pointers, so SetWindowLongW and its family carry pointer width.

#include "platform/errors.h"
#include "platform/export.h"
#include "platform/types.h"

using WNDPROC = LRESULT (*)(HWND window, UINT message, WPARAM wparam, LPARAM lparam);
using SENDASYNCPROC = void (*)(HWND window, UINT message, ULONG_PTR data, LRESULT result);
using TIMERPROC = void (*)(HWND window, UINT message, UINT_PTR timer, DWORD time);

struct WNDCLASSW {
    UINT style;
    WNDPROC lpfnWndProc;
    int cbClsExtra;
    int cbWndExtra;
    HINSTANCE hInstance;
    HICON hIcon;
    HCURSOR hCursor;
    HBRUSH hbrBackground;
    LPCWSTR lpszMenuName;
    LPCWSTR lpszClassName;
};
using PWNDCLASSW = WNDCLASSW*;
using LPWNDCLASSW = WNDCLASSW*;

struct WNDCLASSEXW {
    UINT cbSize;  // sizeof(WNDCLASSEXW)
    UINT style;
    WNDPROC lpfnWndProc;
    int cbClsExtra;
    int cbWndExtra;
    HINSTANCE hInstance;
    HICON hIcon;
    HCURSOR hCursor;
    HBRUSH hbrBackground;
    LPCWSTR lpszMenuName;
    LPCWSTR lpszClassName;
    HICON hIconSm;
};
using PWNDCLASSEXW = WNDCLASSEXW*;
using LPWNDCLASSEXW = WNDCLASSEXW*;

struct CREATESTRUCTW {
    LPVOID lpCreateParams;
    HINSTANCE hInstance;
    HMENU hMenu;
    HWND hwndParent;
    int cy;
    int cx;
    int y;
    int x;
    LONG style;
    LPCWSTR lpszName;
    LPCWSTR lpszClass;
    DWORD dwExStyle;
};
using LPCREATESTRUCTW = CREATESTRUCTW*;

struct MSG {
    HWND hwnd;
    UINT message;
    WPARAM wParam;
    LPARAM lParam;
    DWORD time;  // milliseconds, as GetTickCount counts them
    POINT pt;    // (0, 0): there is no pointing device
};
using PMSG = MSG*;
using LPMSG = MSG*;

// What WM_NOTIFY tells its receiver of the sender: wParam is idFrom, lParam points to this or to what begins with it.
struct NMHDR {
    HWND hwndFrom;
    UINT_PTR idFrom;  // its GWL_ID
    UINT code;        // NM_
};
using LPNMHDR = NMHDR*;

// ---- Messages, styles and other documented values ----

inline constexpr UINT WM_NULL = 0x0000;
inline constexpr UINT WM_CREATE = 0x0001;
inline constexpr UINT WM_DESTROY = 0x0002;
inline constexpr UINT WM_MOVE = 0x0003;
inline constexpr UINT WM_SIZE = 0x0005;
inline constexpr UINT WM_ENABLE = 0x000A;
inline constexpr UINT WM_SETTEXT = 0x000C;
inline constexpr UINT WM_GETTEXT = 0x000D;
inline constexpr UINT WM_GETTEXTLENGTH = 0x000E;
inline constexpr UINT WM_CLOSE = 0x0010;
inline constexpr UINT WM_QUIT = 0x0012;
inline constexpr UINT WM_SHOWWINDOW = 0x0018;
inline constexpr UINT WM_SETTINGCHANGE = 0x001A;
inline constexpr UINT WM_CANCELMODE = 0x001F;
inline constexpr UINT WM_SETFONT = 0x0030;
inline constexpr UINT WM_GETFONT = 0x0031;
inline constexpr UINT WM_NOTIFY = 0x004E;
inline constexpr UINT WM_NCDESTROY = 0x0082;
inline constexpr UINT WM_INITDIALOG = 0x0110;
inline constexpr UINT WM_COMMAND = 0x0111;
inline constexpr UINT WM_TIMER = 0x0113;
inline constexpr UINT WM_USER = 0x0400;
inline constexpr UINT WM_APP = 0x8000;

inline constexpr DWORD WS_OVERLAPPED = 0x00000000;
inline constexpr DWORD WS_POPUP = 0x80000000;
inline constexpr DWORD WS_CHILD = 0x40000000;
inline constexpr DWORD WS_VISIBLE = 0x10000000;
inline constexpr DWORD WS_DISABLED = 0x08000000;
inline constexpr DWORD WS_BORDER = 0x00800000;  // one pixel on each side is not the client area's
inline constexpr int CW_USEDEFAULT = static_cast<int>(0x80000000u);

inline constexpr int GWL_WNDPROC = -4;
inline constexpr int GWL_HINSTANCE = -6;
inline constexpr int GWL_HWNDPARENT = -8;  // read only
inline constexpr int GWL_ID = -12;
inline constexpr int GWL_STYLE = -16;
inline constexpr int GWL_EXSTYLE = -20;
inline constexpr int GWL_USERDATA = -21;
inline constexpr int GWLP_WNDPROC = GWL_WNDPROC;
inline constexpr int GWLP_HINSTANCE = GWL_HINSTANCE;
inline constexpr int GWLP_ID = GWL_ID;
inline constexpr int GWLP_USERDATA = GWL_USERDATA;

inline constexpr UINT GW_HWNDFIRST = 0;
inline constexpr UINT GW_HWNDLAST = 1;
inline constexpr UINT GW_HWNDNEXT = 2;
inline constexpr UINT GW_HWNDPREV = 3;
inline constexpr UINT GW_OWNER = 4;  // always none
inline constexpr UINT GW_CHILD = 5;

inline constexpr UINT PM_NOREMOVE = 0x0000;
inline constexpr UINT PM_REMOVE = 0x0001;
inline constexpr UINT PM_NOYIELD = 0x0002;  // accepted, without effect

inline constexpr UINT SMTO_NORMAL = 0x0000;
inline constexpr UINT SMTO_BLOCK = 0x0001;
inline constexpr UINT SMTO_ABORTIFHUNG = 0x0002;

inline constexpr DWORD QS_KEY = 0x0001;
inline constexpr DWORD QS_MOUSEMOVE = 0x0002;
inline constexpr DWORD QS_MOUSEBUTTON = 0x0004;
inline constexpr DWORD QS_POSTMESSAGE = 0x0008;
inline constexpr DWORD QS_TIMER = 0x0010;
inline constexpr DWORD QS_PAINT = 0x0020;
inline constexpr DWORD QS_SENDMESSAGE = 0x0040;
inline constexpr DWORD QS_HOTKEY = 0x0080;
inline constexpr DWORD QS_ALLPOSTMESSAGE = 0x0100;  // as QS_POSTMESSAGE, and old only once all messages are looked at
inline constexpr DWORD QS_MOUSE = QS_MOUSEMOVE | QS_MOUSEBUTTON;
inline constexpr DWORD QS_INPUT = QS_MOUSE | QS_KEY;
inline constexpr DWORD QS_ALLEVENTS = QS_INPUT | QS_POSTMESSAGE | QS_TIMER | QS_PAINT | QS_HOTKEY;
inline constexpr DWORD QS_ALLINPUT = QS_ALLEVENTS | QS_SENDMESSAGE;

inline constexpr UINT PM_QS_INPUT = QS_INPUT << 16;
inline constexpr UINT PM_QS_PAINT = QS_PAINT << 16;
inline constexpr UINT PM_QS_POSTMESSAGE = (QS_POSTMESSAGE | QS_HOTKEY | QS_TIMER) << 16;
inline constexpr UINT PM_QS_SENDMESSAGE = QS_SENDMESSAGE << 16;

inline constexpr DWORD MWMO_WAITALL = 0x0001;
inline constexpr DWORD MWMO_ALERTABLE = 0x0002;  // accepted, without effect: there are no asynchronous procedures
inline constexpr DWORD MWMO_INPUTAVAILABLE = 0x0004;

inline constexpr UINT USER_TIMER_MINIMUM = 1;
inline constexpr UINT USER_TIMER_MAXIMUM = 0x7FFFFFFF;

// As a parent: a window without parent. As a receiver HWND_BROADCAST is not offered.
inline const HWND HWND_MESSAGE = reinterpret_cast<HWND>(static_cast<LONG_PTR>(-3));

// ---- Classes ----

// Registers a class under its name and hInstance; NULL and GetModuleHandleW(NULL) are both the program, here and in the
// other calls that take an instance. The name is at most 255 units long and is matched ignoring case.
// Returns its atom, which serves as the class name in other calls (MAKEINTATOM), or 0: ERROR_CLASS_ALREADY_EXISTS,
// ERROR_INVALID_PARAMETER (no class, name or procedure, negative or huge extra sizes), ERROR_NOT_ENOUGH_MEMORY.
ZRPLATFORM_API ATOM RegisterClassW(const WNDCLASSW* window_class);

// ERROR_CLASS_DOES_NOT_EXIST, or ERROR_CLASS_HAS_WINDOWS while a window of the class exists.
ZRPLATFORM_API BOOL UnregisterClassW(LPCWSTR name, HINSTANCE instance);

// Fills *window_class as it was registered; the name is the caller's own pointer, the menu name is NULL.
// ERROR_CLASS_DOES_NOT_EXIST when there is no such class.
ZRPLATFORM_API BOOL GetClassInfoW(HINSTANCE instance, LPCWSTR name, WNDCLASSW* window_class);

// The same with the small icon. ERROR_INVALID_PARAMETER, too, for another cbSize.
ZRPLATFORM_API ATOM RegisterClassExW(const WNDCLASSEXW* window_class);
ZRPLATFORM_API BOOL GetClassInfoExW(HINSTANCE instance, LPCWSTR name, WNDCLASSEXW* window_class);

// Copies the class name, cut to `capacity` units with its NUL, and returns the length copied.
ZRPLATFORM_API int GetClassNameW(HWND window, LPWSTR name, int capacity);

inline LPCWSTR MAKEINTATOM(ATOM atom) {
    return reinterpret_cast<LPCWSTR>(static_cast<UINT_PTR>(atom));
}

// ---- Windows ----

// Makes a window of a class registered for `instance`, or of one of the platform's own (controls.h), on the calling
// thread. Its place is told in places.h; a window made with WS_VISIBLE gets WM_SIZE and WM_MOVE after WM_CREATE. Its
// procedure gets WM_CREATE with a CREATESTRUCTW before the call returns, as on the handheld without WM_NCCREATE before
// it; the answer -1 destroys the window (WM_DESTROY, WM_NCDESTROY) and the call returns NULL. A window with a parent is
// a child, whatever its style, and is destroyed with its parent; a child made by another thread than its parent's goes
// as soon as that thread next serves messages. `menu` is a child's identifier (GWL_ID). NULL:
// ERROR_CANNOT_FIND_WND_CLASS, ERROR_INVALID_WINDOW_HANDLE for a parent that is none or is being destroyed,
// ERROR_TLW_WITH_WSCHILD for WS_CHILD without parent, ERROR_INVALID_PARAMETER below 100 levels of parents,
// ERROR_NOT_ENOUGH_MEMORY (also with 65,000 windows in the process).
ZRPLATFORM_API HWND CreateWindowExW(DWORD ex_style, LPCWSTR class_name, LPCWSTR title, DWORD style, int x, int y,
                                    int width, int height, HWND parent, HMENU menu, HINSTANCE instance, LPVOID param);

inline HWND CreateWindowW(LPCWSTR class_name, LPCWSTR title, DWORD style, int x, int y, int width, int height,
                          HWND parent, HMENU menu, HINSTANCE instance, LPVOID param) {
    return CreateWindowExW(0, class_name, title, style, x, y, width, height, parent, menu, instance, param);
}

// WM_DESTROY to the window, then to its children and theirs; then WM_NCDESTROY to the children and last to the window.
// After its WM_NCDESTROY a window is no window any more: its timers are killed, its posted messages dropped, and
// senders waiting for it get 0. Only the thread that made it may call: others get ERROR_ACCESS_DENIED. A second call
// from within (the procedure destroys its window in WM_DESTROY) returns TRUE and does nothing.
ZRPLATFORM_API BOOL DestroyWindow(HWND window);

// The root of all windows: the parent of those that have none, of the class "#32769". It counts as a window for
// IsWindow, for GetClassNameW, as the parent in CreateWindowExW and SetParent, and with GW_CHILD in GetWindow; it
// belongs to no thread, and every other use of it is ERROR_INVALID_WINDOW_HANDLE.
ZRPLATFORM_API HWND GetDesktopWindow();
// Puts the window, with all below it, behind the last child of another parent; NULL, HWND_MESSAGE and the desktop make
// it a window without parent. Its style stays as it was. Returns the parent before, the desktop for none. NULL on
// failure: ERROR_INVALID_WINDOW_HANDLE for a window or parent that is none or is being destroyed,
// ERROR_INVALID_PARAMETER for a parent that is the window itself or below it, and below 100 levels of parents.
ZRPLATFORM_API HWND SetParent(HWND window, HWND parent);
// Sets or takes WS_DISABLED, which keeps input from a window. A change sends WM_ENABLE to the window, and WM_CANCELMODE
// before it is disabled. Returns whether it was disabled before; FALSE with ERROR_INVALID_WINDOW_HANDLE.
ZRPLATFORM_API BOOL EnableWindow(HWND window, BOOL enable);
ZRPLATFORM_API BOOL IsWindowEnabled(HWND window);

ZRPLATFORM_API BOOL IsWindow(HWND window);
// NULL for a window without parent (last error untouched) and for an invalid handle.
ZRPLATFORM_API HWND GetParent(HWND window);
ZRPLATFORM_API BOOL IsChild(HWND parent, HWND window);  // also grandchildren
// Siblings in order of creation, until SetWindowPos puts one elsewhere; the top-level windows of the process are
// siblings of each other.
ZRPLATFORM_API HWND GetWindow(HWND window, UINT relation);
// The first top-level window of the class (NULL: any class) and exact title (NULL: any title, ignoring case).
// NULL when there is none: ERROR_CANNOT_FIND_WND_CLASS if no class has that name, else ERROR_FILE_NOT_FOUND.
ZRPLATFORM_API HWND FindWindowW(LPCWSTR class_name, LPCWSTR title);
// The thread that owns the window, 0 for an invalid handle; `process` may be NULL.
ZRPLATFORM_API DWORD GetWindowThreadProcessId(HWND window, LPDWORD process);

// The value at a GWL_* index, or at a byte offset into the cbWndExtra bytes (a pointer's width is read and written).
// Set returns the value before. 0 may be a value: on failure the last error is set, ERROR_INVALID_INDEX for an index
// outside the window's bytes. Both families are the same, and all carry pointer width.
ZRPLATFORM_API LONG_PTR GetWindowLongW(HWND window, int index);
ZRPLATFORM_API LONG_PTR SetWindowLongW(HWND window, int index, LONG_PTR value);
ZRPLATFORM_API LONG_PTR GetWindowLongPtrW(HWND window, int index);
ZRPLATFORM_API LONG_PTR SetWindowLongPtrW(HWND window, int index, LONG_PTR value);

// Send WM_SETTEXT, WM_GETTEXT and WM_GETTEXTLENGTH, which DefWindowProcW answers from the window's own title.
ZRPLATFORM_API BOOL SetWindowTextW(HWND window, LPCWSTR text);
ZRPLATFORM_API int GetWindowTextW(HWND window, LPWSTR text, int capacity);
ZRPLATFORM_API int GetWindowTextLengthW(HWND window);

// What a window does with a message that its procedure does not handle: WM_CLOSE destroys it, the text messages keep
// its title, WM_SETFONT and WM_GETFONT a font's handle, all others return 0. Call it on the window's own thread.
ZRPLATFORM_API LRESULT DefWindowProcW(HWND window, UINT message, WPARAM wparam, LPARAM lparam);
// Calls `procedure`; NULL returns 0.
ZRPLATFORM_API LRESULT CallWindowProcW(WNDPROC procedure, HWND window, UINT message, WPARAM wparam, LPARAM lparam);

// ---- Sending ----

// Has the window's procedure handle the message and returns its answer. On the window's own thread that is a call; to
// another thread it blocks until that thread has handled the message (in GetMessageW, PeekMessageW,
// MsgWaitForMultipleObjectsEx or while it waits for an answer itself), and meanwhile the caller handles what is sent
// to it. 0 with ERROR_INVALID_WINDOW_HANDLE when the window is, or becomes, no window, or its thread ends.
ZRPLATFORM_API LRESULT SendMessageW(HWND window, UINT message, WPARAM wparam, LPARAM lparam);
// The same, giving up after `timeout` milliseconds: 0 and ERROR_TIMEOUT; the message may still be handled later, so
// what it points to must live on. SMTO_BLOCK: nothing sent to the caller is handled meanwhile.
ZRPLATFORM_API LRESULT SendMessageTimeoutW(HWND window, UINT message, WPARAM wparam, LPARAM lparam, UINT flags,
                                           UINT timeout, DWORD_PTR* result);
// To another thread it returns at once, and the message is handled as a sent one, before all posted ones.
ZRPLATFORM_API BOOL SendNotifyMessageW(HWND window, UINT message, WPARAM wparam, LPARAM lparam);
// SendNotifyMessageW that tells what came of it: `callback` is called with the answer, once, on the calling thread:
// when that thread handles what is sent to it, or before the call returns if the window is its own. The answer is 0
// when the window, or its thread, goes before it has answered. Nothing is called when the calling thread ends first.
ZRPLATFORM_API BOOL SendMessageCallbackW(HWND window, UINT message, WPARAM wparam, LPARAM lparam,
                                         SENDASYNCPROC callback, ULONG_PTR data);
// Whether the calling procedure handles a message that another thread sent (and waits, or not, for the answer to).
ZRPLATFORM_API BOOL InSendMessage();
// Lets the sender go on with this result before the procedure returns. FALSE if no sender was waiting.
ZRPLATFORM_API BOOL ReplyMessage(LRESULT result);

// ---- The queue ----

// Appends to the queue of the window's thread; NULL posts to the calling thread's own queue. FALSE:
// ERROR_INVALID_WINDOW_HANDLE, or ERROR_NOT_ENOUGH_QUOTA when 10,000 messages are waiting there.
ZRPLATFORM_API BOOL PostMessageW(HWND window, UINT message, WPARAM wparam, LPARAM lparam);
// As PostMessageW to a thread; the message has no window. ERROR_INVALID_THREAD_ID if that thread has no queue:
// it has one from its first call to a function of this header on.
ZRPLATFORM_API BOOL PostThreadMessageW(DWORD thread, UINT message, WPARAM wparam, LPARAM lparam);
// The calling thread's queue will give WM_QUIT, wParam exit_code, once those of its posted messages are taken that the
// caller asks for.
ZRPLATFORM_API void PostQuitMessage(int exit_code);

// Handles what was sent to the thread, then gives the first message that passes the filters, in this order: posted
// messages, WM_QUIT of PostQuitMessage, WM_TIMER. `window`: that window or its children, NULL: all and thread
// messages, -1: thread messages only (another thread's window has none). first and last: the range of messages, 0
// and 0 for all. The WM_QUIT of PostQuitMessage passes every filter, so that a loop over one window ends; one that was
// posted as a message passes every range. Without PM_REMOVE the message stays, a WM_TIMER too when its timer is killed
// or set anew. PM_QS_* look among these kinds only, and what was sent is handled only if PM_QS_SENDMESSAGE is one of
// them. FALSE: none (or an invalid window).
ZRPLATFORM_API BOOL PeekMessageW(MSG* message, HWND window, UINT first, UINT last, UINT remove);
// The same with PM_REMOVE, waiting for one: 0 for WM_QUIT, -1 on an error (ERROR_INVALID_WINDOW_HANDLE,
// ERROR_WINDOW_OF_OTHER_THREAD, ERROR_NOACCESS for no message to fill), else 1.
ZRPLATFORM_API BOOL GetMessageW(MSG* message, HWND window, UINT first, UINT last);
// Waits until something arrives that the thread has not looked at yet.
ZRPLATFORM_API BOOL WaitMessage();
// Calls the window's procedure, or for WM_TIMER with a TIMERPROC in lParam that; a message without window is dropped.
ZRPLATFORM_API LRESULT DispatchMessageW(const MSG* message);
ZRPLATFORM_API BOOL TranslateMessage(const MSG* message);  // FALSE: there is no keyboard
// Of the kinds in `flags`, high word: those now in the queue; low word: those that arrived since the last look. 0 with
// ERROR_INVALID_FLAGS for another bit than the QS_* above.
ZRPLATFORM_API DWORD GetQueueStatus(UINT flags);
// A number from 0xC000 to 0xFFFF, the same for the same name (ignoring case) in this process. 0: none left or no name.
ZRPLATFORM_API UINT RegisterWindowMessageW(LPCWSTR name);

// A descriptor that is readable while PeekMessageW has something to do for the calling thread, timers that are due
// included: a foreign loop polls it and calls PeekMessageW and DispatchMessageW until there is nothing more. It is
// made by the first call, remains the queue's and closes when the thread ends; only poll it. -1 on failure.
ZRPLATFORM_API int ZrGetQueueDescriptor();

// ---- Timers ----

// WM_TIMER to the window (wParam the identifier, lParam the procedure) each `elapse` milliseconds while the calling
// thread pumps messages. The window must be the calling thread's, in KillTimer too: a timer is a part of the queue of
// the thread that sets it; at most one is due at a time however late the thread is. Setting the same (window,
// identifier) again replaces it and starts anew. With no window, an identifier that is no thread timer of this thread
// is replaced by a fresh one. Returns the identifier (1 for a window's timer 0); 0: ERROR_INVALID_WINDOW_HANDLE,
// ERROR_WINDOW_OF_OTHER_THREAD, ERROR_NOT_ENOUGH_MEMORY. elapse is brought into USER_TIMER_MINIMUM..MAXIMUM.
ZRPLATFORM_API UINT_PTR SetTimer(HWND window, UINT_PTR timer, UINT elapse, TIMERPROC procedure);
// FALSE with ERROR_INVALID_PARAMETER if there is no such timer, ERROR_WINDOW_OF_OTHER_THREAD, ... Of a killed timer
// only a message still comes that PeekMessageW has shown without PM_REMOVE.
ZRPLATFORM_API BOOL KillTimer(HWND window, UINT_PTR timer);

// ---- Waiting for objects and messages ----

// Waits for one of the handles (for all with MWMO_WAITALL, and then a message too), or for input of the QS_* kinds in
// wake_mask: that is WAIT_OBJECT_0 + count. Input counts once: what an earlier call here, PeekMessageW, GetMessageW or
// GetQueueStatus has looked at does not end the wait unless MWMO_INPUTAVAILABLE is given. count may be 0 and at
// most 63. WAIT_FAILED: ERROR_INVALID_HANDLE, ERROR_INVALID_PARAMETER.
//
// Re-entry. Messages that other threads send are handled during the wait, whatever wake_mask says: otherwise two
// threads that wait for each other, one in SendMessageW and one here for what the first will do next, would wait for
// ever. So during the call, on the calling thread, the procedures of its windows run for what is sent (not for what is
// posted, and no TIMERPROC), and a window is destroyed whose parent another thread has destroyed. They may call
// everything, this wait too. A caller holds no lock that they take, and looks again at what they may have changed. What
// they look at in the queue does not count as looked at for this wait. With QS_SENDMESSAGE in wake_mask the wait ends
// after they have run; without it, it goes on. WaitForMultipleObjects, without messages, runs none of them.
ZRPLATFORM_API DWORD MsgWaitForMultipleObjectsEx(DWORD count, const HANDLE* handles, DWORD milliseconds,
                                                 DWORD wake_mask, DWORD flags);
ZRPLATFORM_API DWORD MsgWaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL wait_all, DWORD milliseconds,
                                               DWORD wake_mask);
