#pragma once

#include "item_state.h"

namespace zr::platform::pim {

// One per kind of item; each in the source of that kind.
IDispatch* make_contact(const SessionRef& session, Given&& given);
IDispatch* make_appointment(const SessionRef& session, Given&& given);
IDispatch* make_task(const SessionRef& session, Given&& given);

}  // namespace zr::platform::pim
