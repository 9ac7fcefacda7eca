#pragma once

// The panel that text is put in with: whether it is up, and where.

#include "platform/errors.h"
#include "platform/export.h"
#include "platform/types.h"

inline constexpr UINT SPI_SETSIPINFO = 224;
inline constexpr UINT SPI_GETSIPINFO = 225;

inline constexpr DWORD SIPF_OFF = 0x0000;
inline constexpr DWORD SIPF_ON = 0x0001;
inline constexpr DWORD SIPF_DOCKED = 0x0002;

struct SIPINFO {
    DWORD cbSize;  // 48, as on the handheld, is without pvImData; sizeof(SIPINFO) is all of it
    DWORD fdwFlags;
    RECT rcVisibleDesktop;  // what the panel leaves of the screen
    RECT rcSipRect;         // where it is when it is up: the lowest quarter of the screen
    DWORD dwImDataSize;     // 0
    void* pvImData;         // left as it is
};

enum SIPSTATE { SIP_UP, SIP_DOWN, SIP_FORCEDOWN, SIP_UNCHANGED, SIP_INPUTDIALOG, SIP_INPUTDIALOGINIT };

// SPI_GETSIPINFO fills a SIPINFO, SPI_SETSIPINFO takes SIPF_ON from one. Where the desktop's on-screen keyboard runs
// (sm.puri.OSK0 on the session bus) it is moved, and its own word counts; one that does not answer within half a second
// is left alone for a while. Whether the panel is up is known to all of the user's processes, for as long as one of
// them that has asked is there. FALSE: ERROR_INVALID_PARAMETER.
ZRPLATFORM_API BOOL SHSipInfo(UINT action, UINT parameter, void* info, UINT changes);

// Brings the panel up (SIP_UP, SIP_INPUTDIALOG) or down (SIP_DOWN, SIP_FORCEDOWN), the others leave it. When that, or
// somebody else, changes it, each window without parent is posted WM_SETTINGCHANGE with SPI_SETSIPINFO: this process's
// before the call returns, others' soon, in each process that has called one of the two functions. FALSE:
// ERROR_INVALID_WINDOW_HANDLE, ERROR_INVALID_PARAMETER.
ZRPLATFORM_API BOOL SHSipPreference(HWND window, SIPSTATE state);
