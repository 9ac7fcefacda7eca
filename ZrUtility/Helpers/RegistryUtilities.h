#pragma once

// Two colours of the platform's theme, kept for the process.

#include <atomic>

#include "ZrUtility/Export.h"
#include "platform/types.h"

class ZRUTILITY_API RegistryUtilities {
public:
    // The colours at the positions 9 and 8 of the theme's array.
    enum COLOR_INDICES : int { COLOR_AT_9 = 0, COLOR_AT_8 = 1 };

    // The colour as a COLORREF (0x00BBGGRR). The theme is HKEY_LOCAL_MACHINE\Software\Microsoft\Color: the array of
    // 32-bit colours in its binary value "SHColor", and values named by a position, which go before the array. While it
    // cannot be read the colours are 0x00FFFFFF and 0x00993300, and the next call tries again; so they are when both
    // are equal. The index is not checked: one that is neither of the two is taken for the first. Any thread.
    static ULONG GetColor(COLOR_INDICES index);
    // The next GetColor reads the registry again.
    static void InvalidateCache();

private:
    RegistryUtilities() {}

    static bool ReadColors();
    static bool ReadArray(HKEY key, DWORD size);
    static bool ReadOverrides(HKEY key);

    static std::atomic<ULONG> m_colorValues[2];
    static const WCHAR* const m_colorValuesNames[2];
    static const unsigned int m_colorBlobIndices[2];
    static const unsigned int m_colorLargestBlobIndex;
    static std::atomic<int> m_bCacheValid;
};
