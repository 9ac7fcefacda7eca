#pragma once

// Named events that the system signals when something happens to it.
//
// Of the system's events the changes of the time are offered: the clock was set (by a user, the network or at resuming
// from sleep), or the time zone changed. docs/time.md tells how they are noticed.

#include "platform/errors.h"
#include "platform/export.h"
#include "platform/types.h"

inline constexpr LONG NOTIFICATION_EVENT_NONE = 0;
inline constexpr LONG NOTIFICATION_EVENT_TIME_CHANGE = 1;  // the clock was set, or the zone changed
inline constexpr LONG NOTIFICATION_EVENT_SYNC_END = 2;
inline constexpr LONG NOTIFICATION_EVENT_ON_AC_POWER = 3;
inline constexpr LONG NOTIFICATION_EVENT_OFF_AC_POWER = 4;
inline constexpr LONG NOTIFICATION_EVENT_NET_CONNECT = 5;
inline constexpr LONG NOTIFICATION_EVENT_NET_DISCONNECT = 6;
inline constexpr LONG NOTIFICATION_EVENT_DEVICE_CHANGE = 7;
inline constexpr LONG NOTIFICATION_EVENT_IR_DISCOVERED = 8;
inline constexpr LONG NOTIFICATION_EVENT_RS232_DETECTED = 9;
inline constexpr LONG NOTIFICATION_EVENT_RESTORE_END = 10;
inline constexpr LONG NOTIFICATION_EVENT_WAKEUP = 11;
inline constexpr LONG NOTIFICATION_EVENT_TZ_CHANGE = 12;  // the zone changed
inline constexpr LONG NOTIFICATION_EVENT_MACHINE_NAME_CHANGE = 13;
inline constexpr LONG NOTIFICATION_EVENT_RNDIS_FN_DETECTED = 14;
inline constexpr LONG NOTIFICATION_EVENT_INTERNET_PROXY_CHANGE = 15;
inline constexpr LONG NOTIFICATION_EVENT_LAST = NOTIFICATION_EVENT_INTERNET_PROXY_CHANGE;

// What stands before an event's name when it is registered.
inline constexpr WCHAR NAMED_EVENT_PREFIX_TEXT[] = u"\\\\.\\Notifications\\NamedEvents\\";

// Asks for the named event NAME to be set each time the system event happens. `application` is
// "\\.\Notifications\NamedEvents\NAME", the part before NAME in any letter case; programs are not started. The event is
// looked up by its name each time, so it may be made later than the registration, or not at all; who waits for it
// resets it.
//
// A name may be registered for several system events. NOTIFICATION_EVENT_NONE ends all its registrations; a name
// without any is no failure. A registration is the process's, whichever thread made it, and ends with the process,
// however that ends; other processes that registered the same name keep theirs. When several have, one of them sets
// the event, once for each change.
//
// FALSE: ERROR_INVALID_PARAMETER (NULL, no name or one of MAX_PATH characters or more, an unknown system event),
// ERROR_NOT_SUPPORTED (no named event; a system event that is not offered), ERROR_NOT_ENOUGH_MEMORY,
// ERROR_TOO_MANY_OPEN_FILES or what else keeps the system from being watched. Any thread. The first registration starts
// a thread that watches; it ends with the last one.
ZRPLATFORM_API BOOL CeRunAppAtEvent(LPCWSTR application, LONG system_event);
