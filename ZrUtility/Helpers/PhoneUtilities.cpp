#include "ZrUtility/Helpers/PhoneUtilities.h"

#include "ZrLog/ZrLog.h"
#include "ZrUtility/Helpers/TAPIUtilities.h"

namespace {

constexpr const char* LOG_SOURCE = ".\\Helpers\\PhoneUtilities.cppzrwindowsmobile";
constexpr std::uint32_t LOG_FAILURE = zrLogCategory(0x68, kZrLogFailure);

// Requests have positive results.
void LogIfFailed(int line, LONG result) {
    if (result < 0) zrKelDebugBinLog1(LOG_SOURCE, line, LOG_FAILURE, static_cast<ULONG>(result));
}

bool IsOver(const linecallstatus_tag* status) {
    return status->dwCallState == LINECALLSTATE_IDLE || status->dwCallState == LINECALLSTATE_DISCONNECTED;
}

bool IsRinging(const linecallstatus_tag* status) {
    return status->dwCallState == LINECALLSTATE_OFFERING;
}

void Deallocate(HCALL call) {
    LogIfFailed(__LINE__, lineDeallocateCall(call));
}

void SetPrivilege(HCALL call, DWORD privilege) {
    LogIfFailed(__LINE__, lineSetCallPrivilege(call, privilege));
}

struct CallWalk {
    TAPIUtilities::CallVisitor visitor;
    bool closesLines;
    bool answer;
};

bool LookAtLine(const HLINE line, linedevcaps_tag* const caps, void* context) {
    CallWalk& walk = *static_cast<CallWalk*>(context);
    if ((caps->dwMediaModes & LINEMEDIAMODE_INTERACTIVEVOICE) != 0) {
        TAPIUtilities::EnumNewCalls(line, &walk.answer, walk.visitor);
    }
    if (walk.closesLines) LogIfFailed(__LINE__, lineClose(line));
    return true;
}

bool LookAtCalls(TAPIUtilities::CallVisitor visitor, bool closesLines) {
    CallWalk walk{visitor, closesLines, false};
    TAPIUtilities::EnumLines(&walk, LookAtLine, nullptr);
    return walk.answer;
}

bool LookForCurrent(const HCALL call, linecallstatus_tag* const status, void* answer) {
    Deallocate(call);
    if (IsOver(status)) return true;
    *static_cast<bool*>(answer) = true;
    return false;
}

bool LookForRinging(const HCALL call, linecallstatus_tag* const status, void* answer) {
    Deallocate(call);
    if (!IsRinging(status)) return false;
    *static_cast<bool*>(answer) = true;
    return true;
}

bool EndCall(const HCALL call, linecallstatus_tag* const status, void*) {
    if (!IsOver(status)) {
        SetPrivilege(call, LINECALLPRIVILEGE_OWNER);
        LogIfFailed(__LINE__, lineDrop(call, nullptr, 0));
        SetPrivilege(call, LINECALLPRIVILEGE_MONITOR);
    }
    Deallocate(call);
    return true;
}

bool AnswerCall(const HCALL call, linecallstatus_tag* const status, void*) {
    if (IsRinging(status)) {
        SetPrivilege(call, LINECALLPRIVILEGE_OWNER);
        LogIfFailed(__LINE__, lineAnswer(call, nullptr, 0));
        LogIfFailed(__LINE__, lineHandoff(call, nullptr, LINEMEDIAMODE_INTERACTIVEVOICE));
        SetPrivilege(call, LINECALLPRIVILEGE_MONITOR);
    }
    Deallocate(call);
    return true;
}

}  // namespace

bool PhoneUtilities::IsCurrentVoiceCall() {
    return LookAtCalls(LookForCurrent, false);
}

bool PhoneUtilities::IsIncomingVoiceCall() {
    return LookAtCalls(LookForRinging, true);
}

bool PhoneUtilities::EndCurrentVoiceCall() {
    LookAtCalls(EndCall, true);
    return true;
}

bool PhoneUtilities::AnswerIncomingVoiceCall() {
    LookAtCalls(AnswerCall, true);
    return true;
}
