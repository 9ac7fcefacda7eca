#pragma once

#include "ZrUtility/Export.h"
#include "platform/connection.h"

// Walks this device's connections.
class ZRUTILITY_API ConnMgrQueryHelper {
public:
    // Is shown a record as the platform has it, valid during the call; something other than 0 ends the walk.
    using Visitor = int (*)(CONNMGR_CONNECTION_DETAILED_STATUS* record, void* context);

    // Shows the visitor one connection after the other, as they all were at one moment. How many it was shown; 0
    // without a visitor, without connections, and when they cannot be asked for: the log says why. Any thread.
    static int QueryDetailedStatus(Visitor visitor, void* context);

    // For looking into connections by the log; they write nothing.
    static void DebugLogAllConnections();
    static void DebugLogConnMgrConnection(CONNMGR_CONNECTION_DETAILED_STATUS* record);

private:
    ConnMgrQueryHelper() {}

    static int DebugLogAllConnectionsCallback(CONNMGR_CONNECTION_DETAILED_STATUS* record, void* context);
};
