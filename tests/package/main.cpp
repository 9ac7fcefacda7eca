// Uses something of each library through nothing but the installed headers.
#include <ZrLog/ZrLog.h>
#include <ZrUtility/ZrUtility.h>
#include <platform/platform.h>

#include <cstdio>

int main() {
    WCHAR* text = StringUtilities::SafeFormatString(u"%s has %d letters", u"sender", 6);
    const bool formatted = text && wcscmp(text, u"sender has 6 letters") == 0;
    StringUtilities::DeleteString(text);

    const HANDLE event = CreateEventW(nullptr, TRUE, TRUE, nullptr);
    const bool signalled = WaitForSingleObject(event, 0) == WAIT_OBJECT_0;
    CloseHandle(event);

    zrKelDebugBinLog0("outside", __LINE__, zrLogCategory(0x73, kZrLogInformation));

    IPOutlookApp* app = nullptr;
    const bool session = SUCCEEDED(OutlookManager::Login(app)) && SUCCEEDED(OutlookManager::Logout(app));

    std::printf("formatted %d, signalled %d, session %d\n", formatted, signalled, session);
    return formatted && signalled && session ? 0 : 1;
}
