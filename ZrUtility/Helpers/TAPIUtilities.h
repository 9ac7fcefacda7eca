#pragma once

#include <cstddef>

#include "ZrUtility/Export.h"
#include "platform/tapi.h"

// Walks over the telephone lines and their calls, and telephony's structures of variable size in blocks that fit.
//
// What is handed out is a block of LocalAlloc: give it back with Free. `error`, where it is given, is the result of the
// last telephony call. Failures are logged. Any thread; what is called back is called on the calling thread. Each walk
// over lines or devices is a session of its own.
class ZRUTILITY_API TAPIUtilities {
public:
    // A list with room for one call, which is enough as a rule. A copy has the same one call.
    struct LINECALLLISTEX : LINECALLLIST {
        HCALL hFirstCall;
    };

    // Is shown a device, or an opened line, and its capabilities, which are valid during the call; false ends the walk.
    using DeviceVisitor = bool (*)(const HLINEAPP session, ULONG device, ULONG version, linedevcaps_tag* const caps,
                                   void* context);
    using LineVisitor = bool (*)(const HLINE line, linedevcaps_tag* const caps, void* context);
    // Is shown a call and its status, and gives the call back with lineDeallocateCall.
    using CallVisitor = bool (*)(const HCALL call, linecallstatus_tag* const status, void* context);

    // Sets the pointer to NULL; there may be nothing behind it. False only for a NULL `block`.
    static bool Free(void** block);
    static bool Free(LINECALLLISTEX** list);
    static bool Free(linecallstatus_tag** status);
    static bool Free(linedevcaps_tag** caps);

    static bool GetDevCaps(const HLINEAPP session, ULONG device, ULONG version, linedevcaps_tag** caps, int* error);
    static bool GetNewCalls(const HLINE line, ULONG address, ULONG select, LINECALLLISTEX** list, int* error);
    static bool GetCallStatus(const HCALL call, linecallstatus_tag** status, int* error);

    // Shows all devices. A device whose version is not 2.0 is passed over; one whose capabilities cannot be read ends
    // the walk. True when all were visited and no visitor ended it. Without a `callback` the session's messages go
    // nowhere.
    static bool EnumDevices(void* context, DeviceVisitor visitor, LINECALLBACK callback);
    // For each device opens the line of the device 0, as a monitor, with the device's number as the line's instance,
    // and shows it with the device's capabilities. The visitor may close it; at the end of the walk all are closed. A
    // line that cannot be opened is passed over.
    static bool EnumLines(void* context, LineVisitor visitor, LINECALLBACK callback);
    // Shows the calls of a line that are new to it. True for none.
    static bool EnumNewCalls(const HLINE line, void* context, CallVisitor visitor);

private:
    TAPIUtilities() {}
};
