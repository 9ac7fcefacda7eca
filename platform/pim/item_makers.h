#pragma once

#include "session.h"

namespace zr::platform::pim {

// One per kind of item; each in the source of that kind.
IDispatch* make_contact(const SessionRef& session, LONG oid, RowRef row);
IDispatch* make_appointment(const SessionRef& session, LONG oid, RowRef row);
IDispatch* make_task(const SessionRef& session, LONG oid, RowRef row);

}  // namespace zr::platform::pim
