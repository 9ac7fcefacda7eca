#pragma once

#include "ZrUtility/Export.h"

// The keywords of the client's message and calendar protocol, by identifier: priorities 0-3, sensitivities 4-6,
// recipient markers 7-9, truth values 10-11, read states 12-14, MIME words 15-30, content disposition 31-38, header
// punctuation 39-43, body kinds 44-45, meeting responses 46-50, HTTP words 51-60, days in two letters 61-67 (Sunday
// first) and in full 68-74, months in full 75-86 and abbreviated 87-98, recurrences 99-102, free/busy states 103-106.
// So weekday d (0 is Sunday) is 68 + d or 61 + d, and month m (1 to 12) is 74 + m or 86 + m.
//
// Returns the keyword, which lives as long as the library and is never freed, or NULL for an identifier above 106.
// Any thread.
ZRUTILITY_API const char* GetKeyword(unsigned int id) noexcept;
