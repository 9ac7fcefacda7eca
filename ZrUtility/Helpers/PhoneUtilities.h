#pragma once

#include "ZrUtility/Export.h"

// Is there a voice call, does it ring, end it, answer it. Each is a session of its own and keeps nothing. Failures are
// logged and lead to "no", or to nothing being done. Any thread.
class ZRUTILITY_API PhoneUtilities {
public:
    // There is a call that is neither idle nor disconnected.
    static bool IsCurrentVoiceCall();
    // A call rings. The calls of a line are looked at up to the first one that does not.
    static bool IsIncomingVoiceCall();
    // Drops each call that is neither idle nor disconnected. True.
    static bool EndCurrentVoiceCall();
    // Answers each call that rings and hands it to the application for voice calls. True.
    static bool AnswerIncomingVoiceCall();

private:
    PhoneUtilities() {}
};
