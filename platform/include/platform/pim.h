#pragma once

// Pocket Outlook: contacts, appointments and tasks in a store that all of the user's programs share.
//
// A program creates the application object, logs on, opens a default folder and its item collection:
//
//     CoCreateInstance(CLSID_Application, nullptr, CLSCTX_INPROC_SERVER, IID_IPOutlookApp, &app);
//     app->Logon(window);                          // null: no notifications
//     app->GetDefaultFolder(olFolderContacts, &folder);
//     folder->get_Items(&items);
//     items->Item(1, reinterpret_cast<IDispatch**>(&contact));
//
// Results. S_OK unless stated. E_POINTER: an output pointer is null. E_INVALIDARG: an index, tag, folder or property
// that does not exist. Store failures: HRESULT_FROM_WIN32 of ERROR_NOT_LOGGED_ON (no Logon, or after Logoff),
// ERROR_NOT_FOUND (the item no longer exists), ERROR_DISK_FULL, ERROR_BUSY (another program kept the store locked for
// too long), ERROR_FILE_CORRUPT (damaged store, see Logon), ERROR_REVISION_MISMATCH (written by a newer version),
// ERROR_ACCESS_DENIED, ERROR_IO_DEVICE; ZrPimLastErrorText then says more. A failed change leaves the store as it was.
//
// Ownership. Every interface and BSTR handed out is the caller's, to be given back with Release and SysFreeString. An
// output is null (0) after a failure. Text that goes in is NUL-terminated and copied; a null BSTR is an empty string.
// Text is any sequence of UTF-16 units, valid or not, and comes back unit by unit.
//
// Threads. Any thread may use any object, one at a time per object; reference counts are safe anywhere.
//
// Identifiers are 32-bit, positive and unique in the store. The lowest free one of a folder is handed out: contacts
// count from 1, other folders from their number shifted left by 24. A deleted item's identifier is free again; an item
// in hand does not become the one who gets it.
//
// Freshness. What a program committed before a call began is seen by that call, but a collection shows one moment (see
// there). An item in hand shows fields as of their first reading (no earlier than the fetch); fetch it again to see
// later changes. Save writes only the fields that were put.

#include "platform/com.h"
#include "platform/errors.h"
#include "platform/export.h"
#include "platform/types.h"

// --- property values ------------------------------------------------------------------------------------------------

// A property identifier: the type (CEVT_...) in the low word, the number in the high word.
using CEPROPID = DWORD;
using CEOID = DWORD;

inline constexpr WORD CEVT_I2 = 2;
inline constexpr WORD CEVT_I4 = 3;
inline constexpr WORD CEVT_R8 = 5;
inline constexpr WORD CEVT_BOOL = 11;
inline constexpr WORD CEVT_UI2 = 18;
inline constexpr WORD CEVT_UI4 = 19;
inline constexpr WORD CEVT_LPWSTR = 31;
inline constexpr WORD CEVT_FILETIME = 64;
inline constexpr WORD CEVT_BLOB = 65;

inline constexpr ULONG CEDB_ALLOWREALLOC = 0x0001;  // GetProps: the function may allocate or grow the buffer
inline constexpr WORD CEDB_PROPNOTFOUND = 0x0100;   // wFlags: the item has no such property
inline constexpr WORD CEDB_PROPDELETE = 0x0200;     // wFlags for SetProps: remove the property

struct CEBLOB {
    DWORD dwCount;
    BYTE* lpb;
};
union CEVALUNION {
    SHORT iVal;
    USHORT uiVal;
    LONG lVal;
    ULONG ulVal;
    FILETIME filetime;
    LPWSTR lpwstr;
    CEBLOB blob;
    BOOL boolVal;
    double dblVal;
};
struct CEPROPVAL {
    CEPROPID propid;
    WORD wLenData;
    WORD wFlags;
    CEVALUNION val;
};

inline constexpr CEPROPID PIMPR_SOURCE_ID = 0x001B0013;            // an item's source (CEVT_UI4)
inline constexpr CEPROPID PIMPR_FOLDERNOTIFICATIONS = 0x10010013;  // a folder's notifications (CEVT_UI4), bits below
inline constexpr ULONG PIMFOLDERNOTIFICATION_LOCAL = 1;            // report this process's changes
inline constexpr ULONG PIMFOLDERNOTIFICATION_REMOTE = 2;           // report other processes' changes
// What an imported card said that no field holds, as card text (CEVT_LPWSTR). The store keeps it untouched.
inline constexpr CEPROPID ZR_PROPID_CARD_EXTRAS = 0x7D01001F;
// The lines of that card that the fields were read from, for what they say beside the fields (CEVT_LPWSTR).
inline constexpr CEPROPID ZR_PROPID_CARD_LINES = 0x7D04001F;
// What tells a contact from all others for good, unlike its number, which is handed out again (CEVT_LPWSTR).
inline constexpr CEPROPID ZR_PROPID_CARD_UID = 0x7D05001F;
// The same as ZR_PROPID_CARD_EXTRAS for an imported calendar component, and its unique identifier in other programs
// (CEVT_LPWSTR).
inline constexpr CEPROPID ZR_PROPID_EVENT_EXTRAS = 0x7D02001F;
inline constexpr CEPROPID ZR_PROPID_EVENT_UID = 0x7D03001F;
// Numbers 0x7E00 to 0x7EFF are the named fields' own and E_INVALIDARG for SetProps and GetProps.

// --- notifications --------------------------------------------------------------------------------------------------

// Posted to every window of this process that is logged on, for folders that ask for it; wParam is the identifier,
// lParam the folder's number. Changes arrive in the order in which they were committed, each exactly once.
inline constexpr UINT PIM_ITEM_CREATED_LOCAL = 0x8100;
inline constexpr UINT PIM_ITEM_DELETED_LOCAL = 0x8101;
inline constexpr UINT PIM_ITEM_CHANGED_LOCAL = 0x8102;
inline constexpr UINT PIM_ITEM_CREATED_REMOTE = 0x8105;
inline constexpr UINT PIM_ITEM_DELETED_REMOTE = 0x8106;
inline constexpr UINT PIM_ITEM_CHANGED_REMOTE = 0x8107;

// --- folders and items ----------------------------------------------------------------------------------------------

enum OlDefaultFolders : INT {
    olFolderCalendar = 9,
    olFolderContacts = 10,
    olFolderTasks = 13,
    olFolderCities = 101,    // not kept: E_INVALIDARG
    olFolderInfrared = 102,  // not kept: E_INVALIDARG
};
enum OlItemType : INT {
    olAppointmentItem = 1,
    olContactItem = 2,
    olTaskItem = 3,
    olCityItem = 101,
};

enum OlBusyStatus : INT { olFree = 0, olTentative = 1, olBusy = 2, olOutOfOffice = 3 };
enum OlSensitivity : INT { olNormal = 0, olPersonal = 1, olPrivate = 2, olConfidential = 3 };
enum OlImportance : INT { olImportanceLow = 0, olImportanceNormal = 1, olImportanceHigh = 2 };
enum OlMeetingStatus : INT { olNonMeeting = 0, olMeeting = 1, olMeetingReceived = 3, olMeetingCanceled = 5 };
enum OlReminderOptions : INT { olLED = 1, olVibrate = 2, olDialog = 4, olSound = 8, olRepeat = 16 };

enum OlRecurrenceType : INT {
    olRecursOnce = -1,
    olRecursDaily = 0,
    olRecursWeekly = 1,
    olRecursMonthly = 2,   // on a day of the month
    olRecursMonthNth = 3,  // on the first .. last of certain weekdays of the month
    olRecursYearly = 5,    // on a day of a month
    olRecursYearNth = 6,   // on the first .. last of certain weekdays of a month
};
enum OlDaysOfWeek : INT {
    olSunday = 1,
    olMonday = 2,
    olTuesday = 4,
    olWednesday = 8,
    olThursday = 16,
    olFriday = 32,
    olSaturday = 64,
};
// What an appointment is in its series (IZrOccurrence).
enum OlRecurrenceState : INT {
    olApptNotRecurring = 0,
    olApptMaster = 1,
    olApptOccurrence = 2,
    olApptException = 3,
};

// A date field that was never set; also the end of a pattern without one.
inline constexpr DATE ZR_PIM_NO_DATE = 949998.0;  // 1 January 4501

inline constexpr CLSID CLSID_Application = {
    0x05058F23, 0x20BE, 0x11D2, {0x8F, 0x18, 0x00, 0x00, 0xF8, 0x7A, 0x43, 0x35}};
inline constexpr IID IID_IPOutlookApp = {0xAF7D0DC7, 0x3D35, 0x424B, {0xAA, 0x60, 0x27, 0xA3, 0x8B, 0x8B, 0x62, 0x9E}};
inline constexpr IID IID_IItem = {0xFB8998D0, 0x38F0, 0x4D12, {0xAC, 0x56, 0x4E, 0xC8, 0xFC, 0xE9, 0xF3, 0xD5}};
// This system's own identifiers for the interfaces that are otherwise only reached through another one.
inline constexpr IID IID_IFolder = {0x5C0B1B60, 0x6E0A, 0x4C35, {0x9D, 0x11, 0x3B, 0x52, 0x7E, 0x6A, 0x40, 0x01}};
inline constexpr IID IID_IPOutlookItemCollection = {
    0x5C0B1B60, 0x6E0A, 0x4C35, {0x9D, 0x11, 0x3B, 0x52, 0x7E, 0x6A, 0x40, 0x02}};
inline constexpr IID IID_IContact = {0x5C0B1B60, 0x6E0A, 0x4C35, {0x9D, 0x11, 0x3B, 0x52, 0x7E, 0x6A, 0x40, 0x03}};
inline constexpr IID IID_IAppointment = {0x5C0B1B60, 0x6E0A, 0x4C35, {0x9D, 0x11, 0x3B, 0x52, 0x7E, 0x6A, 0x40, 0x04}};
inline constexpr IID IID_ITask = {0x5C0B1B60, 0x6E0A, 0x4C35, {0x9D, 0x11, 0x3B, 0x52, 0x7E, 0x6A, 0x40, 0x05}};
inline constexpr IID IID_IZrStore = {0x5C0B1B60, 0x6E0A, 0x4C35, {0x9D, 0x11, 0x3B, 0x52, 0x7E, 0x6A, 0x40, 0x06}};
inline constexpr IID IID_IRecurrencePattern = {
    0x5C0B1B60, 0x6E0A, 0x4C35, {0x9D, 0x11, 0x3B, 0x52, 0x7E, 0x6A, 0x40, 0x07}};
inline constexpr IID IID_IExceptions = {0x5C0B1B60, 0x6E0A, 0x4C35, {0x9D, 0x11, 0x3B, 0x52, 0x7E, 0x6A, 0x40, 0x08}};
inline constexpr IID IID_IException = {0x5C0B1B60, 0x6E0A, 0x4C35, {0x9D, 0x11, 0x3B, 0x52, 0x7E, 0x6A, 0x40, 0x09}};
inline constexpr IID IID_IZrOccurrence = {0x5C0B1B60, 0x6E0A, 0x4C35, {0x9D, 0x11, 0x3B, 0x52, 0x7E, 0x6A, 0x40, 0x0A}};
inline constexpr IID IID_IZrItem = {0x5C0B1B60, 0x6E0A, 0x4C35, {0x9D, 0x11, 0x3B, 0x52, 0x7E, 0x6A, 0x40, 0x0B}};

struct IPOutlookApp;
struct IFolder;
struct IPOutlookItemCollection;
struct IContact;
struct IAppointment;
struct ITask;
struct IItem;
struct ICity;
struct ITimeZone;
struct IRecurrencePattern;
struct IExceptions;
struct IException;
struct IRecipients;

// A session. Each object is one; a program may have several at a time. Its reference count counts the references that
// callers hold on it and nothing else: folders, collections and items keep their session alive without raising it.
// The last Release logs off if the caller did not.
struct IPOutlookApp : IDispatch {
    // Opens the store, creating it if there is none, and reports its changes to `window` if that is not null.
    // S_FALSE: already logged on (the window stays as it was). A damaged store is renamed, never overwritten, and the
    // call fails with ERROR_FILE_CORRUPT; the next Logon starts with a new store.
    virtual HRESULT Logon(HWND window) = 0;
    // Ends notifications; items and collections of the session fail from now on. ERROR_NOT_LOGGED_ON: there is no
    // session to end.
    virtual HRESULT Logoff() = 0;
    virtual HRESULT get_Version(BSTR* version) = 0;
    virtual HRESULT GetDefaultFolder(OlDefaultFolders folder, IFolder** object) = 0;
    // A new, unsaved item, as its own interface (IContact, IAppointment, ITask).
    virtual HRESULT CreateItem(OlItemType type, IDispatch** item) = 0;
    // The item of any folder with this identifier. ERROR_NOT_FOUND: there is none.
    virtual HRESULT GetItemFromOid(LONG oid, IDispatch** item) = 0;
    virtual HRESULT get_HomeCity(ICity** city) = 0;  // E_NOTIMPL, as every operation on cities and zones
    virtual HRESULT put_HomeCity(ICity* city) = 0;
    virtual HRESULT get_Application(IPOutlookApp** app) = 0;
    virtual HRESULT get_OutlookCompatible(VARIANT_BOOL* compatible) = 0;
    virtual HRESULT GetTimeZoneFromIndex(INT index, ITimeZone** zone) = 0;
    virtual HRESULT GetTimeZoneInformationFromIndex(INT index, void* information) = 0;
    virtual HRESULT SysFreeString(BSTR text) = 0;
    virtual HRESULT VariantTimeToSystemTime(DATE date, SYSTEMTIME* time) = 0;  // E_INVALIDARG: outside years 100-9999
    virtual HRESULT SystemTimeToVariantTime(const SYSTEMTIME* time, DATE* date) = 0;
    virtual HRESULT get_CurrentCityIndex(INT* index) = 0;
    virtual HRESULT put_CurrentCityIndex(INT index) = 0;
    virtual HRESULT ReceiveFromInfrared() = 0;  // E_NOTIMPL

protected:
    ~IPOutlookApp() = default;
};

// A default folder. QueryInterface for IItem gives its properties.
struct IFolder : IDispatch {
    virtual HRESULT get_Items(IPOutlookItemCollection** items) = 0;  // a new collection, in identifier order
    virtual HRESULT get_DefaultItemType(INT* type) = 0;              // an OlItemType
    virtual HRESULT AddItemToInfraredFolder(IDispatch* item) = 0;    // E_NOTIMPL
    virtual HRESULT SendToInfrared() = 0;                            // E_NOTIMPL
    virtual HRESULT get_Application(IPOutlookApp** app) = 0;

protected:
    ~IFolder() = default;
};

// The items of a folder as of one moment, in the order of the collection's sort, numbered from 1.
//
// The moment is that of get_Items (of the first call, for a collection that Restrict made), until get_Count, Find or
// Sort moves on to the present. So who takes the count once and then walks from 1 to it meets everybody who was there,
// whatever others do meanwhile. Fields are not part of the moment: they are as fresh as those of any item.
//
// What the calling thread itself does is followed by the collection's next call: who was saved joins or moves to the
// right place, who was deleted leaves, and the collection closes up. Who was deleted by another thread or program keeps
// the place until the next moment. Such an item, also one that was in hand already, reads on without failing: what was
// not read before is empty (ZR_PIM_NO_DATE, CEDB_PROPNOTFOUND). Its Save, Delete and Copy are ERROR_NOT_FOUND, Remove
// closes up, IZrItem tells it from an item that is merely empty.
struct IPOutlookItemCollection : IDispatch {
    virtual HRESULT Add(IDispatch** item) = 0;  // a new item, which joins the folder with its Save
    virtual HRESULT get_Count(INT* count) = 0;  // now: moves on to the present moment
    // The first item (in this order) that meets a restriction, and the ones behind it. S_FALSE and null: none.
    // E_INVALIDARG: not a restriction. One is made of conditions "[Field] = \"value\"" (also <, <=, >, >=, <>), joined
    // by AND and, weaker, OR; values of texts and dates stand in quotes. Texts compare ignoring case. Dates are written
    // "2024-06-30" or "6/30/2024", with a time if need be ("17:30", "5:30 PM"); an item without the date meets <> only.
    // Numbers are written plainly, truths TRUE and FALSE.
    virtual HRESULT Find(BSTR restriction, IDispatch** item) = 0;
    virtual HRESULT FindNext(IDispatch** item) = 0;
    virtual HRESULT Item(INT index, IDispatch** item) = 0;
    virtual HRESULT Remove(INT index) = 0;  // deletes the item; as the first call: the one that is there now
    // A new collection of the items that meet a restriction (see Find), in identifier order.
    virtual HRESULT Restrict(BSTR restriction, IPOutlookItemCollection** items) = 0;
    // Orders by a text field, "[LastName]", ignoring case as _wcsicmp does, or by a date, "[Start]"; equal ones by
    // identifier. E_INVALIDARG: a tag that is no such field of the folder; the order stays.
    virtual HRESULT Sort(BSTR tag, VARIANT_BOOL descending) = 0;
    virtual HRESULT get_Application(IPOutlookApp** app) = 0;
    virtual HRESULT get_IncludeRecurrences(VARIANT_BOOL* include) = 0;
    // With it, the collections that Restrict makes of a calendar's hold the occurrences of series instead of the
    // series: everything that meets the restriction at its own time, in the order of [Start]. The restriction has to
    // say until when, "[Start] < \"2024-07-01\"" (or by [End]), else it is E_INVALIDARG; Remove deletes the single
    // occurrence.
    virtual HRESULT put_IncludeRecurrences(VARIANT_BOOL include) = 0;

protected:
    ~IPOutlookItemCollection() = default;
};

// The properties of an item or a folder, reached by QueryInterface from it (and back).
struct IItem : IDispatch {
    // Reads `count` properties. The values, then their strings and blobs, are written to *values, a block of `*size`
    // bytes of `heap`. With CEDB_ALLOWREALLOC the block is allocated (*values null) or reallocated as needed and *size
    // updated; the caller frees it with HeapFree. Without it, ERROR_INSUFFICIENT_BUFFER when *size is too small, which
    // is then what is needed. A property that is not there has CEDB_PROPNOTFOUND in wFlags. With `ids` null and `count`
    // 0, all properties of the item; S_FALSE and nothing written when it has none.
    virtual HRESULT GetProps(const CEPROPID* ids, ULONG flags, WORD count, CEPROPVAL** values, ULONG* size,
                             HANDLE heap) = 0;
    // Sets properties (CEDB_PROPDELETE in wFlags removes one). On an item they are stored by Save; a folder's
    // notifications take effect in this process at once, until its last Logoff, and outlive that by Save.
    virtual HRESULT SetProps(ULONG flags, WORD count, CEPROPVAL* values) = 0;
    virtual HRESULT Save() = 0;
    virtual HRESULT Delete() = 0;  // a folder: E_ACCESSDENIED
    virtual HRESULT Copy(IItem** copy) = 0;
    virtual HRESULT Display(HWND parent) = 0;  // nothing to display on: E_NOTIMPL
    virtual HRESULT Edit(HWND parent) = 0;     // E_NOTIMPL
    virtual HRESULT get_Oid(LONG* oid) = 0;
    virtual HRESULT get_DefaultItemType(INT* type) = 0;
    virtual HRESULT get_Application(IPOutlookApp** app) = 0;

protected:
    ~IItem() = default;
};

#define ZRPLATFORM_FIELD(type, name)             \
    virtual HRESULT get_##name(type* value) = 0; \
    virtual HRESULT put_##name(type value) = 0;

// A contact. A text field that was never set is an empty string (never null), a date ZR_PIM_NO_DATE.
//
// FileAs, unless the user put one, follows the names when the item is saved: "Last, First Middle"; the part that there
// is when there is only one of them; without a name the company, else the first e-mail address. Putting an empty FileAs
// goes back to that.
struct IContact : IDispatch {
    ZRPLATFORM_FIELD(DATE, Birthday)
    ZRPLATFORM_FIELD(DATE, Anniversary)
    ZRPLATFORM_FIELD(BSTR, BusinessFaxNumber)
    ZRPLATFORM_FIELD(BSTR, CompanyName)
    ZRPLATFORM_FIELD(BSTR, Department)
    ZRPLATFORM_FIELD(BSTR, Email1Address)
    ZRPLATFORM_FIELD(BSTR, MobileTelephoneNumber)
    ZRPLATFORM_FIELD(BSTR, OfficeLocation)
    ZRPLATFORM_FIELD(BSTR, PagerNumber)
    ZRPLATFORM_FIELD(BSTR, BusinessTelephoneNumber)
    ZRPLATFORM_FIELD(BSTR, JobTitle)
    ZRPLATFORM_FIELD(BSTR, HomeTelephoneNumber)
    ZRPLATFORM_FIELD(BSTR, Email2Address)
    ZRPLATFORM_FIELD(BSTR, Spouse)
    ZRPLATFORM_FIELD(BSTR, Email3Address)
    ZRPLATFORM_FIELD(BSTR, Home2TelephoneNumber)
    ZRPLATFORM_FIELD(BSTR, HomeFaxNumber)
    ZRPLATFORM_FIELD(BSTR, CarTelephoneNumber)
    ZRPLATFORM_FIELD(BSTR, AssistantName)
    ZRPLATFORM_FIELD(BSTR, AssistantTelephoneNumber)
    ZRPLATFORM_FIELD(BSTR, Children)
    ZRPLATFORM_FIELD(BSTR, Categories)
    ZRPLATFORM_FIELD(BSTR, WebPage)
    ZRPLATFORM_FIELD(BSTR, Business2TelephoneNumber)
    ZRPLATFORM_FIELD(BSTR, Title)
    ZRPLATFORM_FIELD(BSTR, FirstName)
    ZRPLATFORM_FIELD(BSTR, MiddleName)
    ZRPLATFORM_FIELD(BSTR, LastName)
    ZRPLATFORM_FIELD(BSTR, Suffix)
    ZRPLATFORM_FIELD(BSTR, HomeAddressStreet)
    ZRPLATFORM_FIELD(BSTR, HomeAddressCity)
    ZRPLATFORM_FIELD(BSTR, HomeAddressState)
    ZRPLATFORM_FIELD(BSTR, HomeAddressPostalCode)
    ZRPLATFORM_FIELD(BSTR, HomeAddressCountry)
    ZRPLATFORM_FIELD(BSTR, OtherAddressStreet)
    ZRPLATFORM_FIELD(BSTR, OtherAddressCity)
    ZRPLATFORM_FIELD(BSTR, OtherAddressState)
    ZRPLATFORM_FIELD(BSTR, OtherAddressPostalCode)
    ZRPLATFORM_FIELD(BSTR, OtherAddressCountry)
    ZRPLATFORM_FIELD(BSTR, BusinessAddressStreet)
    ZRPLATFORM_FIELD(BSTR, BusinessAddressCity)
    ZRPLATFORM_FIELD(BSTR, BusinessAddressState)
    ZRPLATFORM_FIELD(BSTR, BusinessAddressPostalCode)
    ZRPLATFORM_FIELD(BSTR, BusinessAddressCountry)
    ZRPLATFORM_FIELD(BSTR, RadioTelephoneNumber)
    ZRPLATFORM_FIELD(BSTR, FileAs)
    ZRPLATFORM_FIELD(BSTR, Body)
    ZRPLATFORM_FIELD(BSTR, YomiCompanyName)
    ZRPLATFORM_FIELD(BSTR, YomiFirstName)
    ZRPLATFORM_FIELD(BSTR, YomiLastName)
    // Stores what was put; a new item gets its identifier. Nothing is written when nothing was put.
    // ERROR_NOT_FOUND: the item was deleted meanwhile.
    virtual HRESULT Save() = 0;
    virtual HRESULT Delete() = 0;               // E_INVALIDARG on an item that was never saved
    virtual HRESULT Copy(IContact** copy) = 0;  // a new, unsaved item with the same fields and properties
    virtual HRESULT Display() = 0;              // nothing to display on: E_NOTIMPL
    virtual HRESULT get_Oid(LONG* oid) = 0;     // 0 until the first Save
    virtual HRESULT get_Application(IPOutlookApp** app) = 0;

protected:
    ~IContact() = default;
};

// An appointment, a series of them (it has a recurrence pattern), or one occurrence of a series.
//
// Dates are local: a clock on the wall shows them. Nothing is converted when the zone or daylight saving changes, so a
// series keeps its time of day all year. Dates are kept to the second.
//
// An all-day event takes whole days: Save moves its start back to midnight and its end on to midnight (at least a day
// later).
//
// A series is one item; its Start and End are those of the first occurrence, and it is recurring as soon as its pattern
// has a type. An occurrence is reached through the pattern (GetOccurrence), through an exception, or through a
// collection that includes recurrences. It has the fields of its series, on its own day; what is put into it and saved
// makes it an exception, which keeps those fields while the others still follow the series; Delete removes it from the
// series. Its identifier is its series', its Copy an appointment of its own. ClearRecurrencePattern and a change of its
// pattern are E_ACCESSDENIED. Save and Delete are ERROR_NOT_FOUND when the series was deleted meanwhile or no longer
// occurs on that day.
struct IAppointment : IDispatch {
    ZRPLATFORM_FIELD(VARIANT_BOOL, AllDayEvent)
    ZRPLATFORM_FIELD(LONG, BusyStatus)  // an OlBusyStatus
    ZRPLATFORM_FIELD(BSTR, Categories)
    ZRPLATFORM_FIELD(LONG, Duration)  // minutes between start and end; putting it moves the end
    ZRPLATFORM_FIELD(DATE, End)
    ZRPLATFORM_FIELD(BSTR, Location)
    ZRPLATFORM_FIELD(LONG, MeetingStatus)  // an OlMeetingStatus
    ZRPLATFORM_FIELD(LONG, ReminderMinutesBeforeStart)
    ZRPLATFORM_FIELD(LONG, ReminderOptions)  // of OlReminderOptions
    ZRPLATFORM_FIELD(VARIANT_BOOL, ReminderSet)
    ZRPLATFORM_FIELD(BSTR, ReminderSoundFile)
    ZRPLATFORM_FIELD(LONG, Sensitivity)  // an OlSensitivity
    ZRPLATFORM_FIELD(DATE, Start)        // putting it moves the end, too: the duration stays
    ZRPLATFORM_FIELD(BSTR, Subject)
    ZRPLATFORM_FIELD(BSTR, Body)
    // True for a series and for its occurrences.
    virtual HRESULT get_IsRecurring(VARIANT_BOOL* recurring) = 0;
    // The pattern of this very object: changes are stored by its Save. An appointment that does not recur has one of
    // the type olRecursOnce. An occurrence gives its series' pattern, to be read only.
    virtual HRESULT GetRecurrencePattern(IRecurrencePattern** pattern) = 0;
    // Makes the series a single appointment, at the first occurrence's time; its exceptions go with the Save.
    virtual HRESULT ClearRecurrencePattern() = 0;
    virtual HRESULT get_Recipients(IRecipients** recipients) = 0;  // E_NOTIMPL
    // As IContact::Save, but a changed pattern or time of a series is stored as a whole. E_INVALIDARG: a series without
    // a start, without an occurrence, or with one after the year 4500.
    virtual HRESULT Save() = 0;
    virtual HRESULT Delete() = 0;                   // a series goes with its exceptions
    virtual HRESULT Cancel() = 0;                   // E_NOTIMPL
    virtual HRESULT Send() = 0;                     // E_NOTIMPL
    virtual HRESULT Copy(IAppointment** copy) = 0;  // a series with its pattern, without its exceptions
    virtual HRESULT Display() = 0;
    virtual HRESULT get_Oid(LONG* oid) = 0;
    virtual HRESULT get_Application(IPOutlookApp** app) = 0;

protected:
    ~IAppointment() = default;
};

// When a series occurs: at most once a day, for ever or up to an end. A part of the appointment that gave it out: the
// same thread rule covers both, what is put here is seen there, and the appointment's Save stores it.
//
// Put the type first: it sets the fields that its kind of pattern has from the appointment's start, and the interval to
// 1. A field that the type does not have reads 0 and is E_INVALIDARG to put; so are values out of range.
//
//     type                 fields
//     olRecursDaily        Interval in days
//     olRecursWeekly       Interval in weeks (which begin on Sunday), DayOfWeekMask
//     olRecursMonthly      Interval in months, DayOfMonth
//     olRecursMonthNth     Interval in months, Instance, DayOfWeekMask
//     olRecursYearly       Interval in years, DayOfMonth, MonthOfYear
//     olRecursYearNth      Interval in years, Instance, DayOfWeekMask, MonthOfYear
//
// Instance counts the days of the month that are in the mask: 1 to 4, and 5 for the last one. A month that lacks its
// DayOfMonth (the 31st, 29 February) has its occurrence on its last day.
//
// The pattern starts with its first occurrence: Save moves the start on to the first day that fits type and fields,
// and intervals count from there. The end is what was put last: none (the default), a number of occurrences, or a day
// after which there are none. Deleted occurrences still count.
//
// A changed pattern, and a changed start, end, duration or all-day flag of a series, drop the series' exceptions, with
// the Save. Putting the value that is there changes nothing.
struct IRecurrencePattern : IDispatch {
    ZRPLATFORM_FIELD(LONG, RecurrenceType)    // an OlRecurrenceType; putting olRecursOnce is ClearRecurrencePattern
    ZRPLATFORM_FIELD(DATE, PatternStartDate)  // the first day, at midnight; the day of the appointment's start
    ZRPLATFORM_FIELD(DATE, StartTime)         // time of day of the start; only the fraction counts; the duration stays
    ZRPLATFORM_FIELD(DATE, EndTime)  // the appointment's end; putting an earlier time than the start's: next day
    // The day of the last occurrence (as put: a day after which there is none), at midnight; ZR_PIM_NO_DATE: no end.
    ZRPLATFORM_FIELD(DATE, PatternEndDate)
    ZRPLATFORM_FIELD(VARIANT_BOOL, NoEndDate)  // putting VARIANT_FALSE without an end: ten occurrences
    ZRPLATFORM_FIELD(LONG, Occurrences)    // from the first to the last, also the deleted; -1: no end, 1: olRecursOnce
    ZRPLATFORM_FIELD(LONG, Interval)       // 1 to 999
    ZRPLATFORM_FIELD(LONG, DayOfWeekMask)  // of OlDaysOfWeek, at least one
    ZRPLATFORM_FIELD(LONG, DayOfMonth)     // 1 to 31
    ZRPLATFORM_FIELD(LONG, Instance)       // 1 to 5
    ZRPLATFORM_FIELD(LONG, MonthOfYear)    // 1 to 12
    ZRPLATFORM_FIELD(LONG, Duration)       // minutes, 0 or more: the appointment's
    // The exceptions as the store has them now, in the order of their days; none when a change not yet saved drops
    // them.
    virtual HRESULT get_Exceptions(IExceptions** exceptions) = 0;
    // The occurrence that the pattern has on the day of `date`, whatever the time of day, also when it was moved to
    // another day. ERROR_NOT_FOUND: none, or it was deleted. E_UNEXPECTED: the appointment has to be saved first.
    virtual HRESULT GetOccurrence(DATE date, IAppointment** occurrence) = 0;
    virtual HRESULT get_Application(IPOutlookApp** app) = 0;

protected:
    ~IRecurrencePattern() = default;
};

// The exceptions of a series at the time of get_Exceptions, numbered from 1. To the thread rule they and each of them
// are parts of the appointment, too.
struct IExceptions : IDispatch {
    virtual HRESULT get_Count(INT* count) = 0;
    virtual HRESULT Item(INT index, IException** exception) = 0;  // E_INVALIDARG: no such index
    virtual HRESULT get_Application(IPOutlookApp** app) = 0;

protected:
    ~IExceptions() = default;
};

// An occurrence that was changed or deleted.
struct IException : IDispatch {
    virtual HRESULT get_AppointmentItem(IAppointment** appointment) = 0;  // ERROR_NOT_FOUND: deleted
    virtual HRESULT get_Deleted(VARIANT_BOOL* deleted) = 0;
    // The day on which the pattern has it, at midnight; not where it was moved to.
    virtual HRESULT get_OriginalDate(DATE* date) = 0;
    virtual HRESULT get_Application(IPOutlookApp** app) = 0;

protected:
    ~IException() = default;
};

// A task. Recurrence is not kept yet.
struct ITask : IDispatch {
    ZRPLATFORM_FIELD(BSTR, Categories)
    ZRPLATFORM_FIELD(DATE, StartDate)
    ZRPLATFORM_FIELD(DATE, DueDate)
    ZRPLATFORM_FIELD(LONG, Importance)
    ZRPLATFORM_FIELD(VARIANT_BOOL, Complete)
    ZRPLATFORM_FIELD(LONG, ReminderOptions)
    ZRPLATFORM_FIELD(VARIANT_BOOL, ReminderSet)
    ZRPLATFORM_FIELD(BSTR, ReminderSoundFile)
    ZRPLATFORM_FIELD(DATE, ReminderTime)
    ZRPLATFORM_FIELD(LONG, Sensitivity)
    ZRPLATFORM_FIELD(BSTR, Subject)
    ZRPLATFORM_FIELD(VARIANT_BOOL, TeamTask)
    ZRPLATFORM_FIELD(BSTR, Body)
    virtual HRESULT get_DateCompleted(DATE* date) = 0;  // the day on which Complete was put true
    virtual HRESULT get_IsRecurring(VARIANT_BOOL* recurring) = 0;
    virtual HRESULT GetRecurrencePattern(IRecurrencePattern** pattern) = 0;  // E_NOTIMPL
    virtual HRESULT ClearRecurrencePattern() = 0;
    virtual HRESULT SkipRecurrence() = 0;  // E_NOTIMPL
    virtual HRESULT Save() = 0;
    virtual HRESULT Delete() = 0;
    virtual HRESULT Copy(ITask** copy) = 0;
    virtual HRESULT Display() = 0;
    virtual HRESULT get_Oid(LONG* oid) = 0;
    virtual HRESULT get_Application(IPOutlookApp** app) = 0;

protected:
    ~ITask() = default;
};

#undef ZRPLATFORM_FIELD

// --- this system's additions ----------------------------------------------------------------------------------------

// Reached by QueryInterface from IPOutlookApp. A batch makes the saves and deletions of one session one transaction:
// all of them are kept or none, and they cost one commit. Until CommitBatch no call of any program, this session's
// included, sees them in the store, but an item in hand keeps its values and has its identifier after Save.
// Notifications follow the commit. One batch at a time in the whole store; other writers wait for it, so keep it short
// (a thousand items at a time). Logoff rolls an open batch back.
struct IZrStore : IUnknown {
    virtual HRESULT BeginBatch() = 0;  // ERROR_BUSY: another program or session kept the store locked for too long
    // E_UNEXPECTED: no batch is open. Any other failure: nothing of the batch was kept, the batch is over.
    virtual HRESULT CommitBatch() = 0;
    virtual HRESULT RollbackBatch() = 0;
    virtual HRESULT LastErrorText(BSTR* text) = 0;  // ZrPimLastErrorText as a BSTR
    virtual HRESULT get_StorePath(BSTR* path) = 0;  // the store's file in the host's file system
    // The lowest identifier above `after` of a stored item of the folder with this lasting identifier
    // (ZR_PROPID_CARD_UID of contacts, ZR_PROPID_EVENT_UID of others), unit by unit; where `uid` is null or empty, of
    // one that has none. 0: there is no further one. E_INVALIDARG: no such folder.
    virtual HRESULT FindByUid(INT folder, LPCWSTR uid, LONG after, LONG* oid) = 0;
    // The lowest identifier above `after` of a stored contact one of whose three addresses is this one, ignoring case
    // as _wcsicmp does, from an index in the store; 0: there is no further one, or `address` is null or empty.
    virtual HRESULT FindByEmail(LPCWSTR address, LONG after, LONG* oid) = 0;

protected:
    ~IZrStore() = default;
};

// Reached by QueryInterface from IAppointment.
struct IZrOccurrence : IUnknown {
    virtual HRESULT get_RecurrenceState(INT* state) = 0;  // an OlRecurrenceState
    // The day of an occurrence in its series' pattern, at midnight. E_UNEXPECTED: not an occurrence, as below.
    virtual HRESULT get_OriginalDate(DATE* date) = 0;
    virtual HRESULT get_Series(IAppointment** series) = 0;  // a new object

protected:
    ~IZrOccurrence() = default;
};

// Reached by QueryInterface from IContact, IAppointment and ITask.
struct IZrItem : IUnknown {
    // Whether an item that a collection gave out turned out to be deleted by somebody else (see
    // IPOutlookItemCollection). Looks nothing up: as long as it is false, everything was read of an item that was
    // there.
    virtual HRESULT get_HasLeft(VARIANT_BOOL* left) = 0;
    // A number that together with the identifier tells the item from all others for good, as identifiers are handed out
    // again; 0 of items that earlier versions made. The same for a series and its occurrences. Fails as reading a
    // field of a deleted item does where the item is not in the store.
    virtual HRESULT get_Born(LONGLONG* number) = 0;

protected:
    ~IZrItem() = default;
};

// What went wrong in the last failing call of this header on the calling thread, in a sentence for people; empty when
// none failed. Valid until the thread's next call of this header.
ZRPLATFORM_API LPCWSTR ZrPimLastErrorText();
