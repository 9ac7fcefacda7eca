#pragma once

// The files in which the platform keeps what outlives a process: the registry, the contacts.

#include "platform/export.h"
#include "platform/types.h"

// The name of the SQLite layer (VFS) through which the stores' files are read and written in this process, for programs
// that look into them with SQLite's own calls (sqlite3_open_v2). Every page has a checksum there: what is written past
// the layer is damage. NULL when memory is short.
ZRPLATFORM_API LPCSTR ZrStoreLayer();
