#pragma once

// The files in which the platform keeps what outlives a process: the registry, the contacts and appointments, the
// messages. Looking after them: examining, backing up, bringing back.
//
// Paths are the host's, UTF-8. Results are system error codes; ZrStoreLastErrorText says more. Any thread. Programs
// that have a store open go on: while it is copied, and in the one that takes its place.

#include "platform/errors.h"
#include "platform/export.h"
#include "platform/types.h"

// The stores that there are, "registry", "contacts" and "mail", from 0; NULL behind the last one.
ZRPLATFORM_API LPCSTR ZrStoreName(DWORD index);

// Reads all of a store. ERROR_SUCCESS; ERROR_FILE_NOT_FOUND when nothing was kept so far; ERROR_FILE_CORRUPT when it is
// damaged: it was set aside, and the text says as what; ERROR_INVALID_NAME for a store that there is not; ERROR_BUSY,
// ERROR_REVISION_MISMATCH (a newer version wrote it), ERROR_ACCESS_DENIED and others when it cannot be read.
ZRPLATFORM_API LONG ZrStoreCheck(LPCSTR store);

// Writes a store as it is at one moment into a new file, which is a store itself. ERROR_FILE_EXISTS when `to` is there;
// else as ZrStoreCheck, and ERROR_DISK_FULL. `to` is whole or not there.
ZRPLATFORM_API LONG ZrStoreBackUp(LPCSTR store, LPCSTR to);

// Writes a store anew and gives the host what is free in it. A store does so by itself after large deletions, as long
// as that takes little time; this is for the large ones. Programs read meanwhile, and wait to write: for five seconds
// at most, then they are told ERROR_BUSY. It needs as much room on the disk once more until it is done
// (ERROR_DISK_FULL); else as ZrStoreCheck. `freed`, which may be NULL, gets the bytes; programs that read may keep them
// a while.
ZRPLATFORM_API LONG ZrStoreCompact(LPCSTR store, ULONGLONG* freed);

// Writes what can be read of a store that was set aside, or of any other file of a store, into a new file. `from` is
// not changed, and its journal, which lies beside it, is read too, unless it is not of this file or of another moment
// of it. What is damaged is left out, never guessed; what lay in a registry key that was lost is in one named
// "Recovered" and a number below HKEY_CURRENT_USER. `items` gets the number of rows; ZrStoreLastErrorText names the
// tables of which rows were left out. ERROR_BAD_FORMAT when it is no store's file; ERROR_FILE_CORRUPT when nothing can
// be read; ERROR_SHARING_VIOLATION for the store that is in place.
ZRPLATFORM_API LONG ZrStoreRecover(LPCSTR from, LPCSTR to, ULONGLONG* items);

// Puts a copy of `from`, a store's file that is whole, in the place of the store of its kind. The present one is
// renamed (NAME.replaced-DATE), and is not changed any more. ERROR_BAD_FORMAT, ERROR_FILE_CORRUPT,
// ERROR_REVISION_MISMATCH when `from` cannot be it.
ZRPLATFORM_API LONG ZrStoreRestore(LPCSTR from);

// A number that the file has which has the store's name, and no other that had the name and is still there: who reads
// for long finds the same one afterwards, or his store was set aside or replaced meanwhile. ERROR_FILE_NOT_FOUND when
// nothing was kept so far.
ZRPLATFORM_API LONG ZrStoreIdentity(LPCSTR store, ULONGLONG* identity);

// What the calling thread's last call had to say; empty when that is nothing. Valid until its next one.
ZRPLATFORM_API LPCSTR ZrStoreLastErrorText();

// The name of the SQLite layer (VFS) through which the stores' files are read and written in this process, for programs
// that look into them with SQLite's own calls (sqlite3_open_v2). Every page has a checksum there: what is written past
// the layer is damage. NULL when memory is short.
ZRPLATFORM_API LPCSTR ZrStoreLayer();
