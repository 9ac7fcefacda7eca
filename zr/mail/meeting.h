#pragma once

// What a calendar in a message makes of the message.

#include <string>
#include <string_view>

namespace zr {

// The message class of a message that carries this calendar: of a request, a reply or a cancellation; empty for any
// other. `method` is what the part's type says; what the calendar says counts where that is nothing. Of the calendar a
// beginning is enough.
std::string meeting_class(std::string_view method, std::string_view calendar);

}  // namespace zr
