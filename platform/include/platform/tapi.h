#pragma once

// Telephony (TAPI 2.0): this computer's modems as lines, and the calls on them.
//
// The modems are those of ModemManager and of oFono, whichever is on the system bus; with neither there are no lines,
// and nothing is started for being asked. Each modem is a line with one address, 0. A line's identifier counts from 0
// and names the same modem for as long as some session of the process lives; one that is gone keeps its number.
//
// Functions return 0, a positive request identifier, or a LINEERR_... code, which is negative. A request is under way
// when its identifier is returned; LINE_REPLY brings its result. Handles are 32 bits; one that is stale, closed or of
// another kind is LINEERR_INVALAPPHANDLE, LINEERR_INVALLINEHANDLE or LINEERR_INVALCALLHANDLE, never a crash.
//
// A session belongs to the thread that called lineInitialize: its callback is called on that thread while it takes
// messages (GetMessageW, PeekMessageW). All functions may be called from any thread, from callbacks too. What a session
// is told of calls is what the services have told; who asks without taking messages is answered as freshly.
//
// Structures say how large they are: the caller sets dwTotalSize, the call sets dwNeededSize and dwUsedSize. What has a
// fixed part larger than dwTotalSize is LINEERR_STRUCTURETOOSMALL with dwNeededSize set, so every structure must have
// room for those three sizes, whatever dwTotalSize says. Texts that do not fit are left out, and dwNeededSize tells.
// Sizes and offsets are bytes; texts are WCHARs with their NUL.
//
// A child made by fork has none of its parent's sessions: their handles are refused there.
//
// Nobody waits for a service that does not answer for longer than a few seconds: then LINEERR_OPERATIONFAILED.

#include "platform/errors.h"
#include "platform/export.h"
#include "platform/types.h"

using HLINEAPP = DWORD;
using HLINE = DWORD;
using HCALL = DWORD;
using LPHLINEAPP = HLINEAPP*;
using LPHLINE = HLINE*;
using LPHCALL = HCALL*;

// `device` is the line or the call that a message is about; `instance` is the line's, 0 for messages of the session.
using LINECALLBACK = void (*)(DWORD device, DWORD message, DWORD_PTR instance, DWORD_PTR param1, DWORD_PTR param2,
                              DWORD_PTR param3);

inline constexpr DWORD TAPI_CURRENT_VERSION = 0x00020000;

// ---- Messages -------------------------------------------------------------------------------------------------------

inline constexpr DWORD LINE_ADDRESSSTATE = 0;
inline constexpr DWORD LINE_CALLINFO = 1;   // device: call; 1: LINECALLINFOSTATE_...
inline constexpr DWORD LINE_CALLSTATE = 2;  // device: call; 1: state; 2: its mode; 3: the privilege, when it is new
inline constexpr DWORD LINE_CLOSE = 3;      // device: line, which is closed, as its modem has gone
inline constexpr DWORD LINE_LINEDEVSTATE = 8;
inline constexpr DWORD LINE_REPLY = 12;       // 1: the request; 2: 0 or LINEERR_...
inline constexpr DWORD LINE_CREATE = 19;      // 1: the new line's identifier
inline constexpr DWORD LINE_APPNEWCALL = 23;  // device: line; 1: address; 2: the call; 3: the privilege
inline constexpr DWORD LINE_REMOVE = 25;      // 1: the identifier of the line that is gone

// ---- Results --------------------------------------------------------------------------------------------------------

#define ZRPLATFORM_LINEERR(code) static_cast<LONG>(0x80000000u + (code))
inline constexpr LONG LINEERR_ALLOCATED = ZRPLATFORM_LINEERR(0x01);
inline constexpr LONG LINEERR_BADDEVICEID = ZRPLATFORM_LINEERR(0x02);
inline constexpr LONG LINEERR_BEARERMODEUNAVAIL = ZRPLATFORM_LINEERR(0x03);
inline constexpr LONG LINEERR_CALLUNAVAIL = ZRPLATFORM_LINEERR(0x05);
inline constexpr LONG LINEERR_INCOMPATIBLEAPIVERSION = ZRPLATFORM_LINEERR(0x0C);
inline constexpr LONG LINEERR_INCOMPATIBLEEXTVERSION = ZRPLATFORM_LINEERR(0x0D);
inline constexpr LONG LINEERR_INUSE = ZRPLATFORM_LINEERR(0x0F);
inline constexpr LONG LINEERR_INVALADDRESS = ZRPLATFORM_LINEERR(0x10);
inline constexpr LONG LINEERR_INVALADDRESSID = ZRPLATFORM_LINEERR(0x11);
inline constexpr LONG LINEERR_INVALAPPHANDLE = ZRPLATFORM_LINEERR(0x14);
inline constexpr LONG LINEERR_INVALAPPNAME = ZRPLATFORM_LINEERR(0x15);
inline constexpr LONG LINEERR_INVALBEARERMODE = ZRPLATFORM_LINEERR(0x16);
inline constexpr LONG LINEERR_INVALCALLHANDLE = ZRPLATFORM_LINEERR(0x18);
inline constexpr LONG LINEERR_INVALCALLPARAMS = ZRPLATFORM_LINEERR(0x19);
inline constexpr LONG LINEERR_INVALCALLPRIVILEGE = ZRPLATFORM_LINEERR(0x1A);
inline constexpr LONG LINEERR_INVALCALLSELECT = ZRPLATFORM_LINEERR(0x1B);
inline constexpr LONG LINEERR_INVALCALLSTATE = ZRPLATFORM_LINEERR(0x1C);
inline constexpr LONG LINEERR_INVALLINEHANDLE = ZRPLATFORM_LINEERR(0x2B);
inline constexpr LONG LINEERR_INVALMEDIAMODE = ZRPLATFORM_LINEERR(0x2F);
inline constexpr LONG LINEERR_INVALPARAM = ZRPLATFORM_LINEERR(0x32);
inline constexpr LONG LINEERR_INVALPOINTER = ZRPLATFORM_LINEERR(0x35);
inline constexpr LONG LINEERR_INVALPRIVSELECT = ZRPLATFORM_LINEERR(0x36);
inline constexpr LONG LINEERR_INVALREQUESTMODE = ZRPLATFORM_LINEERR(0x38);
inline constexpr LONG LINEERR_LINEMAPPERFAILED = ZRPLATFORM_LINEERR(0x40);
inline constexpr LONG LINEERR_NODEVICE = ZRPLATFORM_LINEERR(0x42);
inline constexpr LONG LINEERR_NODRIVER = ZRPLATFORM_LINEERR(0x43);
inline constexpr LONG LINEERR_NOMEM = ZRPLATFORM_LINEERR(0x44);
inline constexpr LONG LINEERR_NOTOWNER = ZRPLATFORM_LINEERR(0x46);
inline constexpr LONG LINEERR_OPERATIONFAILED = ZRPLATFORM_LINEERR(0x48);
inline constexpr LONG LINEERR_OPERATIONUNAVAIL = ZRPLATFORM_LINEERR(0x49);
inline constexpr LONG LINEERR_RESOURCEUNAVAIL = ZRPLATFORM_LINEERR(0x4B);
inline constexpr LONG LINEERR_STRUCTURETOOSMALL = ZRPLATFORM_LINEERR(0x4D);
inline constexpr LONG LINEERR_TARGETNOTFOUND = ZRPLATFORM_LINEERR(0x4E);
inline constexpr LONG LINEERR_TARGETSELF = ZRPLATFORM_LINEERR(0x4F);
inline constexpr LONG LINEERR_UNINITIALIZED = ZRPLATFORM_LINEERR(0x50);
#undef ZRPLATFORM_LINEERR

// ---- What calls and lines are ---------------------------------------------------------------------------------------

inline constexpr DWORD LINECALLSTATE_IDLE = 0x1;  // over: the handle is good for lineDeallocateCall
inline constexpr DWORD LINECALLSTATE_OFFERING = 0x2;
inline constexpr DWORD LINECALLSTATE_ACCEPTED = 0x4;
inline constexpr DWORD LINECALLSTATE_DIALTONE = 0x8;
inline constexpr DWORD LINECALLSTATE_DIALING = 0x10;
inline constexpr DWORD LINECALLSTATE_RINGBACK = 0x20;
inline constexpr DWORD LINECALLSTATE_BUSY = 0x40;
inline constexpr DWORD LINECALLSTATE_SPECIALINFO = 0x80;
inline constexpr DWORD LINECALLSTATE_CONNECTED = 0x100;
inline constexpr DWORD LINECALLSTATE_PROCEEDING = 0x200;
inline constexpr DWORD LINECALLSTATE_ONHOLD = 0x400;
inline constexpr DWORD LINECALLSTATE_CONFERENCED = 0x800;
inline constexpr DWORD LINECALLSTATE_DISCONNECTED = 0x4000;
inline constexpr DWORD LINECALLSTATE_UNKNOWN = 0x8000;

inline constexpr DWORD LINEDISCONNECTMODE_NORMAL = 0x1;
inline constexpr DWORD LINEDISCONNECTMODE_UNKNOWN = 0x2;
inline constexpr DWORD LINEDISCONNECTMODE_REJECT = 0x4;
inline constexpr DWORD LINEDISCONNECTMODE_BUSY = 0x20;
inline constexpr DWORD LINEDISCONNECTMODE_UNAVAIL = 0x2000;

inline constexpr DWORD LINECALLPRIVILEGE_NONE = 0x1;
inline constexpr DWORD LINECALLPRIVILEGE_MONITOR = 0x2;
inline constexpr DWORD LINECALLPRIVILEGE_OWNER = 0x4;

inline constexpr DWORD LINECALLSELECT_LINE = 0x1;
inline constexpr DWORD LINECALLSELECT_ADDRESS = 0x2;
inline constexpr DWORD LINECALLSELECT_CALL = 0x4;

inline constexpr DWORD LINECALLFEATURE_ANSWER = 0x4;
inline constexpr DWORD LINECALLFEATURE_DROP = 0x80;

inline constexpr DWORD LINECALLORIGIN_OUTBOUND = 0x1;
inline constexpr DWORD LINECALLORIGIN_INBOUND = 0x80;
inline constexpr DWORD LINECALLREASON_DIRECT = 0x1;

inline constexpr DWORD LINECALLPARTYID_BLOCKED = 0x1;
inline constexpr DWORD LINECALLPARTYID_NAME = 0x4;
inline constexpr DWORD LINECALLPARTYID_ADDRESS = 0x8;
inline constexpr DWORD LINECALLPARTYID_UNKNOWN = 0x20;
inline constexpr DWORD LINECALLPARTYID_UNAVAIL = 0x40;

inline constexpr DWORD LINECALLINFOSTATE_CALLERID = 0x8000;
inline constexpr DWORD LINECALLINFOSTATE_CALLEDID = 0x10000;

inline constexpr DWORD LINEMEDIAMODE_UNKNOWN = 0x2;
inline constexpr DWORD LINEMEDIAMODE_INTERACTIVEVOICE = 0x4;
inline constexpr DWORD LINEMEDIAMODE_AUTOMATEDVOICE = 0x8;
inline constexpr DWORD LINEMEDIAMODE_DATAMODEM = 0x10;

inline constexpr DWORD LINEBEARERMODE_VOICE = 0x1;
inline constexpr DWORD LINEADDRESSMODE_ADDRESSID = 0x1;
inline constexpr DWORD LINEANSWERMODE_HOLD = 0x4;
inline constexpr DWORD LINELINEFEATURE_MAKECALL = 0x8;
inline constexpr DWORD STRINGFORMAT_UNICODE = 0x4;
inline constexpr DWORD LINEMAPPER = 0xFFFFFFFF;

// ---- Structures -----------------------------------------------------------------------------------------------------

struct lineextensionid_tag {
    DWORD dwExtensionID0;
    DWORD dwExtensionID1;
    DWORD dwExtensionID2;
    DWORD dwExtensionID3;
};
using LINEEXTENSIONID = lineextensionid_tag;
using LPLINEEXTENSIONID = LINEEXTENSIONID*;

struct linedialparams_tag {
    DWORD dwDialPause;
    DWORD dwDialSpeed;
    DWORD dwDigitDuration;
    DWORD dwWaitForDialtone;
};
using LINEDIALPARAMS = linedialparams_tag;
using LPLINEDIALPARAMS = LINEDIALPARAMS*;

struct linedevcaps_tag {
    DWORD dwTotalSize;
    DWORD dwNeededSize;
    DWORD dwUsedSize;
    DWORD dwProviderInfoSize;  // the service: "ModemManager", "oFono"
    DWORD dwProviderInfoOffset;
    DWORD dwSwitchInfoSize;  // the modem's own number, where it knows it
    DWORD dwSwitchInfoOffset;
    DWORD dwPermanentLineID;
    DWORD dwLineNameSize;  // maker and model
    DWORD dwLineNameOffset;
    DWORD dwStringFormat;
    DWORD dwAddressModes;
    DWORD dwNumAddresses;
    DWORD dwBearerModes;
    DWORD dwMaxRate;
    DWORD dwMediaModes;  // LINEMEDIAMODE_INTERACTIVEVOICE where the modem can carry voice calls
    DWORD dwGenerateToneModes;
    DWORD dwGenerateToneMaxNumFreq;
    DWORD dwGenerateDigitModes;
    DWORD dwMonitorToneMaxNumFreq;
    DWORD dwMonitorToneMaxNumEntries;
    DWORD dwMonitorDigitModes;
    DWORD dwGatherDigitsMinTimeout;
    DWORD dwGatherDigitsMaxTimeout;
    DWORD dwMedCtlDigitMaxListSize;
    DWORD dwMedCtlMediaMaxListSize;
    DWORD dwMedCtlToneMaxListSize;
    DWORD dwMedCtlCallStateMaxListSize;
    DWORD dwDevCapFlags;
    DWORD dwMaxNumActiveCalls;
    DWORD dwAnswerMode;
    DWORD dwRingModes;
    DWORD dwLineStates;
    DWORD dwUUIAcceptSize;
    DWORD dwUUIAnswerSize;
    DWORD dwUUIMakeCallSize;
    DWORD dwUUIDropSize;
    DWORD dwUUISendUserUserInfoSize;
    DWORD dwUUICallInfoSize;
    LINEDIALPARAMS MinDialParams;
    LINEDIALPARAMS MaxDialParams;
    LINEDIALPARAMS DefaultDialParams;
    DWORD dwNumTerminals;
    DWORD dwTerminalCapsSize;
    DWORD dwTerminalCapsOffset;
    DWORD dwTerminalTextEntrySize;
    DWORD dwTerminalTextSize;
    DWORD dwTerminalTextOffset;
    DWORD dwDevSpecificSize;
    DWORD dwDevSpecificOffset;
    DWORD dwLineFeatures;
    DWORD dwSettableDevStatus;
    DWORD dwDeviceClassesSize;
    DWORD dwDeviceClassesOffset;
};
using LINEDEVCAPS = linedevcaps_tag;
using LPLINEDEVCAPS = LINEDEVCAPS*;

struct linecalllist_tag {
    DWORD dwTotalSize;
    DWORD dwNeededSize;
    DWORD dwUsedSize;
    DWORD dwCallsNumEntries;
    DWORD dwCallsSize;
    DWORD dwCallsOffset;  // of HCALLs
};
using LINECALLLIST = linecalllist_tag;
using LPLINECALLLIST = LINECALLLIST*;

struct linecallstatus_tag {
    DWORD dwTotalSize;
    DWORD dwNeededSize;
    DWORD dwUsedSize;
    DWORD dwCallState;
    DWORD dwCallStateMode;
    DWORD dwCallPrivilege;
    DWORD dwCallFeatures;  // what the caller may do now
    DWORD dwDevSpecificSize;
    DWORD dwDevSpecificOffset;
    DWORD dwCallFeatures2;
    SYSTEMTIME tStateEntryTime;  // when this process heard of the state; UTC
};
using LINECALLSTATUS = linecallstatus_tag;
using LPLINECALLSTATUS = LINECALLSTATUS*;

struct linecallinfo_tag {
    DWORD dwTotalSize;
    DWORD dwNeededSize;
    DWORD dwUsedSize;
    HLINE hLine;
    DWORD dwLineDeviceID;
    DWORD dwAddressID;
    DWORD dwBearerMode;
    DWORD dwRate;
    DWORD dwMediaMode;
    DWORD dwAppSpecific;
    DWORD dwCallID;
    DWORD dwRelatedCallID;
    DWORD dwCallParamFlags;
    DWORD dwCallStates;
    DWORD dwMonitorDigitModes;
    DWORD dwMonitorMediaModes;
    LINEDIALPARAMS DialParams;
    DWORD dwOrigin;
    DWORD dwReason;
    DWORD dwCompletionID;
    DWORD dwNumOwners;    // sessions of all processes
    DWORD dwNumMonitors;  // sessions of this process
    DWORD dwCountryCode;
    DWORD dwTrunk;
    DWORD dwCallerIDFlags;
    DWORD dwCallerIDSize;
    DWORD dwCallerIDOffset;
    DWORD dwCallerIDNameSize;
    DWORD dwCallerIDNameOffset;
    DWORD dwCalledIDFlags;
    DWORD dwCalledIDSize;
    DWORD dwCalledIDOffset;
    DWORD dwCalledIDNameSize;
    DWORD dwCalledIDNameOffset;
    DWORD dwConnectedIDFlags;
    DWORD dwConnectedIDSize;
    DWORD dwConnectedIDOffset;
    DWORD dwConnectedIDNameSize;
    DWORD dwConnectedIDNameOffset;
    DWORD dwRedirectionIDFlags;
    DWORD dwRedirectionIDSize;
    DWORD dwRedirectionIDOffset;
    DWORD dwRedirectionIDNameSize;
    DWORD dwRedirectionIDNameOffset;
    DWORD dwRedirectingIDFlags;
    DWORD dwRedirectingIDSize;
    DWORD dwRedirectingIDOffset;
    DWORD dwRedirectingIDNameSize;
    DWORD dwRedirectingIDNameOffset;
    DWORD dwAppNameSize;
    DWORD dwAppNameOffset;
    DWORD dwDisplayableAddressSize;
    DWORD dwDisplayableAddressOffset;
    DWORD dwCalledPartySize;
    DWORD dwCalledPartyOffset;
    DWORD dwCommentSize;
    DWORD dwCommentOffset;
    DWORD dwDisplaySize;
    DWORD dwDisplayOffset;
    DWORD dwUserUserInfoSize;
    DWORD dwUserUserInfoOffset;
    DWORD dwHighLevelCompSize;
    DWORD dwHighLevelCompOffset;
    DWORD dwLowLevelCompSize;
    DWORD dwLowLevelCompOffset;
    DWORD dwChargingInfoSize;
    DWORD dwChargingInfoOffset;
    DWORD dwTerminalModesSize;
    DWORD dwTerminalModesOffset;
    DWORD dwDevSpecificSize;
    DWORD dwDevSpecificOffset;
    DWORD dwCallTreatment;
    DWORD dwCallDataSize;
    DWORD dwCallDataOffset;
    DWORD dwSendingFlowspecSize;
    DWORD dwSendingFlowspecOffset;
    DWORD dwReceivingFlowspecSize;
    DWORD dwReceivingFlowspecOffset;
};
using LINECALLINFO = linecallinfo_tag;
using LPLINECALLINFO = LINECALLINFO*;

struct linecallparams_tag {
    DWORD dwTotalSize;
    DWORD dwBearerMode;
    DWORD dwMinRate;
    DWORD dwMaxRate;
    DWORD dwMediaMode;
    DWORD dwCallParamFlags;
    DWORD dwAddressMode;
    DWORD dwAddressID;
    LINEDIALPARAMS DialParams;
    DWORD dwOrigAddressSize;
    DWORD dwOrigAddressOffset;
    DWORD dwDisplayableAddressSize;
    DWORD dwDisplayableAddressOffset;
    DWORD dwCalledPartySize;
    DWORD dwCalledPartyOffset;
    DWORD dwCommentSize;
    DWORD dwCommentOffset;
    DWORD dwUserUserInfoSize;
    DWORD dwUserUserInfoOffset;
    DWORD dwHighLevelCompSize;
    DWORD dwHighLevelCompOffset;
    DWORD dwLowLevelCompSize;
    DWORD dwLowLevelCompOffset;
    DWORD dwDevSpecificSize;
    DWORD dwDevSpecificOffset;
    DWORD dwPredictiveAutoTransferStates;
    DWORD dwTargetAddressSize;
    DWORD dwTargetAddressOffset;
    DWORD dwSendingFlowspecSize;
    DWORD dwSendingFlowspecOffset;
    DWORD dwReceivingFlowspecSize;
    DWORD dwReceivingFlowspecOffset;
    DWORD dwDeviceClassSize;
    DWORD dwDeviceClassOffset;
    DWORD dwDeviceConfigSize;
    DWORD dwDeviceConfigOffset;
    DWORD dwCallDataSize;
    DWORD dwCallDataOffset;
    DWORD dwNoAnswerTimeout;
    DWORD dwCallingPartyIDSize;
    DWORD dwCallingPartyIDOffset;
};
using LINECALLPARAMS = linecallparams_tag;
using LPLINECALLPARAMS = LINECALLPARAMS*;

// ---- Sessions -------------------------------------------------------------------------------------------------------

// Begins a session and tells how many lines there are. The name is what others hand calls to; NULL: the program's file
// name. LINEERR_INVALPOINTER without callback, handle or count.
ZRPLATFORM_API LONG lineInitialize(LPHLINEAPP session, HINSTANCE instance, LINECALLBACK callback, LPCWSTR name,
                                   LPDWORD lines);
// Ends it with its lines and calls, which stay as they are, but nobody owns them for this session any more. Requests
// under way are waited for, two seconds at most; they are carried out in any case, and not replied to.
ZRPLATFORM_API LONG lineShutdown(HLINEAPP session);

// The highest version between both that this is: 1.3, 1.4 or 2.0. There are no extensions.
ZRPLATFORM_API LONG lineNegotiateAPIVersion(HLINEAPP session, DWORD device, DWORD low, DWORD high, LPDWORD version,
                                            LPLINEEXTENSIONID extension);
ZRPLATFORM_API LONG lineGetDevCaps(HLINEAPP session, DWORD device, DWORD version, DWORD extension_version,
                                   LPLINEDEVCAPS caps);

// Opens a line: to be told of its calls (LINECALLPRIVILEGE_MONITOR), to be given those of these media modes
// (LINECALLPRIVILEGE_OWNER), both, or to make calls only (LINECALLPRIVILEGE_NONE). LINEMAPPER: the first line that
// offers the media modes. `params` is not looked at.
ZRPLATFORM_API LONG lineOpen(HLINEAPP session, DWORD device, LPHLINE line, DWORD version, DWORD extension_version,
                             DWORD_PTR instance, DWORD privileges, DWORD media_modes, LPLINECALLPARAMS params);
// With the handles of its calls.
ZRPLATFORM_API LONG lineClose(HLINE line);

// ---- Calls ----------------------------------------------------------------------------------------------------------

// Handles, as a monitor, to the calls of a line or of its address that the line has none for yet. They are handed out
// all or, with LINEERR_STRUCTURETOOSMALL and dwNeededSize, not at all.
ZRPLATFORM_API LONG lineGetNewCalls(HLINE line, DWORD address, DWORD select, LPLINECALLLIST list);
ZRPLATFORM_API LONG lineGetCallStatus(HCALL call, LPLINECALLSTATUS status);
ZRPLATFORM_API LONG lineGetCallInfo(HCALL call, LPLINECALLINFO info);

// LINECALLPRIVILEGE_OWNER, which any number of sessions may be, or LINECALLPRIVILEGE_MONITOR: LINEERR_INVALCALLSTATE
// for the only owner of a call that is not over, and that he has not dropped.
ZRPLATFORM_API LONG lineSetCallPrivilege(HCALL call, DWORD privilege);
// Gives the handle up; LINEERR_INVALCALLSTATE likewise.
ZRPLATFORM_API LONG lineDeallocateCall(HCALL call);

// Requests. The handle of lineMakeCall is an owner's, and good once its LINE_REPLY says 0. The address is digits, * and
// #, with + in front; spaces and ( ) - . / between them do not count. Others: of owners only (LINEERR_NOTOWNER).
ZRPLATFORM_API LONG lineMakeCall(HLINE line, LPHCALL call, LPCWSTR address, DWORD country,
                                 const LINECALLPARAMS* params);
ZRPLATFORM_API LONG lineAnswer(HCALL call, LPCSTR user_info, DWORD size);
ZRPLATFORM_API LONG lineDrop(HCALL call, LPCSTR user_info, DWORD size);

// Makes another session an owner, too: one of the application of that name or, without a name, of the application of
// highest priority for the one media mode. It must have opened the call's line as an owner for that mode. It is told
// LINE_APPNEWCALL. LINEERR_TARGETNOTFOUND; LINEERR_TARGETSELF: the caller is it.
ZRPLATFORM_API LONG lineHandoff(HCALL call, LPCWSTR name, DWORD media_mode);
// Puts an application before (1) all others for a media mode, or takes it out of their order (0). Kept in the
// registry, HKEY_CURRENT_USER\Software\Microsoft\Windows\CurrentVersion\Telephony\HandoffPriorities. Those that are not
// in the order come behind it, as they opened their lines. Extensions and request modes are not offered.
ZRPLATFORM_API LONG lineSetAppPriority(LPCWSTR name, DWORD media_mode, LPLINEEXTENSIONID extension, DWORD request_mode,
                                       LPCWSTR extension_name, DWORD priority);
