#pragma once

// A text as a narrow buffer record of the log.

#include "ZrLog/ZrLog.h"
#include "platform/types.h"

// Writes `text` in UTF-8, without its NUL. NULL, and a text for which there is no memory, leave no record. The category
// is a buffer record's.
void LogText(const char* source, int line, std::uint32_t category, const WCHAR* text);
