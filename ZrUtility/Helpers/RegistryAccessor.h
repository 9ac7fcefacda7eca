#pragma once

// Single values of the registry, each read or written by one call: a key is opened (or made), used and closed again, so
// callers hold no handles. Readers take a default for what is missing or of another type. What sets a value flushes the
// registry before it returns, so that the value is on the disk; a flush that fails is not told. What deletes or moves
// does not flush: that is on the disk with the next flush of any program.
//
//     const ULONG port = RegistryAccessor::RegistryGetDWORD(HKEY_CURRENT_USER, u"Software\\Mail", u"Port", 143);
//     RegistryAccessor::RegistrySetDWORD(HKEY_CURRENT_USER, u"Software\\Mail", u"Port", 993);
//
// A root is a root key or any open one. It counts as invalid when it is NULL or (HKEY)-1. Which arguments a call looks
// at before it goes to the registry differs from call to call, as stated. Nothing is logged. Any thread.

#include "ZrUtility/Export.h"
#include "platform/registry.h"
#include "platform/types.h"

class ZRUTILITY_API RegistryAccessor {
public:
    // `def` for an invalid root, a NULL or empty sub-key or name, a value that is missing, of another type than
    // REG_DWORD or of another size than 4.
    static ULONG RegistryGetDWORD(HKEY root, const WCHAR* subKey, const WCHAR* name, ULONG def);
    static int RegistryGetInteger(HKEY root, const WCHAR* subKey, const WCHAR* name, int def);
    static bool RegistryGetBoolean(HKEY root, const WCHAR* subKey, const WCHAR* name, bool def);

    // Nothing happens for an invalid root, a NULL or empty sub-key or name; what fails later is not told either.
    static void RegistrySetDWORD(HKEY root, const WCHAR* subKey, const WCHAR* name, ULONG value);
    static void RegistrySetInteger(HKEY root, const WCHAR* subKey, const WCHAR* name, int value);
    static void RegistrySetBoolean(HKEY root, const WCHAR* subKey, const WCHAR* name, bool value);

    // With `dst` and `dstChars` of at least 1: the characters of the stored text, with its terminator if it was stored
    // with one; the text is in dst. When there is none that fits, `def` (or, when that is NULL or not shorter than
    // dstChars, the empty text) is in dst, and the result is 0. The name may be empty, not NULL. A text that was stored
    // without terminator has none in dst. An odd last byte is stored, and not counted.
    // Otherwise: the size of the value in bytes, of whatever type; 0 when there is none, for the root (HKEY)-1 and a
    // NULL or empty sub-key.
    static unsigned int RegistryGetString(HKEY root, const WCHAR* subKey, const WCHAR* name, WCHAR* dst, int dstChars,
                                          const WCHAR* def);
    // Stores `byteCount` bytes; count the terminator in. 1, whether the flush succeeded or not, or 0 when it could not
    // be written: also for an invalid root and a NULL or empty name. The sub-key may be NULL or empty: the value is
    // then the root's.
    static int RegistrySetString(HKEY root, const WCHAR* subKey, const WCHAR* name, WCHAR* data, int byteCount);

    // 0 with the value in `buf`, which has `len` bytes. -1 for NULL, a length below 1, an invalid root, a NULL or empty
    // sub-key, a NULL name (it may be empty); -2 when the key cannot be opened; -3 when the value is missing, of
    // another type or longer. With -3 the buffer may have been written to.
    static int RegistryGetBinary(HKEY root, const WCHAR* subKey, const WCHAR* name, unsigned char* buf, int len);
    static void RegistrySetBinary(HKEY root, const WCHAR* subKey, const WCHAR* name, unsigned char* data, int len);

    // Copies the values of the direct sub-keys of one key to another one, making that, and deletes the first key with
    // all that it holds. Values of the key itself, and keys further down, are not copied and are lost; so are, in a
    // sub-key, those from the first value of more than 1,040 bytes on. The first key is deleted also when the second
    // cannot be made. 0; -1 for NULL; the error code when the first key cannot be opened (nothing is deleted) or the
    // second cannot be made; 1 when the last sub-key could not be copied. Moving a key to itself, or into itself,
    // deletes it.
    static LONG RegistryMoveKey(HKEY root, const WCHAR* fromSubKey, const WCHAR* toSubKey);

    // 1 when the key can be opened.
    static int KeyExists(HKEY root, const WCHAR* subKey);
    // 1 for a value of at most four bytes; 0 for a longer one, too.
    static int RegistryKeyValueExists(HKEY root, const WCHAR* subKey, const WCHAR* name);
    // 1 when there was such a value.
    static int RegistryDeleteKeyValue(HKEY root, const WCHAR* subKey, const WCHAR* name);

private:
    RegistryAccessor() {}
};
