#pragma once

// The connections of this computer, and the networks that they lead into.
//
// A connection is a network interface, but for the loopback. What the kernel says of interfaces, addresses and routes
// is asked anew by each call. Where NetworkManager is on the system bus, it says what it calls a connection, of what
// kind it is, whether it is a VPN, whether it is metered, when it was last established, and how strong a wireless
// network's signal is; that is kept until it says that something changed, and a signal's strength five seconds. What it
// does not say within two seconds is left out, and then it is not asked again for half a minute.
//
// Destinations are the keys below HKLM\Comm\ConnMgr\Destinations, each with its GUID as the text DestId. Which one a
// connection leads into is said by rules, the keys below HKLM\Comm\ConnMgr\Rules. They are looked through in the order
// of their names, and the first one that fits decides. Its values:
//   Network    into which: a destination's name, or a GUID in braces. A rule without it, or with one that is neither,
//   is
//              passed over.
//   Interface  fits interfaces of that name; * stands for any characters and ? for one, letter case does not matter
//   Connection fits connections of that name, by which NetworkManager knows them; with * and ? likewise
//   Type       fits connections of that kind: cellular, ethernet, wifi, bluetooth, dialup or vpn
// What a rule does not have fits all; a value that is no text is passed over with its rule. Where no rule fits: a
// connection that holds a default route leads into the Internet network, a VPN or a private network without one into
// the Work network, and others into none.

#include "platform/errors.h"
#include "platform/export.h"
#include "platform/types.h"

// An address as the host's own calls have it: a sockaddr_storage, with the host's address families.
struct alignas(8) SOCKADDR_STORAGE {
    USHORT ss_family;
    BYTE ss_data[126];
};
static_assert(sizeof(SOCKADDR_STORAGE) == 128);

struct CONNMGR_CONNECTION_IPADDR {
    DWORD cIPAddr;
    SOCKADDR_STORAGE IPAddr[1];  // cIPAddr of them
};

struct CONNMGR_CONNECTION_DETAILED_STATUS {
    CONNMGR_CONNECTION_DETAILED_STATUS* pNext;
    DWORD dwVer;
    DWORD dwParams;   // CONNMGRDETAILEDSTATUS_PARAM_: which of the others say something
    DWORD dwType;     // CM_CONNTYPE_
    DWORD dwSubtype;  // CM_CONNSUBTYPE_
    DWORD dwFlags;    // CM_DSF_
    DWORD dwSecure;   // not 0: nobody on the way can read along
    GUID guidDestNet;
    GUID guidSourceNet;
    LPWSTR szDescription;                // NetworkManager's name of the connection, or the interface's
    LPWSTR szAdapterName;                // the interface's
    DWORD dwConnectionStatus;            // CONNMGR_STATUS_
    SYSTEMTIME LastConnectTime;          // UTC; by NetworkManager, which moves it on while the connection lasts
    DWORD dwSignalQuality;               // 0 to 255; of wireless networks, by NetworkManager
    CONNMGR_CONNECTION_IPADDR* pIPAddr;  // NULL: none; IPv4 before IPv6
};

inline constexpr DWORD CONNMGRDETAILEDSTATUS_VERSION = 1;
inline constexpr DWORD CONNMGRDETAILEDSTATUS_PARAM_TYPE = 0x0001;
inline constexpr DWORD CONNMGRDETAILEDSTATUS_PARAM_SUBTYPE = 0x0002;
inline constexpr DWORD CONNMGRDETAILEDSTATUS_PARAM_DESTNET = 0x0004;
inline constexpr DWORD CONNMGRDETAILEDSTATUS_PARAM_SOURCENET = 0x0008;
inline constexpr DWORD CONNMGRDETAILEDSTATUS_PARAM_FLAGS = 0x0010;
inline constexpr DWORD CONNMGRDETAILEDSTATUS_PARAM_SECURE = 0x0020;
inline constexpr DWORD CONNMGRDETAILEDSTATUS_PARAM_DESCRIPTION = 0x0040;
inline constexpr DWORD CONNMGRDETAILEDSTATUS_PARAM_ADAPTERNAME = 0x0080;
inline constexpr DWORD CONNMGRDETAILEDSTATUS_PARAM_CONNSTATUS = 0x0100;
inline constexpr DWORD CONNMGRDETAILEDSTATUS_PARAM_LASTCONNECT = 0x0200;
inline constexpr DWORD CONNMGRDETAILEDSTATUS_PARAM_SIGNALQUALITY = 0x0400;
inline constexpr DWORD CONNMGRDETAILEDSTATUS_PARAM_IPADDR = 0x0800;

inline constexpr DWORD CM_CONNTYPE_UNKNOWN = 0;
inline constexpr DWORD CM_CONNTYPE_CELLULAR = 1;
inline constexpr DWORD CM_CONNTYPE_NIC = 2;
inline constexpr DWORD CM_CONNTYPE_BLUETOOTH = 3;
inline constexpr DWORD CM_CONNTYPE_UNIMODEM = 4;
inline constexpr DWORD CM_CONNTYPE_VPN = 5;
inline constexpr DWORD CM_CONNTYPE_PROXY = 6;
inline constexpr DWORD CM_CONNTYPE_PCLINK = 7;

inline constexpr DWORD CM_CONNSUBTYPE_UNKNOWN = 0;
inline constexpr DWORD CM_CONNSUBTYPE_NIC_ETHERNET = 1;
inline constexpr DWORD CM_CONNSUBTYPE_NIC_WIFI = 2;
inline constexpr DWORD CM_CONNSUBTYPE_BLUETOOTH_PAN = 2;

inline constexpr DWORD CM_DSF_BILLBYTIME = 0x1;  // metered, be it by time or by volume; where that is known
inline constexpr DWORD CM_DSF_ALWAYSON = 0x2;
inline constexpr DWORD CM_DSF_SUSPENDRESUME = 0x4;

inline constexpr DWORD CONNMGR_STATUS_UNKNOWN = 0x00;
inline constexpr DWORD CONNMGR_STATUS_CONNECTED = 0x10;  // up, and with an address that others can reach it at
inline constexpr DWORD CONNMGR_STATUS_SUSPENDED = 0x11;
inline constexpr DWORD CONNMGR_STATUS_DISCONNECTED = 0x20;

// The networks that every device has.
inline constexpr GUID IID_DestNetInternet = {
    0x436EF144, 0xB4FB, 0x4863, {0xA0, 0x41, 0x8F, 0x90, 0x5A, 0x62, 0xC5, 0x72}};
inline constexpr GUID IID_DestNetCorp = {0xA1182988, 0x0D73, 0x439E, {0x87, 0xAD, 0x2A, 0x5B, 0x36, 0x9F, 0x80, 0x8B}};

// Writes a chain of records, one a connection, into `buffer`, with all that they point to: connections that hold a
// default route first, the preferred one in front of the others. *size is the buffer's size in bytes, which must be
// aligned as the records are, and then the size that the chain needs. S_OK; HRESULT_FROM_WIN32 of
// ERROR_INSUFFICIENT_BUFFER when it does not fit or there is no buffer, with nothing written; S_OK and the size 0 when
// there are no connections. E_INVALIDARG: no size. E_OUTOFMEMORY, or what else kept the kernel from being asked. What
// is needed may be more at the next call. Any thread.
ZRPLATFORM_API HRESULT ConnMgrQueryDetailedStatus(CONNMGR_CONNECTION_DETAILED_STATUS* buffer, DWORD* size);

// ---- this system's additions ---------------------------------------------------------------------------------------

enum class ZrConnectionReason : int {
    Rule,          // Rule names it
    DefaultRoute,  // into the Internet network
    Vpn,           // without a default route
    PrivateNetwork,
    None,  // leads into no network
};

struct ZrConnection {
    const CONNMGR_CONNECTION_DETAILED_STATUS* Status;
    LPCWSTR Network;  // the destination's name; "Internet" and "Work" also where the registry has none; "" for none
    ZrConnectionReason Reason;
    LPCWSTR Rule;  // "" when none decided
    LPCWSTR Name;  // NetworkManager's; "" for a connection that it does not know
    BOOL Metered;  // who uses it pays for what he uses, as far as NetworkManager knows
};

// Calls visit(connection, context) for each connection, in the order of the chain, until it returns something other
// than 0. What it is given is valid during the call. S_OK or the failures of ConnMgrQueryDetailedStatus.
using ZrConnectionVisitor = int (*)(const ZrConnection* connection, LPVOID context);
ZRPLATFORM_API HRESULT ZrVisitConnections(ZrConnectionVisitor visit, LPVOID context);

// Gives a handle that is signalled whenever something was told about interfaces, addresses or routes, or by
// NetworkManager, which need not have changed anything that the calls above show; like the one of NotifyAddrChange
// (platform/iphelper.h) in all else. A forked child is told by NetworkManager once it has called one of these.
ZRPLATFORM_API DWORD ZrNotifyConnectionChange(HANDLE* handle);

// Loads what asking NetworkManager needs, where there is a system bus. From then on the calls above ask nothing of the
// loader: for a thread that somebody waits for while a library is unloaded, when the loader serves nobody else. Any
// thread.
ZRPLATFORM_API void ZrPrepareConnections();
