#pragma once

// The shell's readers of single registry values.

#include "platform/errors.h"
#include "platform/export.h"
#include "platform/registry.h"
#include "platform/types.h"

// Read one value of the key at `subKey` (NULL or "": the key itself) below `key`. S_OK, or as an HRESULT the error of
// the registry; ERROR_INVALID_DATA when the value is of another type, or a DWORD of another size than four bytes;
// E_INVALIDARG when there is nothing to read into. Any thread.
//
// The text is a REG_SZ and comes terminated, also where it was stored without terminator; one that does not fit into
// `chars` characters with its terminator is ERROR_INSUFFICIENT_BUFFER. On failure `data` holds an empty text.
ZRPLATFORM_API HRESULT RegistryGetString(HKEY key, LPCWSTR subKey, LPCWSTR name, LPWSTR data, UINT chars);
// On failure *data is left alone.
ZRPLATFORM_API HRESULT RegistryGetDWORD(HKEY key, LPCWSTR subKey, LPCWSTR name, DWORD* data);
