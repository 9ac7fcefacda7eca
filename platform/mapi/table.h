#pragma once

// Tables as programs walk them, over any source of rows.

#include <memory>

#include "row_source.h"

namespace zr::platform::mapi {

HRESULT make_table(const SessionRef& session, std::unique_ptr<RowSource> source, IMAPITable** table);

}  // namespace zr::platform::mapi
